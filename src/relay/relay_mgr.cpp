#include "relay/relay_mgr.h"

#include "common/handle.h"
#include "common/log.h"
#include "route/route.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kInitPollMs = 10;
constexpr DWORD kStopWaitMs = 200;
constexpr long kPassTimeUs = 20000;  // bounds the idle latency of every timer
constexpr u32 kUpdateIntervalMs = 30;
constexpr int kFarewellPasses = 2;  // after a stop, for the providers to flush

}  // namespace

bool RelayMgr::IsRunning() const noexcept {
  return state_.load(std::memory_order_acquire) == kStateRunning;
}

bool RelayMgr::IsSettled() const noexcept {
  return state_.load(std::memory_order_relaxed) != kStateNotInitialised;
}

bool RelayMgr::CheckAndInit(u32 timeout_ms) noexcept {
  if (IsSettled()) return IsRunning();
  common::Lock hold(init_lock_);
  // With a thread but no state, an earlier call gave up waiting; that may not be said twice.
  if (!IsSettled() && worker_thread_.load(std::memory_order_relaxed) == nullptr) {
    StartWorker(timeout_ms);
  }
  return IsRunning();
}

void RelayMgr::StartWorker(u32 timeout_ms) noexcept {
  DWORD id = 0;
  const HANDLE thread = CreateThread(nullptr, 0, WorkerThread, this, 0, &id);
  if (thread != nullptr) {
    worker_thread_id_.store(id, std::memory_order_relaxed);
    worker_thread_.store(thread, std::memory_order_relaxed);
    const u32 start = GetTickCount();
    while (!IsSettled()) {
      const u32 now = GetTickCount();
      // Kept: once the counter has wrapped the wait goes on until the worker is ready.
      if (now >= start && now - start >= timeout_ms) break;
      Sleep(kInitPollMs);
    }
  }
  LSP_LOG(4, "RelayMgr::CheckAndInit, initialization is %d",
          static_cast<int>(state_.load(std::memory_order_relaxed)));
}

// The worker's identity stands until it has ended, since its last calls must be known as its own.
void RelayMgr::Stop() noexcept {
  stop_flag_.store(true, std::memory_order_relaxed);
  u32 id = GetWorkerThreadId();
  common::UniqueHandle thread(worker_thread_.exchange(nullptr, std::memory_order_relaxed));
  if (thread) {
    if (WaitForSingleObject(thread.get(), kStopWaitMs) == WAIT_TIMEOUT) {
      worker_killed_.store(true, std::memory_order_relaxed);
      TerminateThread(thread.get(), 0);
    }
    thread.Reset();
    worker_thread_id_.compare_exchange_strong(id, 0, std::memory_order_relaxed);
  }
  state_.store(kStateNotInitialised, std::memory_order_relaxed);
}

bool RelayMgr::RequestTcpRelaySession(SOCKET socket, u16 port, const sockaddr_in* addr,
                                      sockaddr** out_addr, int* out_len, u32 token) noexcept {
  // A worker that was killed may have held the lock that this takes, for ever now.
  if (worker_killed_.load(std::memory_order_relaxed)) return false;
  return tcp_provider_.RequestTcpRelaySession(socket, port, addr, out_addr, out_len, token);
}

bool RelayMgr::GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept {
  if (worker_killed_.load(std::memory_order_relaxed)) return false;
  return udp_provider_.GetCreateResult(token, out);
}

std::shared_ptr<UdpPackageQueue> RelayMgr::UseQueue(const UdpPackageQueue* queue,
                                                    u32 token) const noexcept {
  if (worker_killed_.load(std::memory_order_relaxed)) return nullptr;
  return udp_provider_.UseQueue(queue, token);
}

DWORD WINAPI RelayMgr::WorkerThread(LPVOID self) noexcept {
  static_cast<RelayMgr*>(self)->WorkerProc();
  return 0;
}

void RelayMgr::WorkerProc() noexcept {
  // Before anything else: its own first socket call asks whose it is, and would wait for itself.
  worker_thread_id_.store(GetCurrentThreadId(), std::memory_order_relaxed);
  if (!InternalInit() || !BecomeTheWorker()) return;
  LSP_LOG(0, "RelayMgr::WorkerProc, FD_SIZE=%lu", static_cast<unsigned long>(FD_SETSIZE));
  GetTracker().Init();
  stop_flag_.store(false, std::memory_order_relaxed);
  Loop();
  GetTracker().UnInit();
  udp_provider_.Uninit();
  tcp_provider_.Uninit();
  LSP_LOG(0, "RelayMgr::WorkerProc Quit");
}

bool RelayMgr::InternalInit() noexcept {
  const bool udp_started = udp_provider_.Init(this, GetRoute());
  LSP_LOG(4, "RelayMgr::InternalInit, UDP init is %s", udp_started ? "true" : "false");
  const bool tcp_started = udp_started && tcp_provider_.Init(this, GetRoute());
  LSP_LOG(4, "RelayMgr::InternalInit, TCP init is %s", tcp_started ? "true" : "false");
  state_.store(tcp_started ? kStateRunning : kStateFailed, std::memory_order_release);
  return tcp_started;
}

bool RelayMgr::BecomeTheWorker() noexcept {
  common::Lock hold(init_lock_);
  if (worker_started_) return false;
  worker_started_ = true;
  return true;
}

void RelayMgr::Loop() noexcept {
  const timeval pass_time{0, kPassTimeUs};
  int passes_left = kFarewellPasses;
  u32 last_update = GetTickCount();
  for (;;) {
    if (IsStopping()) {
      if (passes_left <= 0) return;
      --passes_left;
    }
    int error = 0;
    if (sockets_.Poll(pass_time, &error) == SOCKET_ERROR) {
      LSP_LOG(0, "RelayMgr::WorkerProc select return error = %u", static_cast<u32>(error));
      if (error == WSANOTINITIALISED || error == WSAEFAULT || error == WSAENETDOWN) return;
    }
    OnTimer(&last_update);
  }
}

// Kept: where the sum wraps or the counter has, the updates come at every pass, or pause until the
// counter has climbed back.
void RelayMgr::OnTimer(u32* last_update) noexcept {
  const u32 now = GetTickCount();
  GetTracker().OnTimer(now);
  if (now <= *last_update + kUpdateIntervalMs) return;
  const u32 elapsed = now - *last_update;
  udp_provider_.OnUpdate(elapsed);
  tcp_provider_.OnUpdate(elapsed);
  GetRoute()->OnUpdate(elapsed);
  *last_update = now;
}

u32 RelayMgr::AddSocket(SOCKET socket, IRelaySocketDelegate* delegate) noexcept {
  return sockets_.Add(socket, delegate);
}

u32 RelayMgr::EnableWrite(SOCKET socket) noexcept { return sockets_.EnableWrite(socket, true); }

IRelaySocketDelegate* RelayMgr::RemoveSocket(SOCKET socket) noexcept {
  return sockets_.Remove(socket);
}

u32 RelayMgr::NextToken() noexcept {
  common::Lock hold(token_lock_);
  return ++last_token_;
}

RelayMgr& GetRelayMgr() {
  static RelayMgr& relay = *new RelayMgr;
  return relay;
}

}  // namespace moru_vyr::lsp
