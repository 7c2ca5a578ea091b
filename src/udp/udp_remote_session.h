// The traffic of one socket of the game towards one group of destinations: through a node that
// has been negotiated with, or directly, and if the link degrades through another node.
//
// The first game datagram asks the route policy. While a node is being asked, datagrams wait; in
// the end they all leave, wrapped for the node or bare. A link that fails later never goes back to
// the direct way: only the judge of the link acts then, and moves the flow to another node.
//
// The first one of its UdpSession is bound, and its local socket is the game's relay port for as
// long as the session lives, through every change of node. The UdpSession owns it. Worker thread
// only. Nothing but the constructor throws.
#pragma once
#include <winsock2.h>

#include <memory>
#include <string>

#include "abi/acc_decision_info.h"
#include "common/types.h"
#include "protocol/session_guid.h"
#include "quality/real_route_speed_test.h"
#include "quality/recovery_switch.h"
#include "quality/switch_event.h"
#include "relay/relay_interfaces.h"
#include "udp/accl_link_info.h"
#include "udp/datagram_buffer.h"
#include "udp/stored_package.h"

namespace moru_vyr::lsp {

class UdpSession;
class UdpSwitchRemoteSession;

enum class UdpState : u32 {
  kInit,         // no datagram yet
  kNegotiating,  // a request is out; game datagrams wait
  kAccl,         // datagrams go to the node, wrapped
  kDirect,       // datagrams go to their destinations, bare
};

class UdpRemoteSession final : public IRelaySocketDelegate, public ISwitchEvent {
 public:
  // `remote_addr` is the destination for which it is made, `local_addr` the game's socket.
  UdpRemoteSession(UdpSession* session, const sockaddr_in& remote_addr,
                   const sockaddr_in& local_addr);
  ~UdpRemoteSession() override;  // tells the node of the end
  UdpRemoteSession(const UdpRemoteSession&) = delete;
  UdpRemoteSession& operator=(const UdpRemoteSession&) = delete;

  // Makes the local socket, with the buffer sizes of the game's.
  bool Init(bool bind, u32 send_size, u32 recv_size) noexcept;
  u16 local_port() const noexcept { return local_port_; }  // network order; 0 unless bound

  // A game datagram; package.addr is its true destination.
  void HandleLocalPacket(const UdpPackage& package) noexcept;
  // 0, or the Winsock error. What would block waits for room if `cache_on_block` says so.
  // `to_local` sends through the local socket, else it is the current one.
  u32 SendTo(const void* data, u32 len, const sockaddr_in& addr, bool cache_on_block,
             bool to_local) noexcept;

  void OnUpdate(u32 elapsed_ms) noexcept;
  // Stops measuring, and ends the whole UdpSession once the blocked datagrams have left.
  void SetClosing() noexcept;
  bool HasBlockedPackages() const noexcept { return !blocked_packages_.empty(); }

  void OnReadable(SOCKET socket) noexcept override;
  void OnWritable(SOCKET socket) noexcept override;  // may end the UdpSession, and this with it
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

  bool FireSwitch(const RecoverySwitchRecord* report) noexcept override;
  void NotifyVerifyResult(bool) noexcept override {}  // only a session on trial is verified
  void NotifySwitchState(int state) noexcept override;

 private:
  // What the switch to another node has come to, for what is sent meanwhile.
  enum class SwitchState : u32 { kNone, kVerified, kTakenOver };

  // udp_remote_session.cpp
  bool CreateLocalSocket(bool bind) noexcept;
  void ReleaseSock() noexcept;
  SOCKET CurrentSocket() const noexcept { return switched_ ? remote_sock_ : local_sock_; }
  AcclLinkInfo& CurrentLink() noexcept { return switched_ ? switched_accl_info_ : accl_info_; }

