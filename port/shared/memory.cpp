// The process's memory: its heap, and whole pages from the system.
#include <sys/mman.h>

#include <map>

#include "port/shared/faults.h"
#include "port/shared/objects.h"

namespace port {
namespace {

constexpr size_t kGuardPage = 4096;

// Each block is followed by a page without access, to catch accesses past its end. Windows promises
// nothing about these.
size_t WithGuard(size_t size) {
  return (size + kGuardPage - 1) / kGuardPage * kGuardPage + kGuardPage;
}

std::mutex blocks_lock;

std::map<void*, size_t>& Blocks() {
  static auto& blocks = *new std::map<void*, size_t>;
  return blocks;
}

void* MapBlock(size_t size) {
  const size_t whole = WithGuard(size);
  void* const at = ::mmap(nullptr, whole, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (at == MAP_FAILED) return nullptr;
  if (::mprotect(at, whole - kGuardPage, PROT_READ | PROT_WRITE) == 0) return at;
  ::munmap(at, whole);
  return nullptr;
}

}  // namespace

size_t OpenAllocations() {
  std::lock_guard hold(blocks_lock);
  return Blocks().size();
}

}  // namespace port

HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T size) {
  if (port::Fails("GlobalAlloc")) return nullptr;
  // Windows returns a block for a size of zero, too.
  void* block =
      (flags & GMEM_ZEROINIT) ? std::calloc(1, size ? size : 1) : std::malloc(size ? size : 1);
  if (!block) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return block;
}

HGLOBAL WINAPI GlobalFree(HGLOBAL memory) {
  if (port::Fails("GlobalFree")) return memory;
  std::free(memory);
  return nullptr;
}

LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T size, DWORD type, DWORD protect) {
  if (port::Fails("VirtualAlloc")) return nullptr;
  if (address || size == 0 || type != (MEM_RESERVE | MEM_COMMIT) || protect != PAGE_READWRITE) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return nullptr;
  }
  void* const block = port::MapBlock(size);
  if (!block) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  std::lock_guard hold(port::blocks_lock);
  port::Blocks()[block] = size;
  return block;
}

BOOL WINAPI VirtualFree(LPVOID address, SIZE_T size, DWORD type) {
  if (port::Fails("VirtualFree")) return FALSE;
  if (size != 0 || type != MEM_RELEASE) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  std::lock_guard hold(port::blocks_lock);
  const auto at = port::Blocks().find(address);
  if (at == port::Blocks().end()) {
    SetLastError(487);  // ERROR_INVALID_ADDRESS
    return FALSE;
  }
  ::munmap(address, port::WithGuard(at->second));
  port::Blocks().erase(at);
  return TRUE;
}
