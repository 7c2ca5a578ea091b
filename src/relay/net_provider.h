// The relay of one protocol, as far as both are alike: it is the delegate of a local socket that
// the game reaches over the loopback interface.
//
// Worker thread; GetLocalAddr from any thread, at any time. Nothing throws.
#pragma once
#include <winsock2.h>

#include <atomic>

#include "common/types.h"
#include "relay/relay_interfaces.h"

namespace moru_vyr::lsp {

class Route;

class NetProvider : public IRelaySocketDelegate {
 public:
  // Starts the provider; returns whether it runs. Neither pointer is owned.
  bool Init(IRelaySocketMgr* mgr, Route* route) noexcept {
    socket_mgr_ = mgr;
    route_ = route;
    return OnCreateLocalServer();
  }

  // 127.0.0.1 and the local socket's port. Nothing for a null `out`.
  void GetLocalAddr(sockaddr_in* out) const noexcept {
    if (out == nullptr) return;
    *out = {};
    out->sin_family = AF_INET;
    out->sin_port = local_port_.load(std::memory_order_relaxed);
    out->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  }

  // The local socket is only read.
  void OnWritable(SOCKET) noexcept override {}
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

 protected:
  // Makes the local socket. False: the provider is not started.
  virtual bool OnCreateLocalServer() noexcept = 0;

  IRelaySocketMgr* socket_mgr_ = nullptr;
  Route* route_ = nullptr;
  SOCKET local_socket_ = 0;  // the listener, or the datagram socket
  // Network order; 0 without a local socket. The worker writes it, and any thread may read it.
  std::atomic<u16> local_port_{0};
};

}  // namespace moru_vyr::lsp
