#include "engine/relay_mgr.h"

#include "common/handle.h"
#include "common/log.h"
#include "common/own_thread.h"
#include "route/mending.h"
#include "route/route.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kInitPollMs = 10;
constexpr DWORD kStopWaitMs = 200;
constexpr DWORD kReportingStopWaitMs = 5000;  // 2500 ms to deliver, 2000 ms of the Tracker's
constexpr u32 kSparePlaces = 8;               // for sockets on their way that were promised room
constexpr u32 kPassTimeMs = 20;               // bounds the idle latency of every timer
constexpr u32 kUpdateIntervalMs = 30;
constexpr int kFlushPasses = 2;  // after a stop, for the providers to flush
// How long to go on while servers are owed data: enough for two nodes that do not answer.
constexpr u32 kDeliveryLimitMs = 2500;

bool ReportsItsEnd() noexcept { return GetMending().ReportsItsEnd(); }

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
  // A thread without a state means that an earlier call gave up waiting, and has logged that.
  if (!IsSettled() && worker_thread_.load(std::memory_order_relaxed) == nullptr) {
    StartWorker(timeout_ms);
  }
  return IsRunning();
}

void RelayMgr::StartWorker(u32 timeout_ms) noexcept {
  DWORD id = 0;
  thread_left_.store(false, std::memory_order_relaxed);
  worker_name_.store(0, std::memory_order_relaxed);
  const HANDLE thread = CreateThread(nullptr, 0, WorkerThread, this, 0, &id);
  if (thread != nullptr) {
    worker_thread_id_.store(id, std::memory_order_relaxed);
    worker_thread_.store(thread, std::memory_order_relaxed);
    const u32 start = GetTickCount();
    while (!IsSettled()) {
      const u32 now = GetTickCount();
      // Kept: once the counter has wrapped the wait goes on until the worker is ready.
      if (now >= start && now - start >= timeout_ms) break;
      // Does not wait for a thread that was terminated. Checks its name and not its handle, which a
      // stop may close at any time.
      if (common::HasEnded(worker_name_.load(std::memory_order_relaxed))) break;
      Sleep(kInitPollMs);
    }
  } else {
    thread_left_.store(true, std::memory_order_relaxed);
  }
  LSP_LOG(4, "RelayMgr::CheckAndInit, initialization is %d",
          static_cast<int>(state_.load(std::memory_order_relaxed)));
}

bool RelayMgr::StillServes(u32 trust_ms) noexcept {
  if (!Serves()) return false;
  const u32 now = GetTickCount();
  if (now - looked_at_.load(std::memory_order_relaxed) < trust_ms) return true;
  looked_at_.store(now, std::memory_order_relaxed);
  if (!common::HasEnded(worker_name_.load(std::memory_order_relaxed))) return true;
  BuryWorker();
  return false;
}

// Guard: what a worker leaves behind that was terminated. Its sockets are no longer polled, and a
// game connected to one would wait forever. Nothing else of it is ever touched: it may have been in
// the middle of any change.
void RelayMgr::BuryWorker() noexcept {
  if (thread_left_.load(std::memory_order_acquire) || buried_.exchange(true)) return;
  serves_.store(false, std::memory_order_release);
  CloseWorkerSockets();
}

// The worker's id stays until the worker has ended: its last calls must be recognised as its own.
void RelayMgr::Stop() noexcept {
  stop_flag_.store(true, std::memory_order_relaxed);
  serves_.store(false, std::memory_order_release);
  u32 id = GetWorkerThreadId();
  common::UniqueHandle thread(worker_thread_.exchange(nullptr, std::memory_order_relaxed));
  if (thread) {
    const DWORD waited =
        WaitForSingleObject(thread.get(), ReportsItsEnd() ? kReportingStopWaitMs : kStopWaitMs);
    if (waited == WAIT_TIMEOUT) {
      common::EndByForce(thread.get(), worker_name_.load(std::memory_order_relaxed));
    }
    if (waited != WAIT_FAILED) BuryWorker();
    thread.Reset();
    worker_thread_id_.compare_exchange_strong(id, 0, std::memory_order_relaxed);
  }
  state_.store(kStateNotInitialised, std::memory_order_relaxed);
}

bool RelayMgr::RequestTcpRelaySession(SOCKET socket, u16 port, const sockaddr_in* addr,
                                      sockaddr** out_addr, int* out_len, u32 token, bool* created,
                                      std::shared_ptr<PostponedConnect> postponed) noexcept {
  // Checked again afterwards: the worker may have ended during the wait.
  return Serves() &&
         tcp_provider_.RequestTcpRelaySession(socket, port, addr, out_addr, out_len, token, created,
                                              std::move(postponed)) &&
         StillServes(0);
}

bool RelayMgr::GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept {
  return Serves() && udp_provider_.GetCreateResult(token, out);
}

std::shared_ptr<UdpPackageQueue> RelayMgr::UseQueue(const UdpPackageQueue* queue,
                                                    u32 token) const noexcept {
  return Serves() ? udp_provider_.UseQueue(queue, token) : nullptr;
}

std::shared_ptr<PeerPorts> RelayMgr::UsePeerPorts(u32 token) const noexcept {
  return Serves() ? udp_provider_.UsePeerPorts(token) : nullptr;
}

DWORD WINAPI RelayMgr::WorkerThread(LPVOID self) noexcept {
  const common::OwnThread own;
  auto& relay = *static_cast<RelayMgr*>(self);
  relay.worker_name_.store(own.name(), std::memory_order_relaxed);
  relay.WorkerProc();
  relay.thread_left_.store(true, std::memory_order_release);
  return 0;
}

