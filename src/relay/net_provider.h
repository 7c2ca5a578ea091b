// The relay of one protocol: named events for each side, a start and an end.
//
// The local side faces the game over the loopback interface, the remote side a node or the game
// server. Worker thread; GetLocalAddr from any thread, at any time. Nothing throws.
#pragma once
#include <winsock2.h>

#include <atomic>

#include "common/types.h"
#include "relay/relay_interfaces.h"

namespace moru_vyr::lsp {

class Route;

// A provider overrides what it needs.
class INetProvider {
 public:
  virtual ~INetProvider() = default;
  virtual void OnLocalServerAcceptable(SOCKET) noexcept {}
  virtual void OnLocalReadable(SOCKET) noexcept {}
  virtual void OnLocalWritable(SOCKET) noexcept {}
  virtual void OnLocalExcpetion(SOCKET) noexcept {}  // Kept: the log has the name, spelled so
  virtual void OnLocalClose(SOCKET) noexcept {}
  virtual void OnRemoteReadable(SOCKET) noexcept {}
  virtual void OnRemoteWritable(SOCKET) noexcept {}
  virtual void OnRemoteExcpetion(SOCKET) noexcept {}
  virtual void OnRemoteClose(SOCKET) noexcept {}
  // Makes the local socket. False: the provider is not started.
  virtual bool OnCreateLocalServer() noexcept { return true; }
  virtual void OnCloseLocalServer() noexcept {}
  virtual void OnUpdate(u32 /*elapsed_ms*/) noexcept {}
};

class NetProvider : public INetProvider {
 public:
  virtual void Start() noexcept;
  virtual void Shutdown() noexcept;

  // Starts the provider; returns whether it runs. Neither pointer is owned.
  bool Init(IRelaySocketMgr* mgr, Route* route) noexcept;
  void Uninit() noexcept { Shutdown(); }
  bool IsRunning() const noexcept { return running_; }

  // 127.0.0.1 and the local socket's port. Nothing for a null `out`.
  void GetLocalAddr(sockaddr_in* out) const noexcept;

 protected:
  bool running_ = false;
  IRelaySocketMgr* socket_mgr_ = nullptr;
  Route* route_ = nullptr;
  SOCKET local_socket_ = 0;  // the listener, or the datagram socket
  // Network order; 0 without a local socket. The worker writes it, and any thread may read it.
  std::atomic<u16> local_port_{0};
};

}  // namespace moru_vyr::lsp
