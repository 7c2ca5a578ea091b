#include "port/shared/faults.h"

HGLOBAL WINAPI GlobalAlloc(UINT flags, SIZE_T size) {
  if (port::Fails("GlobalAlloc")) return nullptr;
  // Windows gives a block for a size of zero as well.
  void* block =
      (flags & GMEM_ZEROINIT) ? std::calloc(1, size ? size : 1) : std::malloc(size ? size : 1);
  if (!block) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
  return block;
}

HGLOBAL WINAPI GlobalFree(HGLOBAL memory) {
  std::free(memory);
  return nullptr;
}