  // udp_remote_session_negotiation.cpp
  bool DecideAccl() noexcept;
  void StartNegotiation(const sockaddr_in& game_addr) noexcept;
  void HandleNegoRecv(const UdpPackage& package) noexcept;
  void OnNegotiationSuccess(const NegoResponse& response) noexcept;
  void OnNegotiationFailed(u32 reason) noexcept;
  bool ChangeAcclServer() noexcept;
  void FlushCachedPackages() noexcept;

  // udp_remote_session_transfer.cpp
  bool ReadPackage(SOCKET socket, UdpPackage* package) noexcept;
  void HandleGamePacket(const UdpPackage& package) noexcept;
  void HandleDirectSend(const UdpPackage& package) noexcept;
  void HandleAcclSend(const UdpPackage& package) noexcept;
  bool WrapUdpProxyPacket(const UdpPackage& package, AcclLinkInfo* link, u8 lost,
                          u32* out_len) noexcept;
  void HandleRemotePacket(const UdpPackage& package) noexcept;
  void HandleDirectRecv(const UdpPackage& package) noexcept;
  void HandleAcclRecv(const UdpPackage& package) noexcept;
  bool UnWrapUdpAcclPackage(const UdpPackage& package, UdpPackage* out) noexcept;
  void SendEndToAccl() noexcept;
  void BlockPackage(const void* data, u32 len, const sockaddr_in& addr, bool to_local) noexcept;
  bool FlushBlockedPackages() noexcept;

  // udp_remote_session_link.cpp
  void StartSpeedTest() noexcept;
  void StartRecovery(u32 client_isp, u32 client_ip) noexcept;
  void CheckHighFreqTrigger(u32 elapsed_ms) noexcept;
  bool WantsHighFreqTest() noexcept;
  void BeginVerified() noexcept;
  void BeginTakenOver() noexcept;
  void ReplaceSock(SOCKET new_sock) noexcept;

  UdpSession* const session_;
  const u32 token_;
  const sockaddr_in remote_addr_;
  const sockaddr_in local_addr_;
  const std::string remote_ip_;
  const SessionGuid guid_;  // names the flow to nodes and in reports

  SOCKET local_sock_ = INVALID_SOCKET;   // faces the game always
  SOCKET remote_sock_ = INVALID_SOCKET;  // the same one, or after a switch the new node's
  u16 local_port_ = 0;
  u32 sock_send_buf_size_ = 0;
  u32 sock_recv_buf_size_ = 0;
  DatagramBuffer recv_buffer_;
  UdpPackage recv_package_;
  u8 send_buffer_[kDatagramBufferSize];  // a datagram is wrapped here
  StoredPackages cached_packages_;       // waiting for the end of the negotiation
  StoredPackages blocked_packages_;      // waiting for room in a socket

  UdpState state_ = UdpState::kInit;
  bool closing_ = false;
  AccDecisionInfo decision_;
  AcclLinkInfo accl_info_;           // the link to the first node
  AcclLinkInfo switched_accl_info_;  // the link after a switch
  bool switched_ = false;            // the latter is the current one, as is remote_sock_
  u32 nego_elapsed_ms_ = 0;
  u32 nego_retry_ = 0;     // changes of node so far
  u64 nego_start_ms_ = 0;  // milliseconds since 1970

  RealRouteSpeedTest speed_test_;
  RecoverySwitch recovery_;
  u32 high_freq_timer_ms_ = 0;
  std::unique_ptr<UdpSwitchRemoteSession> switch_session_;
  bool switch_session_calls_ = false;  // and so must not be ended
  SwitchState switch_state_ = SwitchState::kNone;
  AcclLinkInfo verified_accl_info_;  // of the node that passed, while that is switch_state_

  const u32 lost_calc_unit_size_;  // milliseconds
  const u32 data_link_short_cycle_pkg_;
  const u32 data_link_short_cycle_lost_;  // percent, as are the two below
  const u32 data_link_long_cycle_pkg_;
  const u32 data_link_long_cycle_lost_;
  const u32 max_real_route_lost_;
};

}  // namespace moru_vyr::lsp
