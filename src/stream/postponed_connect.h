// Connects of the game that wait until its server has been reached, so that a server that refuses
// shows as a refused connect. A thread that may wait is told the outcome and connects by itself.
// The worker connects non-blocking sockets: to the relay's listener or, if the server could not be
// reached, to a loopback port where nothing listens, so that the system itself reports the refusal
// in every way.
//
// Any thread, unless stated. Nothing throws.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <atomic>
#include <memory>
#include <vector>

#include "common/handle.h"
#include "common/lock.h"
#include "common/types.h"

namespace moru_vyr::lsp {

struct SocketRecord;

// Whether connects are postponed at all.
bool PostponesConnects() noexcept;

struct PostponedConnect {
  static constexpr int kUndecided = -1;

  PostponedConnect(const SocketRecord& record, common::UniqueHandle event) noexcept;

  const SOCKET socket;
  const u32 token;
  const WSPPROC_TABLE* const next;
  const common::UniqueHandle decided;     // an event; empty if the worker connects the socket
  std::atomic<int> error{kUndecided};     // 0: the server has been reached
  std::atomic<bool> is_cancelled{false};  // the value may be another socket's by now
};

class PostponedConnects {
 public:
  // For a connect of that socket. Null without memory or an event.
  std::shared_ptr<PostponedConnect> Add(const SocketRecord& record) noexcept;
  // The game closes the socket, or no longer waits: from now on nothing is done with it.
  void Cancel(u32 token) noexcept;

  // For the worker. Connects go to that listener until Close, which fails all that are undecided.
  void Open(const sockaddr_in& listener) noexcept;
  void Close() noexcept;
  // The first call counts. 0: the server has been reached.
  void Decide(PostponedConnect* connect, int error) noexcept;

 private:
  void Carry(const PostponedConnect& connect, bool reached) const noexcept;
  void DecideLocked(PostponedConnect* connect, int error) noexcept;
  void Drop(const PostponedConnect& connect) noexcept;

  // Held while the worker starts the connect of a non-blocking socket, so that the game cannot
  // close the socket meanwhile and have its value reused.
  common::Mutex lock_;
  std::vector<std::shared_ptr<PostponedConnect>> undecided_;
  sockaddr_in listener_{};
  sockaddr_in dead_end_{};
  SOCKET dead_end_socket_ = INVALID_SOCKET;  // reserves that port
};

}  // namespace moru_vyr::lsp
