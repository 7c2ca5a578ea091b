// The trial of another node, while its parent keeps the game running over the old one.
//
// It negotiates from its own socket, is verified by a burst of probes and, if the node passes,
// carries what the game sends. The first game datagram from the new node proves it: then the parent
// takes over the link, and the trial is done. A trial that fails leaves the old node in place.
//
// The parent, a UdpRemoteSession, makes it and owns it, and ends it at the next turn of its timer
// once it is not active. Worker thread only. Nothing but the constructor throws.
#pragma once
#include "abi/report_records.h"
#include "relay/relay_interfaces.h"
#include "udp/node_link.h"

namespace moru_vyr::lsp {

class UdpRemoteSession;

enum class UdpSwitchState : u32 {
  kInit,
  kNegotiating,
  kVerifying,  // negotiated; the burst of probes runs
  kVerified,   // the parent sends through this link
  kFailed,     // final
  kDone,       // final
};

// The outcome of a trial, for the report on it.
enum class SwitchResult : i32 {
  kTakenOver = 0,
  kNoRoute = 1,
  kNotAsked = 2,  // the request could not leave at once
  kNegotiationFailed = 3,
  kVerificationFailed = 4,
  kNotOpen = 5,  // verified, but the configuration does not let game traffic move
};

class UdpSwitchRemoteSession final : public IRelaySocketDelegate {
 public:
  UdpSwitchRemoteSession(UdpRemoteSession* parent, const UdpFlow& flow);
  ~UdpSwitchRemoteSession() override;  // tells a node that was still on trial

  // Makes the socket. A failure shows when the request cannot be sent.
  void Init() noexcept;
  // Starts the trial. `decision` and `left` belong to the link that is to be left. A trial that
  // cannot start has ended when this returns.
  void StartSwitch(const AccDecisionInfo& decision, const AcclLinkInfo& left,
                   const RecoverySwitchRecord& report) noexcept;
  void OnUpdate(u32 elapsed_ms) noexcept;
  void SetClosing() noexcept;

  bool IsActive() const noexcept;
  bool IsVerified() const noexcept { return state_ == UdpSwitchState::kVerified; }
  // For the parent, once verified: see NodeLink::SendData. What this link loses is not known yet.
  bool SendData(const UdpPackage& package) noexcept { return link_.SendData(package, 0); }

  // --- the hand-over, in a call of the parent's TakeOver
  SOCKET sock() const noexcept { return link_.sock(); }
  // Gives link and decision to the parent, and returns how reports name the client.
  ClientInfo HandOver(NodeLink* link, AccDecisionInfo* decision) noexcept;

  void OnReadable(SOCKET socket) noexcept override;
  void OnWritable(SOCKET socket) noexcept override;  // may destroy the UdpSession, and this with it
  void OnException(SOCKET) noexcept override {}
  void OnClose(SOCKET) noexcept override {}

 private:
  void HandleNegoRecv(const UdpPackage& package) noexcept;
  void OnNegotiationFailed(u32 reason) noexcept;
  void NotifyVerifyResult(bool ok) noexcept;
  bool IsOverdue(u32 elapsed_ms) noexcept;
  void HandleAcclRecv(const UdpPackage& package) noexcept;
  bool HandleReply(const UdpPackage& package) noexcept;
  void Finish(UdpSwitchState state, SwitchResult result) noexcept;

  UdpRemoteSession& parent_;
  const UdpFlow& flow_;  // the parent's: nodes know the flow by it
  UdpSwitchState state_ = UdpSwitchState::kInit;
  bool closing_ = false;
  u32 waited_ms_ = 0;            // for the verdict, or for an answer to the game's datagrams
  RecoverySwitchRecord report_;  // why the flow wants to switch, completed here
  AccDecisionInfo decision_;     // the parent's, then with the new node
  NodeLink link_;
  ClientInfo client_info_;
  LinkWatch watch_;
};

}  // namespace moru_vyr::lsp
