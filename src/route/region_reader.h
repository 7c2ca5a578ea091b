// Reads a whole plain region at once: the client program must never wait for our parsing.
#pragma once
#include <memory>
#include <new>

#include "common/log.h"
#include "common/shared_mem_obj.h"
#include "common/types.h"

namespace moru_vyr::lsp {

// What the log has where a region that is there cannot be read.
struct RegionFailures {
  const char* no_view;     // it cannot be opened, or its header is not what it must be
  const char* no_address;  // it changed its size between two looks at it
  const char* no_memory;   // kept: at a lower level than the other two
};

// Copies the region under its mutex, lets go of both, and hands the copy to parse(const T&). The
// copy is private: what is read from it twice is the same twice. Waits for the mutex without
// limit. Parsers signal failure by std::bad_alloc alone and leave their table as it was then.
template <typename T, typename Parser>
void ReadRegion(const char* name, const char* mutex_name, const RegionFailures& failures,
                Parser parse) noexcept {
  try {
    if (!common::Shared_mem_obj::Exists(name)) return;
    std::unique_ptr<const T> copy;
    const char* failure = nullptr;
    {
      common::Shared_mem_obj region(name, sizeof(T), mutex_name, false);
      const common::Shared_mem_ptr<const T> view(&region, common::kOpenForReading, true);
      const common::Shared_mem_closer closer(&region);
      if (view) copy.reset(new T(*view.get()));
      if (!view) failure = view.opened() ? failures.no_address : failures.no_view;
    }
    if (failure != nullptr) LSP_LOG(5, "%s", failure);
    if (copy != nullptr) parse(*copy);
  } catch (const std::bad_alloc&) {
    LSP_LOG(4, "%s", failures.no_memory);
  }
}

}  // namespace moru_vyr::lsp
