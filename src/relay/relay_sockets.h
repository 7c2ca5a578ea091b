// The delegates of a provider's sockets: they turn the readiness of a socket into a named event.
// One object serves all sockets of its side, since it keeps no state about any of them.
#pragma once
#include <winsock2.h>

#include "relay/net_provider.h"
#include "relay/relay_interfaces.h"

namespace moru_vyr::lsp {

class RelaySocket : public IRelaySocketDelegate {
 public:
  // Before the first event; not owned.
  void SetProvider(NetProvider* provider) noexcept { provider_ = provider; }

 protected:
  NetProvider* provider_ = nullptr;
};

class TcpServerSocket final : public RelaySocket {
 public:
  void OnReadable(SOCKET socket) noexcept override { provider_->OnLocalServerAcceptable(socket); }
  void OnWritable(SOCKET) noexcept override {}
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}
};

class LocalRelaySocket final : public RelaySocket {
 public:
  void OnReadable(SOCKET socket) noexcept override { provider_->OnLocalReadable(socket); }
  void OnWritable(SOCKET socket) noexcept override { provider_->OnLocalWritable(socket); }
  void OnException(SOCKET socket) noexcept override { provider_->OnLocalExcpetion(socket); }
  void OnClose(SOCKET socket) noexcept override { provider_->OnLocalClose(socket); }
};

class RemoteRelaySocket final : public RelaySocket {
 public:
  void OnReadable(SOCKET socket) noexcept override { provider_->OnRemoteReadable(socket); }
  void OnWritable(SOCKET socket) noexcept override { provider_->OnRemoteWritable(socket); }
  void OnException(SOCKET socket) noexcept override { provider_->OnRemoteExcpetion(socket); }
  void OnClose(SOCKET socket) noexcept override { provider_->OnRemoteClose(socket); }
};

}  // namespace moru_vyr::lsp
