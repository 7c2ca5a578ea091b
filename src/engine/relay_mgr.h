// The centre of the relay: owns the one thread that moves relayed traffic, and the providers that
// run on it.
//
// The thread starts at the first CheckAndInit and ends with Stop. A process gets one, unless
// AllowAnotherWorker is called. Kept: a start after a stop reports success, and no worker runs.
// Requests to the relay are refused from then on. They are also refused once the worker has ended
// in any other way: after an error of select, or because Stop or another program terminated it. See
// Serves, and docs/lifetime.md. Any thread may call the public operations; IRelaySocketMgr's other
// operations belong to the worker. Nothing throws.
#pragma once
#include <winsock2.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "common/lock.h"
#include "common/types.h"
#include "relay/relay_interfaces.h"
#include "relay/socket_sets.h"
#include "stream/tcp_provider.h"
#include "udp/udp_provider.h"

namespace moru_vyr::lsp {

class RelayMgr final : public IRelaySocketMgr {
 public:
  static constexpr u32 kStateRunning = 0;
  static constexpr u32 kStateNotInitialised = 1;
  static constexpr u32 kStateFailed = 0x80004005;
  static constexpr u32 kDatagramTrustMs = 100;

  // True if the relay has been started. The first call starts it and waits up to `timeout_ms` for
  // it; a worker that is not ready by then may be ready at a later call.
  bool CheckAndInit(u32 timeout_ms) noexcept;
  // Whether a worker handles what is sent to the relay: the one question to ask before sending
  // anything to it or waiting for anything from it. Costs one load, and may stay true for a moment
  // after another program has terminated the worker.
  bool Serves() const noexcept { return serves_.load(std::memory_order_acquire); }
  // The same, but checks the worker's thread unless that was done within the last `trust_ms`. For
  // the start of a connection or the sending of a datagram, which cost a few system calls anyway.
  bool StillServes(u32 trust_ms) noexcept;
  // Ends the worker. Terminates it if it has not ended after 200 ms, or after 5 seconds where it is
  // to report its end. A terminated worker leaves its sockets open; they are closed here, so that
  // the game notices.
  void Stop() noexcept;
  // After a stop: the next start of Winsock gets a worker again, unless the last one was
  // terminated.
  void AllowAnotherWorker() noexcept { worker_started_.store(false); }
  bool IsStopping() const noexcept { return stop_flag_.load(std::memory_order_relaxed); }

  // Identifies calls that the worker makes itself; they are never relayed.
  u32 GetWorkerThreadId() const noexcept {
    return worker_thread_id_.load(std::memory_order_relaxed);
  }

  // See TcpProvider.
  bool RequestTcpRelaySession(SOCKET socket, u16 port, const sockaddr_in* addr, sockaddr** out_addr,
                              int* out_len, u32 token, bool* created = nullptr,
                              std::shared_ptr<PostponedConnect> postponed = nullptr) noexcept;
  PostponedConnects& postponed_connects() noexcept { return tcp_provider_.postponed_connects(); }
  bool HasRoomForStream() noexcept { return tcp_provider_.HasRoomForSession(); }
  void ForgetTcpRelaySession(u16 port, u32 token) noexcept {
    tcp_provider_.ForgetRequest(port, token);
  }

  // For datagram sockets, which ask for their relay at its control port; see UdpProvider.
  void GetUdpLocalAddr(sockaddr_in* out) const noexcept { udp_provider_.GetLocalAddr(out); }
  bool GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept;
  // The queue that a socket's record points to. Use it through the result only, for the length of
  // one call. Null once its session has ended, which counts as an empty queue.
  std::shared_ptr<UdpPackageQueue> UseQueue(const UdpPackageQueue* queue, u32 token) const noexcept;

  // The ports of a socket's session; null if it has none, or is gone.
  std::shared_ptr<PeerPorts> UsePeerPorts(u32 token) const noexcept;

  // The game's socket of that token was closed and could not tell the control port: see
  // UdpProvider::NoteUntoldEnd.
  void NoteUntoldEnd(u32 token) noexcept { udp_provider_.NoteUntoldEnd(token); }

  u32 AddSocket(SOCKET socket, IRelaySocketDelegate* delegate) noexcept override;
  u32 EnableWrite(SOCKET socket) noexcept override;
  void StopReading(SOCKET socket) noexcept override;
  void ResumeReading(SOCKET socket) noexcept override;
  bool HasRoom(u32 sockets) const noexcept override;
  void UpdateWithin(u32 ms) noexcept override {
    update_within_ms_ = std::min(update_within_ms_, ms);
  }
  IRelaySocketDelegate* RemoveSocket(SOCKET socket) noexcept override;
  // A new token: 1, 2, 3 … over the life of the process.
  u32 NextToken() noexcept override;

 private:
  static constexpr u32 kNoUpdateAskedFor = 0xFFFFFFFF;

  static DWORD WINAPI WorkerThread(LPVOID self) noexcept;
  bool IsSettled() const noexcept;
  bool IsRunning() const noexcept;
  void StartWorker(u32 timeout_ms) noexcept;
  void WorkerProc() noexcept;
  bool InternalInit() noexcept;
  void Loop() noexcept;
  void UninitProviders() noexcept;
  void BuryWorker() noexcept;
  void OnTimer(u32* last_update) noexcept;
  timeval PassTime(u32 last_update) const noexcept;
  // After a stop at that tick: whether the loop goes on to deliver what servers are owed.
  bool KeepDelivering(u32 stopped) noexcept;

  std::atomic<u32> state_{kStateNotInitialised};  // released: the listener's address goes with it
  std::atomic<bool> stop_flag_{true};
  std::atomic<HANDLE> worker_thread_{nullptr};
  std::atomic<u32> worker_thread_id_{0};
  std::atomic<u32> worker_name_{0};          // see own_thread.h
  std::atomic<bool> worker_started_{false};  // the process gets one worker, unless it may have more
  std::atomic<bool> serves_{false};      // from the worker's readiness to the first sign of its end
  std::atomic<u32> looked_at_{0};        // the tick at which the worker's thread was seen alive
  std::atomic<bool> thread_left_{true};  // the thread has come to the end of its function
  std::atomic<bool> buried_{false};      // a worker was terminated in the middle of its work
  bool delivers_ = false;                // the worker only waits for what servers are owed
  u32 update_within_ms_ = kNoUpdateAskedFor;  // of the last one

  common::Mutex init_lock_;  // one thread starts the worker; held while it waits for it
  std::atomic<u32> last_token_{0};

  SocketSets sockets_;

  UdpProvider udp_provider_{stop_flag_};
  TcpProvider tcp_provider_;
};

// The process's relay, built at first use and alive until the process ends.
RelayMgr& GetRelayMgr();

}  // namespace moru_vyr::lsp
