// The listener, the sessions' registration and their end.
#include "stream/tcp_provider.h"

#include <algorithm>

#include "common/function_trace.h"
#include "common/log.h"
#include "relay/node_choice.h"
#include "route/mending.h"
#include "sockets/socket_helpers.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kListenerBufferSize = 65536;
constexpr u32 kMostAccepts = 16;  // in one pass

// The two ends; with fast fallback, up to two other ways beside the latest.
u32 SocketsOfSession() noexcept { return FastFallback() != nullptr ? 4 : 2; }

// Guard: whether that connection to the listener cannot be the game's. The port of a game's socket
// is free for other programs on the other addresses of the loopback interface, such as 127.0.0.2,
// and a connection from there would be taken for the game's.
bool IsForeign(const sockaddr_in& peer) noexcept {
  const u32 ip = ntohl(peer.sin_addr.s_addr);
  return ip >> 24 == 127 && ip != INADDR_LOOPBACK;
}

bool ForgetsFailed() noexcept { return GetMending().ForgetsFailedConnects(); }

}  // namespace

bool TcpProvider::OnCreateLocalServer() noexcept {
  common::FunctionTrace trace("moru_vyr::lsp::TcpProvider::OnCreateLocalServer");
  u16 port = 0;
  if (!CreateTcpSocketAndBind(&local_socket_, &port)) return false;
  local_port_.store(port, std::memory_order_relaxed);
  // A size that is set stays, and the connections inherit it.
  if (!GetMending().LeavesStreamBuffers()) {
    AdjustSocketBuff(local_socket_, kListenerBufferSize, kListenerBufferSize);
  }
  if (!AddLocalAddr(port)) {
    CloseRelaySocket(local_socket_);
    return false;
  }
  socket_mgr_->AddSocket(local_socket_, this);
  const int result = listen(local_socket_, SOMAXCONN);
  const int error = WSAGetLastError();
  LSP_LOG(4, "[TCP] OnCreateLocalServer listen return=%d, err=%d", result, error);
  if (PostponesConnects()) {
    postponed_connects_.Open(local_addrs_.front());
    wake_socket_.Open(socket_mgr_);
  }
  return true;  // Kept: the bind alone decides
}

bool TcpProvider::AddLocalAddr(u16 port) noexcept {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = port;
  address.sin_addr.s_addr = static_cast<u32>(inet_addr("127.0.0.1"));
  common::Lock hold(pending_lock_);
  try {
    local_addrs_.push_front(address);
    return true;
  } catch (...) {
    return false;
  }
}

// Kept: sessions stay as they are, with their sockets open, until the process ends.
void TcpProvider::Uninit() noexcept {
  LSP_LOG(0, "[TCP] TcpProvider::OnCloseLocalServer. socket=%Id", local_socket_);
  postponed_connects_.Close();
  wake_socket_.Close(socket_mgr_);
  CloseRelaySocket(local_socket_);
  if (socket_mgr_ != nullptr) socket_mgr_->RemoveSocket(local_socket_);
  local_socket_ = INVALID_SOCKET;
  local_port_.store(0, std::memory_order_relaxed);
}

bool TcpProvider::RequestTcpRelaySession(SOCKET socket, u16 port, const sockaddr_in* addr,
                                         sockaddr** out_addr, int* out_len, u32 token,
                                         bool* created,
                                         std::shared_ptr<PostponedConnect> postponed) noexcept {
  LSP_LOG(4, "[TCP]RequestTcpRelaySession: port=%d, socket=%Id, token=%u", ntohs(port), socket,
          token);
  if (addr == nullptr || out_addr == nullptr || out_len == nullptr) {
    LSP_LOG(4, "[TCP]RequestTcpRelaySession: something went wrong, socket=%Id, token=%u", socket,
            token);
    return false;
  }
  common::Lock hold(pending_lock_);
  ForgetOther(port, token);
  const bool duplicate = pending_sessions_.contains(port);
  if (created != nullptr) *created = !duplicate;
  if (duplicate) {
    // Kept: the session that waits keeps its destination, which may be another. The port stands
    // here in network order.
    LSP_LOG(4, "[TCP]RequestTcpRelaySession port duplicate, port=%d, socket=%Id, token=%u", port,
            socket, token);
  } else if (!CreateNewSession(port, *addr, token, std::move(postponed))) {
    LSP_LOG(4, "[TCP]RequestTcpRelaySession: CreateNewSession failed, socket=%Id, token=%u", socket,
            token);
    return false;
  }
  *out_addr = reinterpret_cast<sockaddr*>(&local_addrs_.front());
  *out_len = sizeof(sockaddr_in);
  if (!duplicate) {
    LSP_LOG(4, "[TCP]RequestTcpRelaySession: CreateNewSession succeed, socket=%Id, token=%u",
            socket, token);
  }
  return true;
}

