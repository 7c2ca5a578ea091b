// The beginning of a session whose game connects only once the far side has been reached.
#include <algorithm>

#include "common/log.h"
#include "sockets/socket_map.h"
#include "stream/postponed_connect.h"
#include "stream/tcp_provider.h"
#include "stream/tcp_session.h"

namespace moru_vyr::lsp {
namespace {

// From the worker's go-ahead to the accept, all on the loopback interface.
constexpr u32 kExpectedLimitMs = 10'000;

}  // namespace

// However the session has ended, the game's connect fails if it still waits.
TcpSession::~TcpSession() {
  if (postponed_ == nullptr) return;
  provider_->postponed_connects().Decide(postponed_.get(),
                                         connect_error_ != 0 ? connect_error_ : WSAECONNREFUSED);
}

bool TcpSession::ExpectsGame() const noexcept {
  return postponed_ != nullptr && postponed_->error == 0 && !postponed_->is_cancelled;
}

bool TcpSession::IsGivenUpByGame() const noexcept {
  return postponed_ != nullptr && postponed_->is_cancelled;
}

// The far side is ready. What it sends waits in its socket until the game has connected.
void TcpSession::LetGameConnect() noexcept {
  provider_->SessionMgr()->StopReading(remote_.socket);
  provider_->postponed_connects().Decide(postponed_.get(), 0);
}

void TcpSession::MeetGame(SOCKET local) noexcept {
  GetSocketMap().SetConnectStage(postponed_->socket, ConnectStage::kNone, token_);
  postponed_.reset();
  SetLocalSocket(local);
  provider_->SessionMgr()->ResumeReading(remote_.socket);
}

// A game that was told to connect and does not come has closed its socket.
void TcpSession::LimitPostponed(u32 elapsed_ms) noexcept {
  if (postponed_ == nullptr) return;
  if (state_ == TcpState::Relaying) expected_ms_ += elapsed_ms;
  if (!postponed_->is_cancelled && expected_ms_ < kExpectedLimitMs) return;
  local_.sock_deleteing = remote_.sock_deleteing = true;
}

// A node's error counts where the game server itself has not been asked.
void TcpSession::NoteConnectError(SOCKET socket, int error) noexcept {
  bool to_node = use_acc_;
  for (const TcpTry& t : tries_)
    if (t.socket == socket) to_node = t.to_node;
  if (error != 0 && (!to_node || connect_error_ == 0)) connect_error_ = error;
}

// --- the provider's part -----------------------------------------------------------------------

void TcpProvider::StartPostponed() noexcept {
  common::Lock hold(pending_lock_);
  for (;;) {
    const auto found = std::find_if(pending_sessions_.begin(), pending_sessions_.end(),
                                    [](const auto& entry) { return entry.second->IsPostponed(); });
    if (found == pending_sessions_.end()) return;
    if (found->second->IsGivenUpByGame()) {
      pending_sessions_.erase(found);
    } else if (TcpSession* const session = Adopt(found->first)) {
      ConnectToRemoteServer(session);
    }
  }
}

// Whether a session was waiting for that connection. The latest: earlier ones of that port have
// been given up by their games.
bool TcpProvider::MeetPostponed(u16 peer_port, SOCKET accepted) noexcept {
  const auto found = std::find_if(sessions_.rbegin(), sessions_.rend(), [=](const auto& session) {
    return session->game_socket_port() == peer_port && session->ExpectsGame();
  });
  if (found == sessions_.rend()) return false;
  LSP_LOG(4, "[TCP]MeetPostponed. peer_port=%d, socket=%Id, token=%u", ntohs(peer_port), accepted,
          (*found)->token());
  (*found)->MeetGame(accepted);
  return true;
}

}  // namespace moru_vyr::lsp
