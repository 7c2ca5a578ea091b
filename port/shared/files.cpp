#include "port/shared/files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <windows.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <vector>

#include "port/shared/faults.h"
#include "port/shared/objects.h"
#include "port/shared/text.h"

namespace port {
namespace {

std::mutex files_lock;  // root and the table of open files

std::string& Root() {
  static auto& root = *new std::string;
  return root;
}

pid_t root_owner = 0;

const std::string& RootLocked() {
  if (!Root().empty()) return Root();
  std::string pattern = std::filesystem::temp_directory_path() / "port-files-XXXXXX";
  if (!::mkdtemp(pattern.data())) std::abort();  // without a root nothing can work
  Root() = pattern;
  root_owner = ::getpid();
  std::atexit(RemoveTemporaryRoot);
  std::filesystem::create_directories(Root() + "/C/Windows/system32");
  return Root();
}

std::vector<std::wstring> Components(const std::wstring& path) {
  std::vector<std::wstring> parts;
  std::wstring drive = L"C";
  size_t at = 0;
  if (path.size() >= 2 && path[1] == L':') {
    drive = static_cast<wchar_t>(path[0] >= L'a' ? path[0] - (L'a' - L'A') : path[0]);
    at = 2;
  }
  parts.push_back(drive);
  std::wstring part;
  for (; at <= path.size(); ++at) {
    const bool separator = at == path.size() || path[at] == L'\\' || path[at] == L'/';
    if (!separator) {
      part.push_back(path[at]);
      continue;
    }
    if (part == L"..") {
      if (parts.size() > 1) parts.pop_back();  // never above the drive, so never out of the root
    } else if (!part.empty() && part != L".") {
      parts.push_back(part);
    }
    part.clear();
  }
  return parts;
}

// The name in that directory that matches without regard to letter case.
std::string MatchName(const std::string& directory, const std::wstring& name) {
  const std::string exact = Utf8(name);
  struct stat found;
  if (::stat((directory + "/" + exact).c_str(), &found) == 0) return exact;
  DIR* listing = ::opendir(directory.c_str());
  if (!listing) return exact;
  std::string match = exact;
  while (const dirent* entry = ::readdir(listing))
    if (SameName(Wide(entry->d_name), name)) match = entry->d_name;
  ::closedir(listing);
  return match;
}

struct OpenFile {
  DWORD access;
  DWORD share;
};

std::multimap<std::string, OpenFile>& OpenFiles() {
  static auto& open = *new std::multimap<std::string, OpenFile>;
  return open;
}

// Each handle's sharing mode must permit the other's access.
bool SharesAgree(const std::string& host_path, DWORD access, DWORD share) {
  auto allows = [](DWORD shared, DWORD wanted) {
    return (!(wanted & GENERIC_READ) || (shared & FILE_SHARE_READ)) &&
           (!(wanted & GENERIC_WRITE) || (shared & FILE_SHARE_WRITE));
  };
  auto [from, to] = OpenFiles().equal_range(host_path);
  return std::all_of(from, to, [&](const auto& entry) {
    return allows(entry.second.share, access) && allows(share, entry.second.access);
  });
}

void ForgetOpen(const std::string& host_path, DWORD access, DWORD share) {
  std::lock_guard hold(files_lock);
  auto [from, to] = OpenFiles().equal_range(host_path);
  for (auto at = from; at != to; ++at) {
    if (at->second.access != access || at->second.share != share) continue;
    OpenFiles().erase(at);
    return;
  }
}

class File : public Object {
 public:
  File(int fd, std::string host_path, DWORD access, DWORD share)
      : fd_(fd), host_path_(std::move(host_path)), access_(access), share_(share) {}
  ~File() override { ::close(fd_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  const char* kind() const override { return "file"; }
  void OnLastHandleClosed() override { ForgetOpen(host_path_, access_, share_); }
  int fd() const { return fd_; }
  bool may(DWORD access) const { return (access_ & access) != 0; }

 private:
  const int fd_;
  const std::string host_path_;
  const DWORD access_, share_;
};

bool IsDirectory(const std::string& path) {
  struct stat found;
  return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

DWORD ErrorOfErrno(int number, const std::string& path) {
  switch (number) {
    case ENOENT:
    case ENOTDIR:
      return IsDirectory(path.substr(0, path.rfind('/'))) ? ERROR_FILE_NOT_FOUND
                                                          : ERROR_PATH_NOT_FOUND;
    case EEXIST:
      return ERROR_FILE_EXISTS;
    case ENOSPC:
      return 112;  // ERROR_DISK_FULL
    case ENAMETOOLONG:
      return ERROR_INVALID_NAME;
    default:
      return ERROR_ACCESS_DENIED;
  }
}

bool FailWithErrno(int number, const std::string& path) {
  SetLastError(ErrorOfErrno(number, path));
  return false;
}

bool ValidName(const std::wstring& path) {
  if (path.empty()) return false;
  return path.find_first_of(L"<>\"|?*") == std::wstring::npos &&
         path.find(L':', 2) == std::wstring::npos;
}

// A host path, or nothing with the error for an invalid path.
std::string HostPathOrFail(LPCWSTR path) {
  if (!path || !*path) {
    SetLastError(ERROR_PATH_NOT_FOUND);
    return {};
  }
  if (!ValidName(path)) {
    SetLastError(ERROR_INVALID_NAME);
    return {};
  }
  return HostPath(path);
}

int OpenFlags(DWORD access, DWORD disposition) {
  // Windows can truncate through a handle for reading; POSIX requires write access.
  int flags =
      O_CLOEXEC | ((access & GENERIC_WRITE) || disposition == CREATE_ALWAYS ? O_RDWR : O_RDONLY);
  if (disposition == CREATE_NEW) return flags | O_CREAT | O_EXCL;
  if (disposition == CREATE_ALWAYS) return flags | O_CREAT | O_TRUNC;
  if (disposition == OPEN_ALWAYS) return flags | O_CREAT;
  return flags;
}

bool Exists(const std::string& path) {
  struct stat found;
  return ::stat(path.c_str(), &found) == 0;
}

}  // namespace

// Takes no lock: a killed thread may hold it.
void RemoveTemporaryRoot() {
  if (root_owner != ::getpid()) return;  // a forked child does not remove its parent's files
  std::error_code ignored;
  std::filesystem::remove_all(Root(), ignored);
}

void SetFileRoot(const std::string& directory) {
  std::lock_guard hold(files_lock);
  Root() = directory;
  root_owner = 0;
  std::filesystem::create_directories(directory + "/C/Windows/system32");
}

std::string FileRoot() {
  std::lock_guard hold(files_lock);
  return RootLocked();
}

std::string HostPath(const std::wstring& path) {
  std::string host = FileRoot();
  for (const std::wstring& part : Components(path))
    host.append(1, '/').append(MatchName(host, part));
  return host;
}

void MakeDirectories(const std::wstring& path) {
  std::filesystem::create_directories(HostPath(path));
}

}  // namespace port

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES,
                          DWORD disposition, DWORD, HANDLE) {
  if (port::Fails("CreateFileW")) return INVALID_HANDLE_VALUE;
  const std::string host = port::HostPathOrFail(path);
  if (host.empty()) return INVALID_HANDLE_VALUE;
  if (disposition < CREATE_NEW || disposition > OPEN_ALWAYS) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return INVALID_HANDLE_VALUE;
  }
  std::lock_guard hold(port::files_lock);
  const bool existed = port::Exists(host);
  if (existed && disposition == CREATE_NEW) {
    SetLastError(ERROR_FILE_EXISTS);
    return INVALID_HANDLE_VALUE;
  }
  if (port::IsDirectory(host)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return INVALID_HANDLE_VALUE;
  }
  if (!port::SharesAgree(host, access, share)) {
    SetLastError(ERROR_SHARING_VIOLATION);
    return INVALID_HANDLE_VALUE;
  }
  const int fd = ::open(host.c_str(), port::OpenFlags(access, disposition), 0666);
  if (fd < 0) {
    port::FailWithErrno(errno, host);
    return INVALID_HANDLE_VALUE;
  }
  port::OpenFiles().insert({host, {access, share}});
  const bool says_existed = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
  HANDLE handle = port::NewHandle(std::make_shared<port::File>(fd, host, access, share));
  SetLastError(existed && says_existed ? ERROR_ALREADY_EXISTS : 0);
  return handle;
}

BOOL WINAPI ReadFile(HANDLE handle, LPVOID buffer, DWORD size, LPDWORD read, LPOVERLAPPED) {
  if (read) *read = 0;
  if (port::Fails("ReadFile")) return FALSE;
  auto file = port::LookupAs<port::File>(handle);
  if (!file) return FALSE;
  const ssize_t got =
      file->may(GENERIC_READ) ? ::read(file->fd(), buffer, port::SizeToRead(size)) : -1;
  if (got < 0) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  if (read) *read = static_cast<DWORD>(got);
  return TRUE;
}

BOOL WINAPI WriteFile(HANDLE handle, LPCVOID buffer, DWORD size, LPDWORD written, LPOVERLAPPED) {
  if (written) *written = 0;
  if (port::Fails("WriteFile")) return FALSE;
  auto file = port::LookupAs<port::File>(handle);
  if (!file) return FALSE;
  if (!file->may(GENERIC_WRITE)) {
    SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
  }
  DWORD done = 0;
  while (done < size) {
    const ssize_t put = ::write(file->fd(), static_cast<const char*>(buffer) + done, size - done);
    if (put < 0 && errno == EINTR) continue;
    if (put < 0) return port::FailWithErrno(errno, "/");
    done += static_cast<DWORD>(put);
  }
  if (written) *written = done;
  return TRUE;
}

BOOL WINAPI GetFileSizeEx(HANDLE handle, PLARGE_INTEGER out) {
  if (port::Fails("GetFileSizeEx")) return FALSE;
  auto file = port::LookupAs<port::File>(handle);
  struct stat found;
  if (!file || ::fstat(file->fd(), &found) != 0) return FALSE;
  out->QuadPart = found.st_size;
  return TRUE;
}

DWORD WINAPI GetFileSize(HANDLE handle, LPDWORD high) {
  if (port::Fails("GetFileSize")) return INVALID_FILE_SIZE;
  auto file = port::LookupAs<port::File>(handle);
  struct stat found;
  if (!file || ::fstat(file->fd(), &found) != 0) return INVALID_FILE_SIZE;
  if (high) *high = static_cast<DWORD>(static_cast<uint64_t>(found.st_size) >> 32);
  SetLastError(0);  // distinguishes a size of 0xffffffff from a failure
  return static_cast<DWORD>(found.st_size);
}

BOOL WINAPI SetFilePointerEx(HANDLE handle, LARGE_INTEGER distance, PLARGE_INTEGER out,
                             DWORD method) {
  if (port::Fails("SetFilePointerEx")) return FALSE;
  auto file = port::LookupAs<port::File>(handle);
  if (!file) return FALSE;
  const int whence = method == FILE_BEGIN ? SEEK_SET : method == FILE_CURRENT ? SEEK_CUR : SEEK_END;
  const off_t at = ::lseek(file->fd(), distance.QuadPart, whence);
  if (at < 0) {
    SetLastError(131);  // ERROR_NEGATIVE_SEEK
    return FALSE;
  }
  if (out) out->QuadPart = at;
  return TRUE;
}

BOOL WINAPI SetEndOfFile(HANDLE handle) {
  if (port::Fails("SetEndOfFile")) return FALSE;
  auto file = port::LookupAs<port::File>(handle);
  if (!file) return FALSE;
  const bool done =
      file->may(GENERIC_WRITE) && ::ftruncate(file->fd(), ::lseek(file->fd(), 0, SEEK_CUR)) == 0;
  if (!done) SetLastError(ERROR_ACCESS_DENIED);
  return done;
}

BOOL WINAPI CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES) {
  if (port::Fails("CreateDirectoryW")) return FALSE;
  const std::string host = port::HostPathOrFail(path);
  if (host.empty()) return FALSE;
  if (::mkdir(host.c_str(), 0777) == 0) return TRUE;
  const int number = errno;
  SetLastError(number == EEXIST   ? ERROR_ALREADY_EXISTS
               : number == ENOENT ? ERROR_PATH_NOT_FOUND
                                  : port::ErrorOfErrno(number, host));
  return FALSE;
}

DWORD WINAPI GetFileAttributesW(LPCWSTR path) {
  if (port::Fails("GetFileAttributesW")) return INVALID_FILE_ATTRIBUTES;
  const std::string host = port::HostPathOrFail(path);
  if (host.empty()) return INVALID_FILE_ATTRIBUTES;
  struct stat found;
  if (::stat(host.c_str(), &found) != 0) {
    port::FailWithErrno(errno, host);
    return INVALID_FILE_ATTRIBUTES;
  }
  return S_ISDIR(found.st_mode) ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_NORMAL;
}

BOOL WINAPI DeleteFileW(LPCWSTR path) {
  if (port::Fails("DeleteFileW")) return FALSE;
  const std::string host = port::HostPathOrFail(path);
  if (host.empty()) return FALSE;
  std::lock_guard hold(port::files_lock);
  if (port::OpenFiles().contains(host)) {  // FILE_SHARE_DELETE is not among the port's modes
    SetLastError(ERROR_SHARING_VIOLATION);
    return FALSE;
  }
  if (!port::IsDirectory(host) && ::unlink(host.c_str()) == 0) return TRUE;
  port::FailWithErrno(port::IsDirectory(host) ? EACCES : errno, host);
  return FALSE;
}
