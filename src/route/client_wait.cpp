#include "route/client_wait.h"

#include <windows.h>

#include <atomic>
#include <utility>

#include "common/log.h"
#include "common/own_thread.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kHostLimitMs = 500;
constexpr DWORD kWorkerLimitMs = 20;

// What the host's threads may still wait in vain. A client that has kept one mutex this long hangs,
// and its other ones are only tried.
constinit std::atomic<DWORD> host_patience_ms{kHostLimitMs};

}  // namespace

ClientWait::ClientWait(const char* mutex_name) noexcept {
  if (!GetMending().BoundsClientWaits()) return;
  common::UniqueHandle mutex(OpenMutexA(SYNCHRONIZE, FALSE, mutex_name));
  if (!mutex) return;  // nobody has made it, so nobody holds it
  const bool is_own = common::OwnThread::NameOfCaller() != 0;
  const DWORD limit = is_own ? kWorkerLimitMs : host_patience_ms.load(std::memory_order_relaxed);
  const DWORD waited = WaitForSingleObject(mutex.get(), limit);
  if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED) held_ = std::move(mutex);
  if (waited != WAIT_TIMEOUT) return;
  may_read_ = false;
  if (!is_own) host_patience_ms.store(0, std::memory_order_relaxed);
  LSP_LOG(5, "[Route] %s was not free within %lu ms, its region counts as absent", mutex_name,
          static_cast<unsigned long>(limit));
  common::LspTrace("%s was not free within %lu ms, its region counts as absent", mutex_name,
                   static_cast<unsigned long>(limit));
}

ClientWait::~ClientWait() {
  if (held_) ReleaseMutex(held_.get());
}

void RenewClientWaits() noexcept {
  host_patience_ms.store(kHostLimitMs, std::memory_order_relaxed);
}

}  // namespace moru_vyr::lsp