bool TcpProvider::HasRoomForSession() noexcept {
  // More room than there ever is: if that is granted, places are not counted and no lock is needed.
  if (socket_mgr_ == nullptr || socket_mgr_->HasRoom(FD_SETSIZE)) return true;
  common::Lock hold(pending_lock_);
  return socket_mgr_->HasRoom(SocketsOfSession() *
                              (static_cast<u32>(pending_sessions_.size()) + 1));
}

void TcpProvider::ForgetRequest(u16 port, u32 token) noexcept {
  common::Lock hold(pending_lock_);
  const auto found = pending_sessions_.find(port);
  if (found != pending_sessions_.end() && found->second->token() == token && ForgetsFailed()) {
    pending_sessions_.erase(found);
  }
}

// The port belongs to a new socket now, so the one before it has failed or closed and will not
// connect from it any more. A second connect of the same socket fails, but the first one may not.
void TcpProvider::ForgetOther(u16 port, u32 token) noexcept {
  const auto found = pending_sessions_.find(port);
  if (found != pending_sessions_.end() && found->second->token() != token && ForgetsFailed()) {
    pending_sessions_.erase(found);
  }
}

bool TcpProvider::CreateNewSession(u16 port, const sockaddr_in& addr, u32 token,
                                   std::shared_ptr<PostponedConnect> postponed) noexcept {
  const bool starts_now = postponed != nullptr;
  try {
    auto session = std::make_unique<TcpSession>(this, token);
    session->SetGame(port, addr);
    session->SetPostponed(std::move(postponed));
    pending_sessions_.emplace(port, std::move(session));
    if (starts_now) wake_socket_.Wake();
    return true;
  } catch (...) {
    return false;
  }
}

void TcpProvider::OnReadable(SOCKET listen_socket) noexcept {
  const u32 most = GetMending().AcceptsSeveral() ? kMostAccepts : 1;
  u32 accepted = 0;
  while (accepted < most && Accept(listen_socket, accepted > 0)) ++accepted;
}

// Whether there was a connection. Where there `may_be_none`, that is nothing to be told.
bool TcpProvider::Accept(SOCKET listen_socket, bool may_be_none) noexcept {
  sockaddr_in addr = {};
  int size = sizeof addr;
  const SOCKET accepted = accept(listen_socket, reinterpret_cast<sockaddr*>(&addr), &size);
  if (accepted == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    if (may_be_none && error == WSAEWOULDBLOCK) return false;
    LSP_LOG(4, "[TCP]OnLocalServerAcceptable, accept failed. err=%d, socket=%Id", error,
            listen_socket);
    return false;
  }
  TakeIn(accepted, addr);
  return true;
}

void TcpProvider::TakeIn(SOCKET accepted, const sockaddr_in& peer) noexcept {
  const u16 peer_port = peer.sin_port;
  // Held to the end, so that a connect that is being registered is not missed.
  common::Lock hold(pending_lock_);
  const bool foreign = IsForeign(peer);
  if (!foreign && MeetPostponed(peer_port, accepted)) return;
  TcpSession* const session = foreign ? nullptr : Adopt(peer_port);
  if (session == nullptr) {
    LSP_LOG(4, "[TCP]OnLocalServerAcceptable, session not registered for port=%d, socket=%Id",
            ntohs(peer_port), accepted);
    closesocket(accepted);
    return;
  }
  sockaddr_in addr = {};
  int size = sizeof addr;
  if (getsockname(accepted, reinterpret_cast<sockaddr*>(&addr), &size) == SOCKET_ERROR) {
    const int error = WSAGetLastError();
    LSP_LOG(4, "[TCP]OnLocalServerAcceptable, getsockname failed. err=%d, socket=%Id, token=%u",
            error, accepted, session->token());
    closesocket(accepted);
    return;  // without sockets the session ends at the next update
  }
  LSP_LOG(4, "[TCP]OnLocalServerAcceptable. peer_port=%d, local_port=%d, socket=%Id, token=%u",
          ntohs(peer_port), ntohs(addr.sin_port), accepted, session->token());
  session->SetLocalSocket(accepted);
  // Kept: where this fails the session stays, and ends when the game closes.
  ConnectToRemoteServer(session);
}

