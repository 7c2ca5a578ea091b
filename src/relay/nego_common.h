// What negotiations over TCP and over UDP have in common.
//
// Worker thread only. Nothing throws.
#pragma once
#include <winsock2.h>

#include "abi/acc_decision_info.h"
#include "common/types.h"
#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "protocol/session_guid.h"

namespace moru_vyr::lsp {

// Why a negotiation failed. 1 to 255 are the node's own reasons to refuse; 206 is unused.
enum NegoFailure : u32 {
  kNegoSendFailed = 201,
  kNegoTimedOut = 202,
  kNegoBadHeader = 203,
  kNegoBadBody = 204,
  kNegoReceiveFailed = 205,
  kNegoIspNotServed = 207,
  kNegoUnreachable = 208,  // only where failed nodes are left: see Mending
};

// The request, in host order and in the newest form, for the game server at game_ip:game_port, both
// in network order. `retry` is the number of changes of node so far.
NegoRequest MakeNegoRequest(u32 game_ip, u16 game_port, u8 retry, const SessionGuid& guid,
                            const AccDecisionInfo& decision) noexcept;

// Who asked the node; the log lines depend on it.
enum class NegoAsker { kTcp, kUdp, kUdpSwitch };

// 0 if the node accepts, otherwise the reason for the refusal: the node's own, or
// kNegoIspNotServed. Stores in `decision` how the node sees the client, even after a refusal, and
// tells the Tracker of a success on `socket`.
u32 CheckNegotiation(NegoAsker asker, SOCKET socket, u32 token, const NegoResponseBody& body,
                     AccDecisionInfo* decision) noexcept;

// Logs an answer that was accepted.
void LogNegotiated(NegoAsker asker, const NegoResponse& response, u32 token) noexcept;

// The tables that the client program writes need not terminate their texts.
struct ProxyAddrText {
  explicit ProxyAddrText(const RouteProxyInfo& proxy) noexcept;
  char text[sizeof RouteProxyInfo::proxy_addr + 1] = {};
};

// The proxy's address for negotiations.
sockaddr_in ProxyAddress(const RouteProxyInfo& proxy) noexcept;

}  // namespace moru_vyr::lsp
