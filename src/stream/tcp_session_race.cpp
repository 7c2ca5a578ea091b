// Ways to the far side that are under way at the same time, with fast fallback: one that has not
// answered in time goes on beside the next, and the first answer wins.
//
// A node that wins late counts as one that serves. One that has not answered when another way wins
// is reported as timed out, unless it still had time.
#include <algorithm>
#include <iterator>
#include <utility>

#include "common/log.h"
#include "relay/node_choice.h"
#include "stream/tcp_provider.h"
#include "stream/tcp_session.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kNegotiationLimitMs = 5000;

}  // namespace

// How long the latest way, to a node, may take. Once there is no other left, that is the limit at
// which it fails.
u32 TcpSession::AnswerLimitMs() const noexcept {
  const FallbackTimes* const times = direct_tried_ ? nullptr : FastFallback();
  if (times == nullptr) return kNegotiationLimitMs;
  return node_changes_ == 0 ? times->next_node_ms : times->direct_ms;
}

// Whether the session goes on.
bool TcpSession::OnAnswerOverdue() noexcept {
  TcpTry* const place = std::find_if(std::begin(tries_), std::end(tries_),
                                     [](const TcpTry& t) { return t.socket == INVALID_SOCKET; });
  if (direct_tried_ || FastFallback() == nullptr || place == std::end(tries_)) {
    return OnNegotiationFailed(kNegoTimedOut);
  }
  LSP_LOG(4, "[TCP]TcpSession::OnAnswerOverdue, goes on beside the next, socket=%Id, token=%u",
          remote_.socket, token_);
  NoteNodeFailed(SOCK_STREAM, decision_);
  *place = {.socket = std::exchange(remote_.socket, INVALID_SOCKET),
            .state = state_,
            .to_node = true,
            .is_overdue = true,
            .elapsed_ms = 0,  // now it has the time that a node has without another beside it
            .proxy = decision_.selected_proxy,
            .negotiation = negotiation_};
  return TakeNextWay() || Resume(false);
}

// Makes the way with that socket the latest, until Conclude. False if no way has it.
bool TcpSession::PutForward(SOCKET socket) noexcept {
  if (socket == remote_.socket) return true;
  TcpTry* const place = std::find_if(std::begin(tries_), std::end(tries_),
                                     [&](const TcpTry& t) { return t.socket == socket; });
  if (place == std::end(tries_)) return false;
  put_forward_ = place;
  Exchange(place);
  return true;
}

// After the latest way has failed: another becomes the latest. With `in_time`, only one that still
// has time to answer. False if there is none; then nothing has changed.
bool TcpSession::Resume(bool in_time) noexcept {
  TcpTry* found = nullptr;
  for (TcpTry& t : tries_) {
    if (t.socket == INVALID_SOCKET || (in_time && t.is_overdue)) continue;
    if (found == nullptr || found->is_overdue) found = &t;
  }
  if (found == nullptr) return false;
  CloseSocket(&remote_);
  Exchange(found);
  *found = {};
  LSP_LOG(4, "[TCP]TcpSession::Resume, socket=%Id, token=%u", remote_.socket, token_);
  return true;
}

// The latest way carries from now on; the others are told the end by the end of their connections.
void TcpSession::WinRace() noexcept {
  state_ = TcpState::Relaying;
  for (TcpTry& t : tries_) {
    if (t.socket != INVALID_SOCKET && t.is_overdue) RecordTimeOut(&t);
    CloseTry(&t);
  }
  if (IsPostponed()) LetGameConnect();
}

void TcpSession::UpdateTries(u32 elapsed_ms) noexcept {
  for (TcpTry& t : tries_) {
    if (t.socket == INVALID_SOCKET) continue;
    t.elapsed_ms += elapsed_ms;
    if (t.elapsed_ms < kNegotiationLimitMs) continue;
    RecordTimeOut(&t);
    CloseTry(&t);
  }
}

void TcpSession::CloseTries() noexcept {
  for (TcpTry& t : tries_) CloseTry(&t);
}

// Makes the other way the latest, and the latest the other.
void TcpSession::Exchange(TcpTry* other) noexcept {
  std::swap(other->socket, remote_.socket);
  std::swap(other->state, state_);
  std::swap(other->to_node, use_acc_);
  std::swap(other->elapsed_ms, connect_elapsed_);
  std::swap(other->proxy, decision_.selected_proxy);
  std::swap(other->negotiation, negotiation_);
  other->is_overdue = !other->is_overdue;  // of two that change places, one is the latest
}

void TcpSession::RecordTimeOut(TcpTry* of) noexcept {
  std::swap(of->proxy, decision_.selected_proxy);
  GetTracker().RecordNegFailed(of->socket, 0, kNegoTimedOut, &decision_,
                               of->negotiation.ElapsedMs(), nego_count_);
  std::swap(of->proxy, decision_.selected_proxy);
}

void TcpSession::CloseTry(TcpTry* ended) noexcept {
  if (ended->socket == INVALID_SOCKET) return;
  provider_->SessionMgr()->RemoveSocket(ended->socket);
  LSP_LOG(4, "[TCP]TcpSession::CloseTry, about to close socket=%Id, token=%u", ended->socket,
          token_);
  closesocket(ended->socket);
  GetTracker().RemoveFromWatchList(ended->socket);
  *ended = {};
}

}  // namespace moru_vyr::lsp
