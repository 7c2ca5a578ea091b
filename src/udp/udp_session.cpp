#include "udp/udp_session.h"

#include <algorithm>

#include "common/log.h"
#include "common/net_text.h"
#include "route/mending.h"
#include "route/route.h"
#include "udp/accl_link_info.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"

namespace moru_vyr::lsp {

UdpSession::UdpSession(UdpProvider* provider, u32 token, const sockaddr_in& local_addr,
                       const sockaddr_in& remote_addr, u32 send_size, u32 recv_size)
    : provider_(provider),
      token_(token),
      local_addr_(local_addr),
      remote_addr_(remote_addr),
      sock_send_buf_size_(send_size),
      sock_recv_buf_size_(recv_size),
      queues_(std::make_shared<UdpQueues>()) {}

UdpSession::~UdpSession() {
  LSP_LOG(0, "[UDP] UdpSession::Cleanup, token=%u,local(%s:%u)", token_,
          common::IpToString(local_addr_.sin_addr.s_addr).c_str(), ntohs(local_addr_.sin_port));
  first_remote_session_ = nullptr;
  remote_sessions_.clear();
}

bool UdpSession::Init() noexcept {
  LSP_LOG(0, "[UDP] UdpSession::Init, token=%u, remote_addr(%s:%u)", token_,
          common::IpToString(remote_addr_.sin_addr.s_addr).c_str(), ntohs(remote_addr_.sin_port));
  if (first_remote_session_ == nullptr) {
    first_remote_session_ = CreateRemoteSession(remote_addr_, true);
  }
  if (first_remote_session_ == nullptr) return false;
  if (!GetMending().GivesEachPeerAPort()) return true;
  try {
    peer_sockets_ = std::make_unique<PeerSockets>(this, local_addr_, &queues_->peer_ports);
  } catch (...) {
    return false;
  }
  return peer_sockets_->Open(remote_addr_);
}

bool UdpSession::GetRelayAddr(sockaddr_in* out) const noexcept {
  if (first_remote_session_ == nullptr || first_remote_session_->local_port() == 0) return false;
  if (out == nullptr) return false;
  *out = {};
  out->sin_family = AF_INET;
  out->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  out->sin_port = first_remote_session_->local_port();
  return true;
}

bool UdpSession::GetRelayAddrFor(const sockaddr_in& destination, sockaddr_in* out) noexcept {
  if (!GetRelayAddr(out)) return false;
  if (!HasPeerPorts()) return true;
  return peer_sockets_->Open(destination) &&
         queues_->peer_ports.FindPort(destination, &out->sin_port);
}

bool UdpSession::IsOf(const sockaddr_in& game) const noexcept {
  return SameAddress(game, local_addr_);
}

UdpRemoteSession* UdpSession::CreateRemoteSession(const sockaddr_in& addr, bool bind) noexcept {
  LSP_LOG(5, "[UDP] UdpSession CreateRemoteSession game_server=%s:%u, token=%u",
          common::IpToString(addr.sin_addr.s_addr).c_str(), ntohs(addr.sin_port), token_);
  const u32 key = RemoteSessionKey(addr.sin_addr.s_addr, addr.sin_port);
  try {
    auto session = std::make_unique<UdpRemoteSession>(this, addr, local_addr_);
    if (!session->Init(bind)) return nullptr;
    // The caller has found none under the key.
    return remote_sessions_.try_emplace(key, std::move(session)).first->second.get();
  } catch (...) {
    return nullptr;
  }
}

u32 UdpSession::RemoteSessionKey(u32 ip, u16 port) const noexcept {
  u32 idc = 0;
  return provider_->SessionRoute()->GetGameIDC(ip, port, &idc, false) ? ip : 0;
}

UdpRemoteSession* UdpSession::FindRemoteSession(u32 ip, u16 port) const noexcept {
  auto found = remote_sessions_.find(ip);
  if (found == remote_sessions_.end()) found = remote_sessions_.find(RemoteSessionKey(ip, port));
  return found != remote_sessions_.end() ? found->second.get() : nullptr;
}

void UdpSession::RouteFromGame(const UdpPackage& package) noexcept {
  first_remote_session_->RouteFromGame(package);
}

void UdpSession::RouteToRemoteSession(const UdpPackage& package) noexcept {
  UdpRemoteSession* session =
      FindRemoteSession(package.addr.sin_addr.s_addr, package.addr.sin_port);
  if (session == nullptr) session = CreateRemoteSession(package.addr, false);
  if (session != nullptr) session->HandleLocalPacket(package);
}

void UdpSession::DeliverToGame(const UdpPackage& package) noexcept {
  if (first_remote_session_ == nullptr) return;
  if (HasPeerPorts()) {
    if (!closing_) peer_sockets_->SendToGame(package);
    return;
  }
  // A datagram is not passed on if the game could not learn its source.
  if (!recv_queue()->Push(package.data, package.valid_len, &package.addr)) return;
  first_remote_session_->SendToGame(package);
}

bool UdpSession::CanClose() noexcept {
  if (HasPeerPorts()) peer_sockets_->ReadAll();
  if (first_remote_session_ != nullptr) first_remote_session_->ReadRest();
  bool result = true;
  for (const auto& [key, session] : remote_sessions_) {
    if (!session->OwesServers()) continue;
    session->SetClosing();
    result = false;
  }
  if (!result) closing_ = true;
  return result;
}

bool UdpSession::OwesServers() const noexcept {
  return std::any_of(remote_sessions_.begin(), remote_sessions_.end(),
                     [](const auto& entry) { return entry.second->OwesServers(); });
}

void UdpSession::OnUpdate(u32 elapsed_ms) noexcept {
  for (const auto& [key, session] : remote_sessions_) session->OnUpdate(elapsed_ms);
  if (HasPeerPorts()) peer_sockets_->OnUpdate();
}

}  // namespace moru_vyr::lsp
