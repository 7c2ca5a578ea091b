// Reads a whole plain region at once, so that the client program never waits for our parsing.
#pragma once
#include <memory>
#include <new>

#include "common/shared_mem_obj.h"
#include "common/types.h"

namespace moru_vyr::lsp {

enum class RegionRead {
  kAbsent,     // nobody has created the region
  kNoView,     // it cannot be opened, or its header is wrong
  kNoAddress,  // it changed its size between two looks at it
  kNoMemory,
  kParsed,
};

// Copies the region under its mutex, releases both, and passes the copy to parse(const T&). The
// copy is private, so reading it twice gives the same data. Waits for the mutex without limit.
// Parsers signal failure by std::bad_alloc alone and leave their table as it was.
template <typename T, typename Parser>
RegionRead ReadRegion(const char* name, const char* mutex_name, Parser parse) noexcept {
  try {
    if (!common::Shared_mem_obj::Exists(name)) return RegionRead::kAbsent;
    std::unique_ptr<const T> copy;
    {
      common::Shared_mem_owner region(name, sizeof(T), mutex_name, false);
      const common::Shared_mem_ptr<const T> view(&region, common::kOpenForReading, true);
      const common::Shared_mem_closer closer(&region);
      if (!view.opened()) return RegionRead::kNoView;
      if (!view) return RegionRead::kNoAddress;
      copy.reset(new T(*view.get()));
    }
    parse(*copy);
    return RegionRead::kParsed;
  } catch (const std::bad_alloc&) {
    return RegionRead::kNoMemory;
  }
}

}  // namespace moru_vyr::lsp
