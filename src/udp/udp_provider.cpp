// The control socket, and the sessions' life.
#include "udp/udp_provider.h"

#include <algorithm>

#include "common/log.h"
#include "sockets/socket_helpers.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kControlBufferSize = 65536;
constexpr u32 kMostPeerSockets = 64;
constexpr u32 kLookIntervalMs = 5000;

}  // namespace

bool UdpProvider::OnCreateLocalServer() noexcept {
  local_socket_ = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (local_socket_ == INVALID_SOCKET) {
    const int error = WSAGetLastError();
    LSP_LOG(5, "[UDP] UdpProvider::OnCreateLocalServer socket error=%d", error);
    return false;
  }
  u16 port = 0;
  bool result = BindLoopbackPort(local_socket_, &port);
  if (result) {
    local_port_.store(port, std::memory_order_relaxed);
    if (const int error = MakeNonBlocking(local_socket_); error != 0) {
      LSP_LOG(5, "[UDP] UdpProvider::OnCreateLocalServer ioctlsocket , error=%d", error);
      result = false;
    }
  }
  // Kept: also for a socket that has failed, and so the line proves nothing.
  AdjustSocketBuff(local_socket_, kControlBufferSize, kControlBufferSize);
  socket_mgr_->AddSocket(local_socket_, this);
  LSP_LOG(5, "[UDP] UdpProvider::OnCreateLocalServer success, port=%u", ntohs(port));
  return result;
}

// Kept: answers that were not taken stay.
void UdpProvider::Uninit() noexcept {
  LSP_LOG(0, "[UDP] UdpProvider::OnCloseLocalServer");
  if (local_socket_ != 0) CloseRelaySocket(local_socket_);
  if (socket_mgr_ != nullptr) socket_mgr_->RemoveSocket(local_socket_);
  while (!sessions_.empty()) {
    live_queues_.Remove(sessions_.begin()->first);
    sessions_.erase(sessions_.begin());
  }
  local_socket_ = INVALID_SOCKET;
  local_port_.store(0, std::memory_order_relaxed);
}

UdpSession* UdpProvider::CreateSession(const ProtoRelayOpen& request,
                                       const sockaddr_in& game_addr) noexcept {
  if (!socket_mgr_->HasRoom(1)) return nullptr;
  try {
    auto session = std::make_unique<UdpSession>(
        this, u32{request.token}, game_addr, request.address(),
        static_cast<u32>(request.send_size_or_queue), static_cast<u32>(request.recv_size_or_queue));
    return session->Init() ? Adopt(std::move(session)) : nullptr;
  } catch (...) {
    return nullptr;
  }
}

// Null if the token already has a session, which goes on untouched. May throw std::bad_alloc.
UdpSession* UdpProvider::Adopt(std::unique_ptr<UdpSession> session) {
  const u32 token = session->token();
  const auto [place, inserted] = sessions_.try_emplace(token, nullptr);
  if (!inserted) return nullptr;
  try {
    live_queues_.Add(token, session->queues());
  } catch (...) {
    sessions_.erase(place);
    throw;
  }
  place->second = std::move(session);
  return place->second.get();
}

void UdpProvider::CloseSession(u32 token) noexcept {
  const auto found = sessions_.find(token);
  if (found == sessions_.end()) return;
  if (!found->second->CanClose()) {
    LSP_LOG(5, "[UDP] session enter closing state, token=%u", token);
    return;
  }
  live_queues_.Remove(token);
  sessions_.erase(found);
  LSP_LOG(5, "[UDP] session closed, token=%u", token);
}

void UdpProvider::OnUpdate(u32 elapsed_ms) noexcept {
  for (auto next = sessions_.begin(); next != sessions_.end();) {
    UdpSession& session = *(next++)->second;  // may be gone after the last line
    session.OnUpdate(elapsed_ms);
    if (session.IsCloseWanted()) CloseSession(session.token());
  }
  untold_ends_.OnTurn([this](u32 token) {
    const bool has_session = sessions_.count(token) != 0;
    CloseSession(token);
    return has_session;
  });
  EndForgotten(elapsed_ms);
}

bool UdpProvider::OwesServers() const noexcept {
  return std::any_of(sessions_.begin(), sessions_.end(),
                     [](const auto& entry) { return entry.second->OwesServers(); });
}

bool UdpProvider::TakePeerSocket() noexcept {
  if (peer_sockets_ == kMostPeerSockets) return false;
  ++peer_sockets_;
  return true;
}

// Ends the sessions of sockets that are gone without any notice of it. What still waits for room
// has until the next look.
void UdpProvider::EndForgotten(u32 elapsed_ms) noexcept {
  since_look_ms_ += elapsed_ms;
  if (since_look_ms_ < kLookIntervalMs) return;
  since_look_ms_ = 0;
  for (auto next = sessions_.begin(); next != sessions_.end();) {
    const auto session = next++;
    if (!session->second->HasPeerPorts() || GetSocketMap().HasToken(session->first)) continue;
    if (!session->second->IsForgotten()) {
      session->second->SetForgotten();
      CloseSession(session->first);
      continue;
    }
    LSP_LOG(5, "[UDP] session forgotten, token=%u", session->first);
    live_queues_.Remove(session->first);
    sessions_.erase(session);
  }
}

}  // namespace moru_vyr::lsp
