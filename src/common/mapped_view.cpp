#include "common/mapped_view.h"

#include <memoryapi.h>

namespace common {
namespace {

// Pages that are alike count as one region.
bool IsMemory(const void* view, u32 size) noexcept {
  MEMORY_BASIC_INFORMATION region = {};
  return VirtualQuery(view, &region, sizeof region) != 0 && region.State == MEM_COMMIT &&
         region.RegionSize >= size;
}

}  // namespace

u8* MapMemory(HANDLE mapping, DWORD access, u32 size) noexcept {
  void* const view = MapViewOfFile(mapping, access, 0, 0, size);
  if (view == nullptr || IsMemory(view, size)) return static_cast<u8*>(view);
  UnmapViewOfFile(view);
  return nullptr;
}

}  // namespace common
