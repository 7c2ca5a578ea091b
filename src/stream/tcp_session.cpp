// The course of a session: what each event means in each of its states.
#include "stream/tcp_session.h"

#include <utility>

#include "common/log.h"
#include "common/net_text.h"
#include "relay/node_choice.h"
#include "route/route.h"
#include "sockets/socket_helpers.h"
#include "stream/tcp_provider.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kHalfCloseLimitMs = 300'000;
constexpr u32 kLastBytesMs = 200;  // for the system to send the last bytes

}  // namespace

TcpSession::TcpSession(TcpProvider* provider, u32 token) noexcept
    : local_(this, false, provider->Blocks()),
      remote_(this, true, provider->Blocks()),
      token_(token),
      guid_(SessionGuid::Make()),
      provider_(provider) {}

void TcpSession::SetGame(u16 port, const sockaddr_in& server) noexcept {
  game_socket_port_ = port;
  game_ip_ = server.sin_addr.s_addr;
  game_port_ = server.sin_port;
}

void TcpSession::SetLocalSocket(SOCKET socket) noexcept {
  local_.socket = socket;
  provider_->SessionMgr()->AddSocket(socket, &local_);
}

bool TcpSession::OpenRemoteSocket() noexcept {
  if (!CreateNonBlockTcpSocket(&remote_.socket)) return false;
  GetTracker().AddToWatchList(remote_.socket, kTrackTcp, token_);
  provider_->SessionMgr()->AddSocket(remote_.socket, &remote_);
  return true;
}

void TcpSession::DecideRemoteAddr() noexcept {
  remote_ip_ = game_ip_;
  remote_port_ = game_port_;
  char guid_text[SessionGuid::kTextSize] = {};
  guid_.ToString(guid_text, sizeof guid_text);
  try {
    use_acc_ =
        provider_->SessionRoute()->MakeDecision(game_ip_, game_port_, SOCK_STREAM, guid_text,
                                                &decision_, nullptr, remote_.socket, token_) &&
        SelectAwakeProxy(SOCK_STREAM, &decision_);
  } catch (...) {
    use_acc_ = false;  // out of memory: the game server can still be reached directly
  }
  GetTracker().SetAcceInfo(remote_.socket, use_acc_, &decision_);
  if (use_acc_) {
    connect_elapsed_ = 0;
    TargetSelectedProxy();
  }
  LSP_LOG(4, "[TCP]DecideRemoteAddr.use_acc_=%s, ip=%s, port=%d, socket=%Id, token=%u",
          use_acc_ ? "true" : "false", common::IpToString(remote_ip_).c_str(), ntohs(remote_port_),
          remote_.socket, token_);
}

bool TcpSession::Connect() noexcept {
  sockaddr_in target = {};
  target.sin_family = AF_INET;
  target.sin_port = remote_port_;
  target.sin_addr.s_addr = remote_ip_;
  // The game server even if the target is a node: reports name the peer of the game.
  GetTracker().NoteGameServer(remote_.socket, common::IpToString(game_ip_).c_str(), game_port_);
  const int result =
      connect(remote_.socket, reinterpret_cast<const sockaddr*>(&target), sizeof target);
  const int error = WSAGetLastError();
  provider_->SessionMgr()->EnableWrite(remote_.socket);
  if (result == SOCKET_ERROR && error != WSAEWOULDBLOCK) {
    LSP_LOG(0, "[TCP]connect [%s] server failed. err=%d, socket=%Id, token=%u",
            use_acc_ ? "proxy" : "game", error, remote_.socket, token_);
    NoteConnectError(remote_.socket, error);
    return false;
  }
  state_ = TcpState::Connecting;
  return true;
}

bool TcpSession::TakeAnotherWay() noexcept { return LeaveNode(kNegoUnreachable); }

bool TcpSession::GiveUp() noexcept {
  NoteReset(WSAECONNREFUSED);
  return !is_reset_ && !IsPostponed();
}

// A way that was put forward goes back to its place, unless it has won or failed and another has
// taken that place. A way that ends without ending the session is closed.
void TcpSession::Conclude(bool keep) noexcept {
  TcpTry* const place = std::exchange(put_forward_, nullptr);
  if (place != nullptr && place->socket != INVALID_SOCKET) {
    Exchange(place);
    if (!keep) CloseTry(place);
  } else if (!keep) {
    provider_->CloseObsoleteSession(this);
  }
}

// A game that has closed its socket looks like one that has only ended its sending. If its server
// does not end the connection either, that lives this long without a byte.
void TcpSession::LimitHalfClose(u32 elapsed_ms) noexcept {
  if (!local_.at_end && !remote_.at_end) return;
  half_closed_ms_ += elapsed_ms;
  if (half_closed_ms_ < kHalfCloseLimitMs) return;
  local_.sock_deleteing = remote_.sock_deleteing = true;
}

// The limit holds for connecting and negotiating together. A direct connection has the system's.
void TcpSession::OnUpdate(u32 elapsed_ms) noexcept {
  LimitHalfClose(elapsed_ms);
  AskForRoom();
  LimitPostponed(elapsed_ms);
  UpdateTries(elapsed_ms);
  if (!use_acc_) return;
  if (state_ != TcpState::Connecting && state_ != TcpState::Negotiating) return;
  if (connect_elapsed_ < AnswerLimitMs()) {
    connect_elapsed_ += elapsed_ms;
    return;
  }
  // Kept: a failure here is not reported. The session ends with the far side's next event, or with
  // the game's close.
  if (!OnAnswerOverdue() && !GiveUp()) {
    local_.sock_deleteing = remote_.sock_deleteing = true;
  }
}

bool TcpSession::IsGivenUp() const noexcept {
  return state_ == TcpState::Accepted || state_ == TcpState::Failed;
}

bool TcpSession::OwesServer() const noexcept {
  return state_ == TcpState::Relaying && !remote_.owed.IsEmpty() && !remote_.sock_deleteing;
}

bool TcpSession::IsObsolete() noexcept {
  // Guard: a socket whose connect has failed carries nothing. What the game had sent before it
  // closed cannot leave, and the session would wait for that forever.
  const bool remote_dead =
      remote_.sock_deleteing || remote_.socket == INVALID_SOCKET || IsGivenUp();
  const bool local_dead =
      local_.sock_deleteing || local_.socket == INVALID_SOCKET || (local_.at_end && remote_dead);
  if (!local_dead || !remote_dead) return false;
  if (obsolete_tick_ == 0) {
    LSP_LOG(4, "TcpSession::IsObsolete, tick 0, found obsolete session, token=%u", token_);
    return true;
  }
  const u32 now = GetTickCount();
  if (now < obsolete_tick_) {  // the counter has wrapped: the wait starts again
    obsolete_tick_ = now;
    return false;
  }
  if (now - obsolete_tick_ < kLastBytesMs) return false;
  LSP_LOG(4, "TcpSession::IsObsolete, found obsolete session, token=%u", token_);
  return true;
}

}  // namespace moru_vyr::lsp
