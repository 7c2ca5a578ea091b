// One link to a node: a socket, what was negotiated over it, and the game's datagrams on their way
// through it, wrapped for the node.
//
// The flow holds one, and the trial of another node holds its own. At the hand-over the flow's link
// takes over the trial's socket and everything that belongs to it.
//
// Worker thread only. Nothing throws. The destructor closes nothing: the owner of the link knows
// whether the socket is still in use.
#pragma once
#include <winsock2.h>

#include <optional>

#include "common/types.h"
#include "protocol/session_guid.h"
#include "protocol/udp_accl_header.h"
#include "quality/link_watch.h"
#include "udp/accl_link_info.h"
#include "udp/stored_package.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {

class UdpSession;

// What identifies a flow, for everything that works on it.
struct UdpFlow {
  UdpSession* session = nullptr;  // not owned; outlives the flow
  u32 token = 0;                  // of the game's socket
  sockaddr_in remote_addr = {};   // the destination for which the flow was made
  sockaddr_in local_addr = {};    // the game's socket
  SessionGuid guid;               // names the flow to nodes and in reports
};

class NodeLink {
 public:
  // `flow` outlives the link.
  NodeLink(const UdpFlow& flow, bool on_trial) noexcept : flow_(flow), on_trial_(on_trial) {}
  NodeLink(const NodeLink&) = delete;
  NodeLink& operator=(const NodeLink&) = delete;

  // --- socket
  // Creates it. False on failure.
  bool Open() noexcept;
  // Closes a socket that is not used anywhere else yet.
  void Discard() noexcept;
  SOCKET sock() const noexcept { return sock_; }
  bool IsGivenAway() const noexcept { return sock_ == kGivenAway; }
  // Takes over the other link's socket, numbers and blocked datagrams, which are sent after its
  // own. The caller closes the former socket.
  void Adopt(NodeLink* other) noexcept;

  // Refers to the same socket and node as the other link. What waits for room stays with the other.
  void CopyFrom(const NodeLink& other) noexcept;
  // Refers to no socket and no node.
  void Clear() noexcept;

  AcclLinkInfo& info() noexcept { return info_; }
  const AcclLinkInfo& info() const noexcept { return info_; }

  // --- negotiation (node_link_negotiation.cpp)
  // Asks the selected proxy of the decision. `left`, which may be null, is the link to be replaced.
  // Returns 0 or the Winsock error; WSAEWOULDBLOCK if the request waits for room.
  u32 SendRequest(const AccDecisionInfo& decision, u8 retry, const LastNodeInfo* left) noexcept;
  // No value if the datagram is not the node's answer. 0 if the node accepts: info() is then filled
  // in. Otherwise the reason for the failure. See CheckNegotiation for `decision`.
  std::optional<u32> TakeAnswer(const UdpPackage& package, AccDecisionInfo* decision,
                                NegoResponse* response) noexcept;
  // Whether that error of the link's socket means that the node will not answer.
  bool IsUnreachable(SOCKET socket, u32 error) const noexcept;
  // One step of the timer. True if the time for an answer had run out before it.
  bool IsAnswerOverdue(u32 elapsed_ms, u32 limit_ms) noexcept;
  // Tells the Tracker why there is no link, after so many attempts.
  void RecordNegFailed(u32 reason, const AccDecisionInfo& decision, u32 attempts) const noexcept;
  // Starts `watch` on this link and its socket.
  void StartWatch(LinkWatch* watch, const AccDecisionInfo& decision,
                  const ClientInfo& client_info) const noexcept;
  // Asks the loop for the update that `watch` needs before the timer's.
  void AskForUpdate(const LinkWatch& watch) const noexcept;

  // --- sending; what would block waits for room and counts as an error for the statistics
  // A game datagram, wrapped; the header is written into the kWrapRoom bytes in front of it. False
  // if it is too long to be wrapped, and then nothing is sent.
  bool SendData(const UdpPackage& package, u8 lost) noexcept;
  // A game datagram as it is, to its own destination.
  void SendBare(const UdpPackage& package) noexcept;
  // A datagram through a socket that is not the link's.
  void SendThrough(SOCKET socket, const UdpPackage& package, const sockaddr_in& to) noexcept {
    Send(socket, package.data, package.valid_len, to, true);
  }
  // Tells the node that the flow is leaving it.
  void SendEnd() noexcept;
  // Tells the same to a node that has accepted too late, with the numbers of its answer. False if
  // the datagram is not an answer.
  bool EndLateAnswer(SOCKET through, const UdpPackage& package) noexcept;

  bool HasBlocked() const noexcept { return !blocked_.empty(); }
  // Called when there is room. Kept: a datagram that cannot be sent stays in front, whatever the
  // reason, and waits until another one is blocked. True if the last one has been sent.
  bool FlushBlockedPackages() noexcept;
  // Called by the timer. Asks for room again; see Mending::RetriesDatagrams.
  void RetryBlocked() const noexcept;

  // --- receiving
  // Reads the socket's next datagram into `buffer`. False if there is none; *error says why.
  bool ReadPackage(SOCKET socket, DatagramBuffer* buffer, UdpPackage* package,
                   int* error) const noexcept;
  // Guard: after the first datagram of a pass another read of a socket that could not be made
  // non-blocking would stop the worker until something arrives.
  bool WaitsToRead() const noexcept { return waits_to_read_; }
  bool IsFromNode(const UdpPackage& package) const noexcept {
    return SameAddress(package.addr, info_.data_addr);
  }
  // Reads the header of a datagram from the node; false if it has none.
  bool Unwrap(const UdpPackage& package, UdpAcclHeader* header) const noexcept;
  void LogProbeAnswer() const noexcept;

 private:
  static constexpr SOCKET kGivenAway = 0;

  bool Wrap(const UdpPackage& package, u8 lost) noexcept;
  void SendEndOf(AcclLinkInfo* info, SOCKET through) noexcept;
  u32 Send(SOCKET through, const void* data, u32 len, const sockaddr_in& to,
           bool may_wait) noexcept;

  const UdpFlow& flow_;
  const bool on_trial_;
  SOCKET sock_ = INVALID_SOCKET;
  bool waits_to_read_ = false;
  AcclLinkInfo info_;
  u64 nego_start_ms_ = 0;    // of the last request, in milliseconds since 1970
  u32 nego_elapsed_ms_ = 0;  // since then, by the timer
  StoredPackages blocked_;   // waiting for room
};

}  // namespace moru_vyr::lsp
