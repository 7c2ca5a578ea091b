#include "stream/wake_socket.h"

#include "sockets/socket_helpers.h"
#include "stream/tcp_provider.h"

namespace moru_vyr::lsp {

void WakeSocket::Open(IRelaySocketMgr* mgr) noexcept {
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  if (s == INVALID_SOCKET) return;
  u16 port = 0;
  if (mgr == nullptr || !BindLoopbackPort(s, &port) || MakeNonBlocking(s) != 0) {
    closesocket(s);
    return;
  }
  mgr->AddSocket(s, this);
  common::Lock hold(lock_);
  address_.sin_family = AF_INET;
  address_.sin_port = port;
  address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socket_ = s;
}

void WakeSocket::Close(IRelaySocketMgr* mgr) noexcept {
  common::Lock hold(lock_);
  if (socket_ == INVALID_SOCKET) return;
  if (mgr != nullptr) mgr->RemoveSocket(socket_);
  CloseRelaySocket(socket_);
  socket_ = INVALID_SOCKET;
}

void WakeSocket::Wake() noexcept {
  common::Lock hold(lock_);
  if (socket_ == INVALID_SOCKET) return;
  const char nothing = 0;
  sendto(socket_, &nothing, sizeof nothing, 0, reinterpret_cast<const sockaddr*>(&address_),
         sizeof address_);
}

// Other programs may send here too; what they send is ignored.
void WakeSocket::OnReadable(SOCKET socket) noexcept {
  char dropped = 0;
  recv(socket, &dropped, sizeof dropped, 0);
  provider_->StartPostponed();
}

}  // namespace moru_vyr::lsp
