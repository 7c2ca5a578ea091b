// Reads a whole plain region at once, so that the client program never waits for our parsing.
#pragma once
#include <memory>
#include <new>

#include "common/log.h"
#include "common/shared_mem_obj.h"
#include "route/client_wait.h"

namespace moru_vyr::lsp {

// The log lines for a region that exists and cannot be read.
struct RegionFailures {
  const char* no_view;     // it cannot be opened, or its header is wrong
  const char* no_address;  // it changed its size between two looks at it
  const char* no_memory;   // Kept: written at a lower level than the other two
};

// Copies the region under its mutex, releases both, and passes the copy to parse(const T&). The
// copy is private, so reading it twice gives the same data. Waits for the mutex without limit
// unless the game asks for one.
// Parsers signal failure by std::bad_alloc alone and leave their table as it was.
// Returns false only where the mutex was not free in time, see client_wait.h.
template <typename T, typename Parser>
bool ReadRegion(const char* name, const char* mutex_name, const RegionFailures& failures,
                Parser parse) noexcept {
  try {
    if (!common::Shared_mem_obj::Exists(name)) return true;
    std::unique_ptr<const T> copy;
    const char* failure = nullptr;
    {
      const ClientWait wait(mutex_name);
      if (!wait.may_read()) return false;
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
  return true;
}

}  // namespace moru_vyr::lsp