void RelayMgr::WorkerProc() noexcept {
  // Before anything else: the worker's first socket call checks this id, and would otherwise wait
  // for the worker itself.
  worker_thread_id_.store(GetCurrentThreadId(), std::memory_order_relaxed);
  if (!InternalInit()) return;
  LSP_LOG(0, "RelayMgr::WorkerProc, FD_SIZE=%lu", static_cast<unsigned long>(FD_SETSIZE));
  GetTracker().Init([]() noexcept { GetRelayMgr().BuryWorker(); });
  stop_flag_.store(false, std::memory_order_relaxed);
  Loop();
  serves_.store(false, std::memory_order_release);
  if (ReportsItsEnd()) GetTracker().EndWatching();
  GetTracker().UnInit();
  UninitProviders();
  LSP_LOG(0, "RelayMgr::WorkerProc Quit");
}

// True if the thread is to poll. The state is stored last: a thread that sees it may use the relay
// at once.
bool RelayMgr::InternalInit() noexcept {
  if (buried_.load(std::memory_order_acquire)) {
    state_.store(kStateRunning, std::memory_order_release);  // reports success; see the header
    return false;
  }
  const bool udp_started = udp_provider_.Init(this, GetRoute());
  LSP_LOG(4, "RelayMgr::InternalInit, UDP init is %s", udp_started ? "true" : "false");
  const bool tcp_started = udp_started && tcp_provider_.Init(this, GetRoute());
  LSP_LOG(4, "RelayMgr::InternalInit, TCP init is %s", tcp_started ? "true" : "false");
  const bool is_worker = tcp_started && !worker_started_.exchange(true);
  if (is_worker) serves_.store(true, std::memory_order_release);
  state_.store(tcp_started ? kStateRunning : kStateFailed, std::memory_order_release);
  // Guard: their sockets would never be polled or closed.
  if (tcp_started && !is_worker) UninitProviders();
  return is_worker;
}

void RelayMgr::UninitProviders() noexcept {
  udp_provider_.Uninit();
  tcp_provider_.Uninit();
}

void RelayMgr::Loop() noexcept {
  int passes_left = kFlushPasses;
  u32 stopped = 0;
  delivers_ = false;
  u32 last_update = GetTickCount();
  for (;;) {
    if (IsStopping()) {
      if (passes_left == kFlushPasses) stopped = GetTickCount();
      if (passes_left <= 0 && !KeepDelivering(stopped)) return;
      if (passes_left > 0) --passes_left;
    }
    int error = 0;
    if (sockets_.Poll(PassTime(last_update), &error) == SOCKET_ERROR) {
      LSP_LOG(0, "RelayMgr::WorkerProc select return error = %u", static_cast<u32>(error));
      if (error == WSANOTINITIALISED || error == WSAEFAULT || error == WSAENETDOWN) return;
    }
    OnTimer(&last_update);
  }
}

// Winsock creates no more sockets during its cleanup, so no connection can try another way.
bool RelayMgr::KeepDelivering(u32 stopped) noexcept {
  if (!GetMending().DeliversAtItsEnd() || GetTickCount() - stopped >= kDeliveryLimitMs ||
      (!udp_provider_.OwesServers() && !tcp_provider_.OwesServers())) {
    return false;
  }
  if (!delivers_) tcp_provider_.StopAccepting();
  delivers_ = true;
  return true;
}

// As long as select may wait, which is less where an update was asked for.
timeval RelayMgr::PassTime(u32 last_update) const noexcept {
  const u32 passed = GetTickCount() - last_update;
  const u32 left = update_within_ms_ > passed ? update_within_ms_ - passed : 0;
  return {0, static_cast<decltype(timeval::tv_usec)>(std::min(kPassTimeMs, left) * 1000)};
}

// Kept: where the sum wraps or the counter has, the updates come at every pass, or pause until the
// counter has climbed back.
void RelayMgr::OnTimer(u32* last_update) noexcept {
  const u32 now = GetTickCount();
  GetTracker().OnTimer(now);
  const u32 elapsed = now - *last_update;
  if (now <= *last_update + kUpdateIntervalMs && elapsed < update_within_ms_) return;
  update_within_ms_ = kNoUpdateAskedFor;
  udp_provider_.OnUpdate(elapsed);
  if (!delivers_) tcp_provider_.OnUpdate(elapsed);
  GetRoute()->OnUpdate(elapsed);
  *last_update = now;
}

u32 RelayMgr::AddSocket(SOCKET socket, IRelaySocketDelegate* delegate) noexcept {
  return sockets_.Add(socket, delegate);
}

u32 RelayMgr::EnableWrite(SOCKET socket) noexcept { return sockets_.EnableWrite(socket, true); }

void RelayMgr::StopReading(SOCKET socket) noexcept { sockets_.StopReading(socket); }

void RelayMgr::ResumeReading(SOCKET socket) noexcept { sockets_.ResumeReading(socket); }

bool RelayMgr::HasRoom(u32 sockets) const noexcept {
  return !GetMending().KeepsToItsPlaces() || sockets_.FreePlaces() >= sockets + kSparePlaces;
}

IRelaySocketDelegate* RelayMgr::RemoveSocket(SOCKET socket) noexcept {
  return sockets_.Remove(socket);
}

u32 RelayMgr::NextToken() noexcept {
  return last_token_.fetch_add(1, std::memory_order_relaxed) + 1;
}

RelayMgr& GetRelayMgr() {
  static RelayMgr& relay = *new RelayMgr;
  return relay;
}

}  // namespace moru_vyr::lsp
