// The relay of TCP connections: a listener on the loopback interface that the game is connected to
// in place of its server, and a session for each connection.
//
// A session waits under the port of the game's socket until the listener accepts a connection from
// that port. Where connects are postponed, it reaches the far side first and waits for that
// connection then. What asks for sessions may be called from any thread; everything else runs on
// the worker. Nothing throws.
#pragma once
#include <winsock2.h>

#include <forward_list>
#include <map>
#include <memory>
#include <vector>

#include "common/lock.h"
#include "common/types.h"
#include "relay/net_provider.h"
#include "stream/postponed_connect.h"
#include "stream/tcp_session.h"
#include "stream/wake_socket.h"

namespace moru_vyr::lsp {

class TcpProvider final : public NetProvider {
 public:
  TcpProvider() : local_addrs_(1) {}

  // Prepares a connection of the game's `socket`, which is bound to `port` (network order), to
  // `addr`. On true the caller connects the socket to *out_addr, which stays valid. May wait for as
  // long as the worker takes to accept a connection and to decide its route. *created learns
  // whether the request is new. With `postponed`, a new session is on its way at once, and the
  // connect waits until that is decided.
  bool RequestTcpRelaySession(SOCKET socket, u16 port, const sockaddr_in* addr, sockaddr** out_addr,
                              int* out_len, u32 token, bool* created = nullptr,
                              std::shared_ptr<PostponedConnect> postponed = nullptr) noexcept;
  // Whether the sets have places for both sockets of one more session. Ask before the game's socket
  // is bound for the relay. May wait as RequestTcpRelaySession does.
  bool HasRoomForSession() noexcept;
  // The connect that was requested from that port has failed: no connection will come from it.
  void ForgetRequest(u16 port, u32 token) noexcept;

  // Any thread.
  PostponedConnects& postponed_connects() noexcept { return postponed_connects_; }
  // Starts the sessions of all postponed connects that have been asked for.
  void StartPostponed() noexcept;

  // For the sessions.
  IRelaySocketMgr* SessionMgr() const noexcept { return socket_mgr_; }
  Route* SessionRoute() const noexcept { return route_; }
  BlockPool* Blocks() noexcept { return &blocks_; }

  bool ConnectToRemoteServer(TcpSession* session) noexcept;
  // Ends the session and closes its sockets.
  void CloseObsoleteSession(TcpSession* session) noexcept;

  // Whether bytes from the game wait in any session.
  bool OwesServers() const noexcept;
  // From now on no connection from the game is accepted.
  void StopAccepting() noexcept { socket_mgr_->RemoveSocket(local_socket_); }

  void Uninit() noexcept;
  void OnReadable(SOCKET listen_socket) noexcept override;  // a connection from the game is there
  void OnUpdate(u32 elapsed_ms) noexcept;

 private:
  bool OnCreateLocalServer() noexcept override;
  bool Accept(SOCKET listen_socket, bool may_be_none) noexcept;
  void TakeIn(SOCKET accepted, const sockaddr_in& peer) noexcept;
  bool CreateNewSession(u16 port, const sockaddr_in& addr, u32 token,
                        std::shared_ptr<PostponedConnect> postponed) noexcept;
  void ForgetOther(u16 port, u32 token) noexcept;
  bool AddLocalAddr(u16 port) noexcept;
  TcpSession* Adopt(u16 peer_port) noexcept;
  bool MeetPostponed(u16 peer_port, SOCKET accepted) noexcept;

  // The listener's addresses, the latest at the front. Guard: each start adds its own and none is
  // ever changed or freed: threads connect by the address that they were given, even if it is that
  // of an earlier start.
  std::forward_list<sockaddr_in> local_addrs_;  // guarded by pending_lock_

  // These two outlive the sessions. Sessions that wait for their accept have no blocks, so that the
  // pool is the worker's alone.
  BlockPool blocks_;
  PostponedConnects postponed_connects_;
  WakeSocket wake_socket_{this};

  // In the order of their accepts, so that equal runs serve them in equal order. There may be more
  // than the sets can poll: a session whose sockets found no place there is accepted all the same,
  // and waits until places become free.
  std::vector<std::unique_ptr<TcpSession>> sessions_;
  std::vector<TcpSession*> obsolete_sessions_;  // within one OnUpdate; has room for all

  // Guards pending_sessions_ and local_addrs_. Held across an accepted session's decision and
  // connect, so it is the outermost of all locks, and nothing may be held when it is taken.
  common::Mutex pending_lock_;
  std::map<u16, std::unique_ptr<TcpSession>> pending_sessions_;  // by port, network order
};

}  // namespace moru_vyr::lsp
