// The traffic of one socket of the game towards one group of destinations: through a node that
// has been negotiated with, or directly, and if the link degrades through another node.
//
// The first game datagram asks the route policy. While a node is being asked, datagrams wait; in
// the end they all leave, wrapped for the node or bare. A link that fails later never goes back to
// the direct way: only the watcher of the link acts then, and the flow moves to another node.
//
// The first one of its UdpSession is bound, and its local socket is the game's relay port for as
// long as the session lives, through every change of node. The UdpSession owns it. Worker thread
// only. Nothing but the constructor throws.
#pragma once
#include <winsock2.h>

#include <memory>

#include "relay/relay_interfaces.h"
#include "udp/node_link.h"
#include "udp/read_pace.h"

namespace moru_vyr::lsp {

class UdpSwitchRemoteSession;

enum class UdpState : u32 {
  kInit,         // no datagram yet
  kNegotiating,  // a request is out; game datagrams wait
  kAccl,         // datagrams go to the node, wrapped
  kDirect,       // datagrams go to their destinations, bare
};

class UdpRemoteSession final : public IRelaySocketDelegate {
 public:
  // `remote_addr` is the destination for which it is made, `local_addr` the game's socket.
  UdpRemoteSession(UdpSession* session, const sockaddr_in& remote_addr,
                   const sockaddr_in& local_addr);
  ~UdpRemoteSession() override;  // tells the node of the end

  // Makes the local socket, with the buffer sizes of the game's.
  bool Init(bool bind) noexcept;
  u16 local_port() const noexcept { return local_port_; }  // network order; 0 unless bound

  // A game datagram; package.addr is its true destination.
  void HandleLocalPacket(const UdpPackage& package) noexcept;
  // Hands a game datagram to the remote session of its destination: this one or another.
  void RouteFromGame(const UdpPackage& package) noexcept;
  // Reads what the game may have sent, where a pass has not read to the end.
  void ReadRest() noexcept;
  // To the game, through the local socket. What would block waits for room.
  void SendToGame(const UdpPackage& package) noexcept;
  void OnUpdate(u32 elapsed_ms) noexcept;
  // Stops measuring, and ends the whole UdpSession once the blocked datagrams have left.
  void SetClosing() noexcept;
  // Whether datagrams from the game wait for room or, with fast fallback, for a node.
  bool OwesServers() const noexcept { return link_.HasBlocked() || OwesCachedPackages(); }

  // Starts the trial of another node. False if one is running. Otherwise the trial, even one that
  // cannot start, submits the report with its outcome.
  bool FireSwitch(const RecoverySwitchRecord& report) noexcept;
  // The trial's node has passed: game datagrams leave through it from here on.
  void OnVerified() noexcept;
  // Delivers what the other node has sent to the game, before or after the hand-over. `watch`
  // counts it; null if it says nothing about the link.
  void DeliverData(const UdpPackage& package, const UdpAcclHeader& header,
                   LinkWatch* watch) noexcept;
  // See Mending::StartsAnewAfterSwitch.
  bool StartsAnewAfterSwitch() const noexcept { return starts_anew_; }
  // The trial's node has sent this datagram for the game: its link becomes the flow's.
  void TakeOver(const UdpPackage& proof, const UdpAcclHeader& header) noexcept;

  void OnReadable(SOCKET socket) noexcept override;
  void OnWritable(SOCKET socket) noexcept override;  // may destroy the UdpSession, and this with it
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

 private:
  // A node that did not answer in time, and still may. Only with fast fallback.
  struct AskedNode {
    sockaddr_in addr = {};  // without a port: there is none here
    RouteProxyInfo proxy;
  };

  void Read(SOCKET socket, bool to_the_end) noexcept;
  void TellNodeOfEnd() noexcept;
  void HandleGamePacket(const UdpPackage& package) noexcept;
  void HandleAcclSend(const UdpPackage& package) noexcept;
  void HandleRemotePacket(const UdpPackage& package) noexcept;
  void HandleAcclRecv(const UdpPackage& package, const UdpAcclHeader& header) noexcept;
  void DeliverFromLeft(const UdpPackage& package) noexcept;
  bool HandleReply(const UdpPackage& package) noexcept;

  // udp_remote_session_node.cpp
  bool DecideAccl() noexcept;
  void StartNegotiation() noexcept;
  void HandleNegoRecv(const UdpPackage& package) noexcept;
  void OnNegotiated(const NegoResponse& response) noexcept;
  u32 AnswerLimitMs() const noexcept;
  void LeaveAskedNode(u32 reason) noexcept;
  void LeaveIfUnreachable(SOCKET socket, u32 error) noexcept;
  bool HandleLateAnswer(const UdpPackage& package) noexcept;
  bool TakeLateAnswer(const UdpPackage& package, AskedNode* node) noexcept;
  void OnNegotiationFailed(u32 reason) noexcept;
  bool ChangeAcclServer() noexcept;
  bool OwesCachedPackages() const noexcept;
  void FlushCachedPackages() noexcept;
  void EndTrial() noexcept;
  void LeaveNode() noexcept;
  void EndLeft() noexcept;
  void BeginAnew(SOCKET left_sock) noexcept;

  const UdpFlow flow_;
  SOCKET local_sock_ = INVALID_SOCKET;  // faces the game; the link's too, until a switch
  u16 local_port_ = 0;
  UdpState state_ = UdpState::kInit;
  bool closing_ = false;
  u32 nego_retry_ = 0;  // changes of node so far
  AskedNode overdue_[2];
  AccDecisionInfo decision_;
  ReadPace pace_;
  StoredPackages cached_packages_;  // waiting for the end of the negotiation
  NodeLink link_;                   // to the node that the flow goes through
  LinkWatch watch_;
  std::unique_ptr<UdpSwitchRemoteSession> trial_;
  NodeLink left_{flow_, false};  // to the node that the flow left last, until that node is told
  u32 left_ms_ = 0;              // since then
  const bool starts_anew_;
  AcclLinkInfo last_verified_;  // of the last node that was taken over after it had passed
};

}  // namespace moru_vyr::lsp