// Moves the session that waits for that port into sessions_. Null if there is none, or no memory
// for it.
TcpSession* TcpProvider::Adopt(u16 peer_port) noexcept {
  const auto found = pending_sessions_.find(peer_port);
  if (found == pending_sessions_.end()) return nullptr;
  try {
    obsolete_sessions_.reserve(sessions_.size() + 1);
    sessions_.push_back(nullptr);
  } catch (...) {
    pending_sessions_.erase(found);  // its port's next connection may go elsewhere
    return nullptr;
  }
  sessions_.back() = std::move(found->second);
  pending_sessions_.erase(found);
  sessions_.back()->set_state(TcpState::Accepted);
  return sessions_.back().get();
}

bool TcpProvider::ConnectToRemoteServer(TcpSession* session) noexcept {
  if (!session->OpenRemoteSocket()) {
    LSP_LOG(4, "[TCP]ConnectToRemoteServer failed to create socket, token=%u", session->token());
    // A connection of the game's waits for the next update, or for the game. A postponed connect
    // fails at once.
    if (session->IsPostponed()) CloseObsoleteSession(session);
    return false;
  }
  const SOCKET remote = session->remote_socket();
  session->DecideRemoteAddr();
  LSP_LOG(4, "[TCP]ConnectToRemoteServer remote socket=%Id, token=%u", remote, session->token());
  if (session->Connect() || session->TakeAnotherWay()) return true;
  LSP_LOG(4, "[TCP]ConnectToRemoteServer failed. socket=%Id, token=%u", remote, session->token());
  if (!session->GiveUp()) CloseObsoleteSession(session);
  return false;
}

void TcpProvider::CloseObsoleteSession(TcpSession* session) noexcept {
  const SOCKET local_socket = session->local_socket();
  const SOCKET remote_socket = session->remote_socket();
  const u32 token = session->token();
  session->CloseTries();
  LSP_LOG(4,
          "[TCP]CloseObsoleteSession, remove session, port=%d, local_socket=%Id, "
          "remote_socket=%Id, token=%u",
          ntohs(session->game_socket_port()), local_socket, remote_socket, token);
  for (const SOCKET socket : {local_socket, remote_socket}) {
    if (socket == INVALID_SOCKET) continue;
    socket_mgr_->RemoveSocket(socket);
    if (session->is_reset()) ResetAtClose(socket);
    LSP_LOG(4, "[TCP]CloseObsoleteSession, about to close socket=%Id, token=%u", socket, token);
    closesocket(socket);
  }
  if (remote_socket != INVALID_SOCKET) GetTracker().RemoveFromWatchList(remote_socket);
  std::erase_if(sessions_, [session](const auto& entry) { return entry.get() == session; });
}

bool TcpProvider::OwesServers() const noexcept {
  return std::any_of(sessions_.begin(), sessions_.end(),
                     [](const auto& session) { return session->OwesServer(); });
}

void TcpProvider::OnUpdate(u32 elapsed_ms) noexcept {
  if (PostponesConnects()) StartPostponed();  // in case there is no socket to wake the worker with
  for (const auto& session : sessions_) {
    session->OnUpdate(elapsed_ms);
    if (session->IsObsolete()) obsolete_sessions_.push_back(session.get());
  }
  for (TcpSession* const session : obsolete_sessions_) CloseObsoleteSession(session);
  obsolete_sessions_.clear();
}

}  // namespace moru_vyr::lsp
