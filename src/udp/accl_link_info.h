// One negotiated link to a node.
#pragma once
#include <winsock2.h>

#include "abi/acc_decision_info.h"
#include "abi/proxy_formats.h"
#include "common/types.h"
#include "protocol/last_node_info.h"
#include "protocol/nego_response.h"
#include "quality/link_identity.h"

namespace moru_vyr::lsp {

struct AcclLinkInfo {
  u32 accl_token = 0;
  u32 seq = 1;                 // of the next datagram on this link
  sockaddr_in nego_addr = {};  // where the negotiation goes
  sockaddr_in data_addr = {};  // where wrapped datagrams go
  LastNodeInfo last_node;
  SwitchProxyInfo switch_route;  // what a later switch chooses from

  // Takes over the node's answer. An answer of the first version has no last node.
  void Accept(const NegoResponse& response) noexcept {
    data_addr = {};
    data_addr.sin_family = AF_INET;
    data_addr.sin_addr.s_addr = htonl(response.body.accl_data_ip);
    data_addr.sin_port = htons(response.body.accl_data_port);
    accl_token = response.body.accl_token;
    last_node = response.header.version < 2 ? LastNodeInfo{} : response.body.last_node;
  }
};

// The names of the link and the client in reports.
inline AccInfo DescribeLink(const sockaddr_in& game, const AccDecisionInfo& decision,
                            const AcclLinkInfo& link) noexcept {
  const RouteProxyInfo& proxy = decision.selected_proxy;
  return {static_cast<u32>(game.sin_addr.s_addr),
          game.sin_port,
          proxy.proxy_idc,
          proxy.type,
          proxy.flag,
          static_cast<u32>(link.nego_addr.sin_addr.s_addr),
          link.nego_addr.sin_port};
}

inline ClientInfo DescribeClient(const AccDecisionInfo& decision,
                                 const NegoResponse& response) noexcept {
  return {decision.header1, 0, response.body.client_isp, response.body.client_ip};
}

inline bool SameAddress(const sockaddr_in& a, const sockaddr_in& b) noexcept {
  return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
}

}  // namespace moru_vyr::lsp
