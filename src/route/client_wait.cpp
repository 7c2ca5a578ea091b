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

// A client that keeps a mutex for the whole wait of a host thread is taken to hang, and for this
// long its mutexes are only tried.
constexpr DWORD kHangMs = 10'000;
constinit std::atomic<bool> client_hangs{false};
constinit std::atomic<DWORD> seen_hanging_ms{0};

DWORD HostLimitMs() noexcept {
  if (!client_hangs.load(std::memory_order_acquire)) return kHostLimitMs;
  if (GetTickCount() - seen_hanging_ms.load(std::memory_order_relaxed) < kHangMs) return 0;
  client_hangs.store(false, std::memory_order_relaxed);
  return kHostLimitMs;
}

void NoteThatClientHangs() noexcept {
  seen_hanging_ms.store(GetTickCount(), std::memory_order_relaxed);
  client_hangs.store(true, std::memory_order_release);
}

}  // namespace

bool ClientWait::Take(const char* mutex_name, DWORD limit_ms) noexcept {
  common::UniqueHandle mutex(OpenMutexA(SYNCHRONIZE, FALSE, mutex_name));
  if (!mutex) return true;  // it does not exist, so it is not held
  const DWORD waited = WaitForSingleObject(mutex.get(), limit_ms);
  if (waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED) held_ = std::move(mutex);
  return waited != WAIT_TIMEOUT;
}

ClientWait::ClientWait(const char* mutex_name, OnlyTry) noexcept : may_read_(Take(mutex_name, 0)) {}

ClientWait::ClientWait(const char* mutex_name) noexcept {
  if (!GetMending().BoundsClientWaits()) return;
  const bool is_own = common::OwnThread::NameOfCaller() != 0;
  const DWORD limit = is_own ? kWorkerLimitMs : HostLimitMs();
  may_read_ = Take(mutex_name, limit);
  if (may_read_) return;
  if (limit == kHostLimitMs) NoteThatClientHangs();
  LSP_LOG(5, "[Route] %s was not free within %lu ms, its region counts as absent", mutex_name,
          static_cast<unsigned long>(limit));
  common::LspTrace("%s was not free within %lu ms, its region counts as absent", mutex_name,
                   static_cast<unsigned long>(limit));
}

ClientWait::~ClientWait() {
  if (held_) ReleaseMutex(held_.get());
}

void RenewClientWaits() noexcept { client_hangs.store(false, std::memory_order_relaxed); }

}  // namespace moru_vyr::lsp
