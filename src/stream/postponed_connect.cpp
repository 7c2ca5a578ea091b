#include "stream/postponed_connect.h"

#include <windows.h>

#include <utility>

#include "common/log.h"
#include "route/mending.h"
#include "sockets/socket_helpers.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

bool PostponesConnects() noexcept { return GetMending().PostponesConnects(); }

PostponedConnect::PostponedConnect(const SocketRecord& record, common::UniqueHandle event) noexcept
    : socket{record.socket},
      token{record.token},
      next{record.next_proc_table},
      decided{std::move(event)} {}

std::shared_ptr<PostponedConnect> PostponedConnects::Add(const SocketRecord& record) noexcept {
  common::UniqueHandle event;
  if (!record.non_blocking) {
    event.Reset(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!event) return nullptr;
  }
  try {
    auto made = std::make_shared<PostponedConnect>(record, std::move(event));
    common::Lock hold(lock_);
    undecided_.push_back(made);
    return made;
  } catch (...) {
    return nullptr;
  }
}

void PostponedConnects::Cancel(u32 token) noexcept {
  common::Lock hold(lock_);
  for (const auto& connect : undecided_) {
    if (connect->token != token) continue;
    connect->is_cancelled = true;
    DecideLocked(std::shared_ptr(connect).get(), WSAEINTR);
    return;
  }
}

void PostponedConnects::Open(const sockaddr_in& listener) noexcept {
  common::Lock hold(lock_);
  listener_ = dead_end_ = listener;
  // Without one, a connect that must fail goes to a port that no program listens on.
  dead_end_.sin_port = htons(1);
  u16 port = 0;
  if (CreateTcpSocketAndBind(&dead_end_socket_, &port)) dead_end_.sin_port = port;
}

void PostponedConnects::Close() noexcept {
  common::Lock hold(lock_);
  while (!undecided_.empty()) {
    DecideLocked(std::shared_ptr(undecided_.back()).get(), WSAENETDOWN);
  }
  if (dead_end_socket_ != INVALID_SOCKET) CloseRelaySocket(dead_end_socket_);
  dead_end_socket_ = INVALID_SOCKET;
}

void PostponedConnects::Decide(PostponedConnect* connect, int error) noexcept {
  common::Lock hold(lock_);
  DecideLocked(connect, error);
}

void PostponedConnects::DecideLocked(PostponedConnect* connect, int error) noexcept {
  if (connect->error != PostponedConnect::kUndecided) return;
  if (!connect->decided && !connect->is_cancelled) Carry(*connect, error == 0);
  connect->error = error;
  if (connect->decided) SetEvent(connect->decided.get());
  LSP_LOG(4, "[TCP]PostponedConnects::Decide, err=%d, socket=%Id, token=%u", error, connect->socket,
          connect->token);
  Drop(*connect);
}

void PostponedConnects::Drop(const PostponedConnect& connect) noexcept {
  std::erase_if(undecided_, [&](const auto& entry) { return entry.get() == &connect; });
}

// Sets the stage first: the game may ask for it as soon as the connect is under way.
void PostponedConnects::Carry(const PostponedConnect& connect, bool reached) const noexcept {
  const ConnectStage stage = reached ? ConnectStage::kIssued : ConnectStage::kRefused;
  if (!GetSocketMap().SetConnectStage(connect.socket, stage, connect.token)) return;
  const sockaddr_in& to = reached ? listener_ : dead_end_;
  INT error = 0;
  const int result =
      connect.next->lpWSPConnect(connect.socket, reinterpret_cast<const sockaddr*>(&to), sizeof to,
                                 nullptr, nullptr, nullptr, nullptr, &error);
  LSP_LOG(4, "[TCP]PostponedConnects::Carry, reached=%s, ret=%d, err=%d, socket=%Id, token=%u",
          reached ? "true" : "false", result, result == 0 ? 0 : error, connect.socket,
          connect.token);
}

}  // namespace moru_vyr::lsp
