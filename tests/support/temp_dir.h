// A new directory for one test, below %TEMP%. It is removed at the end with everything in it,
// except where the port has no call for that; there, the whole file system of the process is
// temporary.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <string>

#include "common/text.h"

namespace test {

inline std::wstring Wide(const std::string& text) {
  std::wstring wide;
  common::u8to16(text, &wide);
  return wide;
}

class TempDir {
 public:
  TempDir() {
    static int made = 0;
    wchar_t base[260] = {};
    ExpandEnvironmentStringsW(L"%TEMP%", base, 260);
    path_ = base;
    CreateDirectoryW(path_.c_str(), nullptr);
    path_ += L"\\vyr_unit_" + std::to_wstring(GetCurrentProcessId()) + L"_" +
             std::to_wstring(GetTickCount()) + L"_" + std::to_wstring(++made);
    CreateDirectoryW(path_.c_str(), nullptr);
  }
  ~TempDir() { Remove(path_); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The path of a file in the directory, in UTF-8 and as a wide string.
  std::string operator/(const std::string& name) const {
    std::string base;
    common::u16to8(path_, &base);
    return base + "\\" + name;
  }

 private:
  static void Remove(const std::wstring& path) {
#ifdef _WIN32
    WIN32_FIND_DATAW found = {};
    const HANDLE search = FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
      do {
        const std::wstring name = found.cFileName;
        if (name == L"." || name == L"..") continue;
        const std::wstring entry = path + L"\\" + name;
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
          Remove(entry);
        else
          DeleteFileW(entry.c_str());
      } while (FindNextFileW(search, &found));
      FindClose(search);
    }
    RemoveDirectoryW(path.c_str());
#else
    (void)path;
#endif
  }

  std::wstring path_;
};

inline bool FileExists(const std::string& path) {
  return GetFileAttributesW(Wide(path).c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The size of a file, even while it is being written. -1 if there is no such file.
inline long long FileSize(const std::string& path) {
  const HANDLE file =
      CreateFileW(Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return -1;
  LARGE_INTEGER size = {};
  GetFileSizeEx(file, &size);
  CloseHandle(file);
  return size.QuadPart;
}

// The last `most` bytes of the file.
inline std::string ReadFileText(const std::string& path, long long most = 1 << 20) {
  const HANDLE file =
      CreateFileW(Wide(path).c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return "";
  LARGE_INTEGER size = {};
  GetFileSizeEx(file, &size);
  LARGE_INTEGER start = {};
  start.QuadPart = size.QuadPart > most ? size.QuadPart - most : 0;
  SetFilePointerEx(file, start, nullptr, FILE_BEGIN);
  std::string text(static_cast<std::size_t>(size.QuadPart - start.QuadPart), '\0');
  DWORD read = 0;
  if (!text.empty()) ReadFile(file, text.data(), static_cast<DWORD>(text.size()), &read, nullptr);
  text.resize(read);
  CloseHandle(file);
  return text;
}

// Creates a file of that size, which takes no space on the disk.
inline void MakeSparseFile(const std::string& path, long long size) {
  const HANDLE file = CreateFileW(Wide(path).c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  LARGE_INTEGER end = {};
  end.QuadPart = size;
  SetFilePointerEx(file, end, nullptr, FILE_BEGIN);
  SetEndOfFile(file);
  CloseHandle(file);
}

}  // namespace test
