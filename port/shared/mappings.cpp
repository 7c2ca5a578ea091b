// File mappings in memory. Each view is a separate host mapping, so a write through a read-only
// view faults as it does on Windows.
#include "port/shared/mappings.h"

#include <memoryapi.h>
#include <sys/mman.h>

#include <map>

#include "port/shared/backend.h"
#include "port/shared/faults.h"
#include "port/shared/objects.h"
#include "port/shared/process.h"

namespace port {
namespace {

constexpr size_t kPage = 4096;

size_t WholePages(size_t size) { return (size + kPage - 1) / kPage * kPage; }

class Mapping : public Object {
 public:
  Mapping(int fd, size_t size, DWORD protect)
      : fd_(fd),
        size_(size),
        writable_((protect & PAGE_READWRITE) != 0),
        reserved_((protect & SEC_RESERVE) != 0) {}
  ~Mapping() override { ::close(fd_); }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;

  const char* kind() const override { return "mapping"; }
  int fd() const { return fd_; }
  size_t size() const { return size_; }  // in whole pages, which is as far as a view may extend
  bool writable() const { return writable_; }
  bool reserved() const { return reserved_; }  // addresses without memory

 private:
  const int fd_;
  const size_t size_;
  const bool writable_;
  const bool reserved_;
};

ObjectRef MakeMapping(size_t size, DWORD protect) {
  int fd = ::memfd_create("mapping", MFD_CLOEXEC);
  if (fd < 0 || ::ftruncate(fd, static_cast<off_t>(WholePages(size))) != 0) {
    if (fd >= 0) ::close(fd);
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return std::make_shared<Mapping>(fd, WholePages(size), protect);
}

struct View {
  std::shared_ptr<Mapping> mapping;
  size_t size;
  DWORD pid;
};

std::mutex views_lock;

std::map<const void*, View>& Views() {
  static auto& views = *new std::map<const void*, View>;
  return views;
}

void* MapPages(const Mapping& mapping, bool write, size_t offset, size_t size) {
  int protection = write ? PROT_READ | PROT_WRITE : PROT_READ;
  if (mapping.reserved()) protection = PROT_NONE;
  void* at =
      ::mmap(nullptr, size, protection, MAP_SHARED, mapping.fd(), static_cast<off_t>(offset));
  return at == MAP_FAILED ? nullptr : at;
}

}  // namespace

void UnmapViewsOf(DWORD pid) {
  std::lock_guard hold(views_lock);
  for (auto at = Views().begin(); at != Views().end();) {
    if (at->second.pid != pid) {
      ++at;
      continue;
    }
    ::munmap(const_cast<void*>(at->first), at->second.size);
    at = Views().erase(at);
  }
}

size_t OpenViews() {
  std::lock_guard hold(views_lock);
  return Views().size();
}

}  // namespace port

HANDLE WINAPI CreateFileMappingA(HANDLE file, LPSECURITY_ATTRIBUTES, DWORD protect, DWORD size_high,
                                 DWORD size_low, LPCSTR name) {
  if (port::Fails("CreateFileMappingA")) return nullptr;
  size_t size = static_cast<size_t>(size_high) << 32 | size_low;
  const DWORD plain = protect & ~SEC_RESERVE;
  bool known_protection = plain == PAGE_READWRITE || plain == PAGE_READONLY;
  if (file != INVALID_HANDLE_VALUE || size == 0 || !known_protection) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return port::CreateNamed(name, "mapping", [&] { return port::MakeMapping(size, protect); });
}

HANDLE WINAPI OpenFileMappingA(DWORD, BOOL, LPCSTR name) {
  if (port::Fails("OpenFileMappingA")) return nullptr;
  if (!name) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  return port::OpenNamed(name, "mapping");
}

LPVOID WINAPI MapViewOfFile(HANDLE handle, DWORD access, DWORD offset_high, DWORD offset_low,
                            SIZE_T size) {
  if (port::Fails("MapViewOfFile")) return nullptr;
  auto mapping = port::LookupAs<port::Mapping>(handle);
  if (!mapping) return nullptr;
  constexpr DWORD kGranularity = 65536;
  size_t offset = static_cast<size_t>(offset_high) << 32 | offset_low;
  if (offset % kGranularity != 0) {
    SetLastError(1132);  // ERROR_MAPPED_ALIGNMENT
    return nullptr;
  }
  const bool write = (access & FILE_MAP_WRITE) != 0;
  const bool beyond = offset >= mapping->size() || size > mapping->size() - offset;
  if (beyond || (write && !mapping->writable())) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  if (size == 0) size = mapping->size() - offset;
  void* view = port::MapPages(*mapping, write, offset, size);
  if (!view) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  {
    std::lock_guard hold(port::views_lock);
    port::Views()[view] = {mapping, size, port::CurrentProcess().pid};
  }
  port::OnViewMapped(mapping->name(), view, size);
  return view;
}

BOOL WINAPI UnmapViewOfFile(LPCVOID address) {
  if (port::Fails("UnmapViewOfFile")) return FALSE;
  port::OnViewUnmapped(address);
  std::lock_guard hold(port::views_lock);
  auto at = port::Views().find(address);
  if (at == port::Views().end()) {
    SetLastError(487);  // ERROR_INVALID_ADDRESS
    return FALSE;
  }
  ::munmap(const_cast<void*>(at->first), at->second.size);
  port::Views().erase(at);
  return TRUE;
}

// Only looks at the caller's own addresses, so no other thread needs a turn before it.
SIZE_T WINAPI VirtualQuery(LPCVOID address, PMEMORY_BASIC_INFORMATION out, SIZE_T size) {
  std::lock_guard hold(port::views_lock);
  const auto at = port::Views().find(address);
  if (at == port::Views().end() || size < sizeof *out) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  *out = {};
  out->BaseAddress = out->AllocationBase = const_cast<void*>(address);
  out->RegionSize = port::WholePages(at->second.size);
  out->State = at->second.mapping->reserved() ? MEM_RESERVE : MEM_COMMIT;
  return sizeof *out;
}
