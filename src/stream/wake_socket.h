// Wakes the worker while it waits for its sockets: a datagram socket on the loopback interface that
// sends to itself.
//
// Wake may be called from any thread, everything else from the worker. Nothing throws.
#pragma once
#include <winsock2.h>

#include "common/lock.h"
#include "relay/relay_interfaces.h"

namespace moru_vyr::lsp {

class TcpProvider;

class WakeSocket final : public IRelaySocketDelegate {
 public:
  explicit WakeSocket(TcpProvider* provider) noexcept : provider_(provider) {}

  // Where this fails, Wake does nothing.
  void Open(IRelaySocketMgr* mgr) noexcept;
  void Close(IRelaySocketMgr* mgr) noexcept;
  void Wake() noexcept;

  void OnReadable(SOCKET socket) noexcept override;
  void OnWritable(SOCKET) noexcept override {}
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

 private:
  TcpProvider* const provider_;
  common::Mutex lock_;  // the socket is not closed while another thread sends from it; a leaf
  SOCKET socket_ = INVALID_SOCKET;
  sockaddr_in address_{};
};

}  // namespace moru_vyr::lsp
