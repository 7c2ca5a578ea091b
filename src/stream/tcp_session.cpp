// The course of a session: what each event means in each of its states.
#include "stream/tcp_session.h"

#include "common/log.h"
#include "common/net_text.h"
#include "relay/node_choice.h"
#include "route/route.h"
#include "stream/tcp_provider.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kHalfCloseLimitMs = 300'000;
constexpr u32 kFarewellMs = 200;  // in which the system sends the last bytes on their way

u32 Verdict(bool keep) noexcept { return keep ? kKeepSession : kCloseSession; }

}  // namespace

TcpSession::TcpSession(TcpProvider* provider, u32 token) noexcept
    : token_(token), guid_(SessionGuid::Make()), provider_(provider) {}

void TcpSession::SetGame(u16 port, const sockaddr_in& server) noexcept {
  game_socket_port_ = port;
  game_ip_ = server.sin_addr.s_addr;
  game_port_ = server.sin_port;
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
    use_acc_ = false;  // no memory for a question: the game server can still be reached
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
  // Also where the target is a node: what is reported is whom the game talks to.
  GetTracker().NoteGameServer(remote_.socket, common::IpToString(game_ip_).c_str(), game_port_);
  const int result =
      connect(remote_.socket, reinterpret_cast<const sockaddr*>(&target), sizeof target);
  const int error = WSAGetLastError();
  if (IRelaySocketMgr* const mgr = provider_->SessionMgr()) mgr->EnableWrite(remote_.socket);
  if (result == SOCKET_ERROR && error != WSAEWOULDBLOCK) {
    LSP_LOG(0, "[TCP]connect [%s] server failed. err=%d, socket=%Id, token=%u",
            use_acc_ ? "proxy" : "game", error, remote_.socket, token_);
    NoteConnectError(remote_.socket, error);
    return false;
  }
  state_ = TcpState::Connecting;
  return true;
}

u32 TcpSession::HandleLocalReadable() noexcept {
  bool keep = DoLocalRead();
  // In any other state the bytes wait.
  if (keep && state_ == TcpState::Relaying) keep = DoRemoteWrite();
  return Verdict(keep);
}

u32 TcpSession::HandleRemoteReadable() noexcept {
  switch (state_) {
    case TcpState::Relaying:
      return Verdict(DoRemoteRead() && DoLocalWrite());
    case TcpState::Negotiating:
      return Verdict(FinishNegotiation());
    case TcpState::Connecting:
      return kKeepSession;  // the writable event, which follows, is the one that counts
    default:
      return kCloseSession;
  }
}

u32 TcpSession::HandleRemoteWritable() noexcept {
  switch (state_) {
    case TcpState::Connecting:
      LSP_LOG(4, "[TCP]TcpSession::HandleRemoteWritable, connection is successful. token=%u",
              token_);
      if (use_acc_) {
        state_ = TcpState::Negotiating;
        return Verdict(StartNegotiation() || LeaveNode(kNegoSendFailed) || Resume(false));
      }
      WinRace();
      return Verdict(DoRemoteWrite());
    case TcpState::Relaying:
      return Verdict(DoRemoteWrite());
    default:
      // Kept: so a request that would have blocked ends the session. It was never sent.
      return kCloseSession;
  }
}

bool TcpSession::TakeAnotherWay() noexcept { return LeaveNode(kNegoUnreachable); }

u32 TcpSession::GiveUp() noexcept {
  NoteReset(WSAECONNREFUSED);
  return is_reset_ || IsPostponed() ? kCloseSession : kNoAction;
}

// Kept: a connect that the network refuses ends the connection. Only time and a node's answer
// lead to another try.
u32 TcpSession::HandleConnectFailure() noexcept {
  if (state_ != TcpState::Connecting) {
    LSP_LOG(4, "[TCP]HandleConnectFailure. state mismatched, cur state=%d, token=%u",
            static_cast<int>(state_), token_);
    return kNoAction;
  }
  LSP_LOG(4, "[TCP]HandleConnectFailure. Connection Failed, token=%u", token_);
  if (LeaveNode(kNegoUnreachable) || Resume(false)) return kKeepSession;
  state_ = TcpState::Failed;
  GiveUp();
  return kCloseSession;
}

// A game that has closed its socket looks as if it had ended its sending only. Where its server
// does not end either, the connection is given this long without a byte.
void TcpSession::LimitHalfClose(u32 elapsed_ms) noexcept {
  if (!local_.at_end && !remote_.at_end) return;
  half_closed_ms_ += elapsed_ms;
  if (half_closed_ms_ < kHalfCloseLimitMs) return;
  local_.sock_deleteing = remote_.sock_deleteing = true;
}

// The limit holds for connecting and negotiating together. A direct connection has the system's.
void TcpSession::OnUpdate(u32 elapsed_ms) noexcept {
  LimitHalfClose(elapsed_ms);
  LimitPostponed(elapsed_ms);
  UpdateTries(elapsed_ms);
  if (!use_acc_) return;
  if (state_ != TcpState::Connecting && state_ != TcpState::Negotiating) return;
  if (connect_elapsed_ < AnswerLimitMs()) {
    connect_elapsed_ += elapsed_ms;
    return;
  }
  // Kept: nobody is told if this fails. The session ends with the far side's next event, or with
  // the game's close.
  if (!OnAnswerOverdue() && GiveUp() == kCloseSession) {
    local_.sock_deleteing = remote_.sock_deleteing = true;
  }
}

bool TcpSession::IsGivenUp() const noexcept {
  return state_ == TcpState::Accepted || state_ == TcpState::Failed;
}

bool TcpSession::IsObsolete() noexcept {
  // Guard: a socket whose connect has failed carries nothing. What the closed game has sent cannot
  // leave, and the session would wait for that for ever.
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
  if (now - obsolete_tick_ < kFarewellMs) return false;
  LSP_LOG(4, "TcpSession::IsObsolete, found obsolete session, token=%u", token_);
  return true;
}

}  // namespace moru_vyr::lsp
