// The trial of another node, while its parent keeps the game running over the old one.
//
// It negotiates from a socket of its own, has a burst of probes for verification and, when the
// node passes, carries what the game sends. The first datagram of the game's that the new node
// sends proves it: then the parent takes over the socket and all that goes with it, and this has
// done its work. A trial that fails leaves the old node in place.
//
// The parent, a UdpRemoteSession, makes it and owns it, and ends it at the next turn of its timer
// once it is not active. The relay's UdpSession outlives both. Worker thread only. Nothing but the
// constructor throws.
#pragma once
#include <winsock2.h>

#include "abi/acc_decision_info.h"
#include "abi/report_records.h"
#include "common/types.h"
#include "protocol/session_guid.h"
#include "quality/link_identity.h"
#include "quality/real_route_speed_test.h"
#include "quality/recovery_switch.h"
#include "quality/switch_event.h"
#include "relay/relay_interfaces.h"
#include "udp/accl_link_info.h"
#include "udp/datagram_buffer.h"
#include "udp/stored_package.h"

namespace moru_vyr::lsp {

class UdpSession;

enum class UdpSwitchState : u32 {
  kInit,
  kNegotiating,
  kVerifying,  // negotiated; the burst of probes runs
  kVerified,   // the parent sends through this session
  kFailed,     // final
  kDone,       // final
};

// What becomes of a trial, in the report on it.
enum class SwitchResult : i32 {
  kTakenOver = 0,
  kNoRoute = 1,
  kNotAsked = 2,  // the request could not leave at once
  kNegotiationFailed = 3,
  kVerificationFailed = 4,
  kNotOpen = 5,  // verified, but the configuration does not let game traffic move
};

class UdpSwitchRemoteSession final : public IRelaySocketDelegate, public ISwitchEvent {
 public:
  UdpSwitchRemoteSession(UdpSession* session, const SessionGuid& guid,
                         const sockaddr_in& remote_addr, const sockaddr_in& local_addr);
  ~UdpSwitchRemoteSession() override;  // tells a node that was still on trial
  UdpSwitchRemoteSession(const UdpSwitchRemoteSession&) = delete;
  UdpSwitchRemoteSession& operator=(const UdpSwitchRemoteSession&) = delete;

  // Makes the socket. A failure shows when the request cannot be sent.
  void Init(u32 send_size, u32 recv_size) noexcept;
  // Starts the trial, from the state of the link that is to be left. A trial that cannot start has
  // ended when this returns. `notifier` is the parent.
  void StartSwitch(const AccDecisionInfo& decision, const SwitchProxyInfo& switch_route,
                   const LastNodeInfo& last_node, const RecoverySwitchRecord& report,
                   ISwitchEvent* notifier) noexcept;
  void OnUpdate(u32 elapsed_ms) noexcept;

  // Kept: false also between the handing over of the socket and the end of the trial.
  bool IsActive() const noexcept;
  // Sends for the parent: `len` bytes that carry `payload_len` of the game's.
  void SendData(const void* data, u32 len, const sockaddr_in& addr, u32 payload_len) noexcept;
  void SetClosing() noexcept;

  // --- the hand-over ---
  SOCKET GetSock() const noexcept { return sock_; }  // 0 once it is given away
  void DetachSock() noexcept;                        // and is not closed from here
  void GetAcclInfo(AcclLinkInfo* out) const noexcept { *out = accl_info_; }
  // The last datagram stays where it is, for as long as this lives.
  void TakeOver(AccDecisionInfo* decision, UdpPackage* package, StoredPackages* blocked,
                ClientInfo* client_info) noexcept;

  void OnReadable(SOCKET socket) noexcept override;
  void OnWritable(SOCKET socket) noexcept override;  // may end the UdpSession, and this with it
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

  bool FireSwitch(const RecoverySwitchRecord*) noexcept override { return false; }
  void NotifyVerifyResult(bool ok) noexcept override;
  void NotifySwitchState(int) noexcept override {}

 private:
  // udp_switch_remote_session.cpp
  void Finish(UdpSwitchState state, SwitchResult result) noexcept;
  void ReportSwitchResult(SwitchResult result) noexcept;
  void ReleaseSock() noexcept;

  // udp_switch_negotiation.cpp
  bool StartNegotiation(const sockaddr_in& game_addr, const LastNodeInfo& last_node) noexcept;
  void HandleNegoRecv(const UdpPackage& package) noexcept;
  void OnNegotiationSuccess(const NegoResponse& response) noexcept;
  void StartVerification() noexcept;
  void OnNegotiationFailed(u32 reason) noexcept;

  // udp_switch_transfer.cpp
  bool ReadPackage(UdpPackage* package) noexcept;
  void HandleAcclRecv(const UdpPackage& package) noexcept;
  bool UnWrapUdpAcclPackage(const UdpPackage& package) noexcept;
  void SendEndToAccl() noexcept;
  u32 SendTo(const void* data, u32 len, const sockaddr_in& addr, bool cache_on_block) noexcept;
  bool FlushBlockedPackages() noexcept;

  UdpSession* const session_;
  const u32 token_;
  const SessionGuid guid_;  // the parent's: nodes know the flow by it
  const sockaddr_in remote_addr_;
  const sockaddr_in local_addr_;
  ISwitchEvent* parent_notifier_ = nullptr;
  SOCKET sock_ = INVALID_SOCKET;
  UdpSwitchState state_ = UdpSwitchState::kInit;
  bool closing_ = false;
  RecoverySwitchRecord report_;  // why the parent wants to switch, completed here
  AccDecisionInfo decision_;     // the parent's, then with the new node
  AcclLinkInfo accl_info_;
  ClientInfo client_info_;
  u32 nego_elapsed_ms_ = 0;
  u64 nego_start_ms_ = 0;  // milliseconds since 1970
  DatagramBuffer recv_buffer_;
  UdpPackage recv_package_;
  StoredPackages blocked_packages_;
  RealRouteSpeedTest speed_test_;
  RecoverySwitch recovery_;
};

}  // namespace moru_vyr::lsp
