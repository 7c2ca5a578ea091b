// The relay of datagram flows: a control port on the loopback interface, at which a game's socket
// asks for a relay by sending a message from itself, and a session for each socket that has one.
//
// The source address of the message says where the game's socket receives. The answer does not go
// over the network: the worker leaves it here and signals the event that the message names, and the
// requester takes it. The worker thread runs all operations except those that say otherwise.
// Nothing throws.
#pragma once
#include <winsock2.h>

#include <atomic>
#include <map>
#include <memory>

#include "common/lock.h"
#include "common/types.h"
#include "relay/net_provider.h"
#include "udp/live_queues.h"
#include "udp/relay_messages.h"
#include "udp/udp_package.h"
#include "udp/udp_session.h"
#include "udp/untold_ends.h"

namespace moru_vyr::lsp {

class UdpProvider final : public NetProvider {
 public:
  // `stopping` says whether the relay is being stopped, and outlives the provider.
  explicit UdpProvider(const std::atomic<bool>& stopping) noexcept : stopping_(stopping) {}

  // Any thread. Takes the answer to the open request of that token; false if there is none. An
  // answer can be taken once; if it is not taken, it stays until the token's next answer.
  bool GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept;

  // Any thread. See LiveQueues::Use.
  std::shared_ptr<UdpPackageQueue> UseQueue(const UdpPackageQueue* queue,
                                            u32 token) const noexcept {
    return live_queues_.Use(queue, token);
  }
  // Any thread. See LiveQueues::UsePorts.
  std::shared_ptr<PeerPorts> UsePeerPorts(u32 token) const noexcept {
    return live_queues_.UsePorts(token);
  }

  // Any thread, without a lock. Ends the session of a socket that was closed without a close
  // message, because the message could not be sent or the socket never got to use the session. Also
  // ends one that is still being asked for.
  void NoteUntoldEnd(u32 token) noexcept { untold_ends_.Add(token); }

  // For the sessions.
  IRelaySocketMgr* SessionMgr() const noexcept { return socket_mgr_; }
  Route* SessionRoute() const noexcept { return route_; }
  // Nodes are told of a link's end only while the relay runs.
  bool IsStopping() const noexcept { return stopping_.load(std::memory_order_relaxed); }
  // Takes the place of one more socket that stands for an address; false if there is none left.
  // Only half of the sockets that the relay can poll may do so: games with many peers must leave
  // room for connections.
  bool TakePeerSocket() noexcept;
  void GiveBackPeerSocket() noexcept { --peer_sockets_; }
  // Ends the session, at once or once its blocked datagrams have been sent; the session then calls
  // this again. This destroys the caller, too, if it is a part of the session.
  void CloseSession(u32 token) noexcept;

  // Whether any datagrams from the game wait here.
  bool OwesServers() const noexcept;

  void Uninit() noexcept;
  void OnReadable(SOCKET socket) noexcept override;
  void OnUpdate(u32 elapsed_ms) noexcept;

 private:
  bool OnCreateLocalServer() noexcept override;
  bool ReadPackage(SOCKET socket, UdpPackage* package) noexcept;
  void HandleLocalMessage(const UdpPackage& package) noexcept;
  void HandleOpenRequest(const ProtoRelayOpen& request, const sockaddr_in& game_addr) noexcept;
  UdpSession* FindWithPorts(u32 token, const sockaddr_in& game_addr) const noexcept;
  UdpSession* CreateSession(const ProtoRelayOpen& request, const sockaddr_in& game_addr) noexcept;
  UdpSession* Adopt(std::unique_ptr<UdpSession> session);
  void EndForgotten(u32 elapsed_ms) noexcept;
  void ResponseCreateSessionResult(const ProtoRelayOpen& answer, const sockaddr_in& game_addr,
                                   HANDLE event) noexcept;
  void StoreCreateResult(const ProtoRelayOpen& answer) noexcept;

  const std::atomic<bool>& stopping_;
  DatagramBuffer recv_buffer_;
  u32 peer_sockets_ = 0;
  u32 since_look_ms_ = 0;                                // for sessions whose socket is gone
  std::map<u32, std::unique_ptr<UdpSession>> sessions_;  // by token

  common::Mutex result_lock_;                     // guards create_results_; a leaf
  std::map<u32, ProtoRelayOpen> create_results_;  // by token

  LiveQueues live_queues_;
  UntoldEnds untold_ends_;
};

}  // namespace moru_vyr::lsp
