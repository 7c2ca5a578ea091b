#include "relay/nego_common.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <system_error>

#include "common/log.h"
#include "common/net_text.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

// Reads digits as strtoull does, which would report a number that is too large in the host's errno.
u64 UserNumber(const AccConfig& config) noexcept {
  u64 number = 0;
  const auto read = std::from_chars(config.uin, std::end(config.uin), number);
  return read.ec == std::errc::result_out_of_range ? std::numeric_limits<u64>::max() : number;
}

void LogIsp(NegoAsker asker, bool forced, SOCKET socket, u32 token, u32 client,
            u32 served) noexcept {
  if (asker == NegoAsker::kTcp) {
    LSP_LOG(5,
            forced ? "[TCP]CheckNegotiation isp not support, but force accl, client_isp=%x, "
                     "support_isps=%x, socket=%Id, token=%u"
                   : "[TCP]CheckNegotiation isp not support, client_isp=%x, support_isps=%x, "
                     "socket=%Id, token=%u",
            client, served, socket, token);
  } else if (asker == NegoAsker::kUdp) {
    LSP_LOG(5,
            forced ? "[UDP] UdpRemoteSession::CheckNegotiation isp not support, but force accl, "
                     "client_isp=%x, support_isps=%x, token=%u"
                   : "[UDP] UdpRemoteSession::CheckNegotiation isp not support, client_isp=%x, "
                     "support_isps=%x, token=%u",
            client, served, token);
  } else {
    LSP_LOG(5,
            forced ? "UdpSwitchRemoteSession::CheckNegotiation isp not support, but force accl, "
                     "client_isp=%x, support_isps=%x, token=%u"
                   : "[UDP] UdpSwitchRemoteSession::CheckNegotiation isp not support, "
                     "client_isp=%x, support_isps=%x, token=%u",
            client, served, token);
  }
}

}  // namespace

NegoRequest MakeNegoRequest(u32 game_ip, u16 game_port, u8 retry, const SessionGuid& guid,
                            const AccDecisionInfo& decision) noexcept {
  const AccConfig& config = *GetAccConfig();
  NegoRequest request;
  request.Init(kNegoVersion);
  request.body.flags = 0;
  request.body.retry = retry;
  request.body.uin = UserNumber(config);
  request.body.game_id_low = static_cast<u32>(config.game_id);
  request.body.game_ip = ntohl(game_ip);
  request.body.game_port = ntohs(game_port);
  request.body.guid = guid;
  request.body.last_node = {};
  request.body.game_idc = decision.game_idc;
  request.body.game_id = config.game_id;
  return request;
}

u32 CheckNegotiation(NegoAsker asker, SOCKET socket, u32 token, const NegoResponseBody& body,
                     AccDecisionInfo* decision) noexcept {
  RouteProxyInfo& proxy = decision->selected_proxy;
  const u32 client_isp = body.client_isp;
  const u32 served_isps = proxy.surport_isps;
  u32 reason = body.result;
  if (reason == 0 && (client_isp & served_isps) == 0) {
    const bool forced =
        decision->acc_reason == kReasonForceAuto || decision->acc_reason == kReasonForceManual;
    LogIsp(asker, forced, socket, token, client_isp, served_isps);
    if (!forced) reason = kNegoIspNotServed;
  }
  proxy.user_ip = htonl(body.client_ip);
  proxy.user_isp = client_isp;
  if (reason == 0) {
    GetTracker().RecordNegSuccess(socket, client_isp, htonl(body.client_ip), body.last_node.node_id,
                                  htonl(body.last_node.ip), decision);
  }
  return reason;
}

void LogNegotiated(NegoAsker asker, const NegoResponse& response, u32 token) noexcept {
  const NegoResponseBody& body = response.body;
  // A shorter body has no last node.
  const LastNodeInfo node = response.header.version < 2 ? LastNodeInfo{} : body.last_node;
  LSP_LOG(5,
          asker == NegoAsker::kTcp
              ? "[TCP] TcpNegotiation, NegotiationSuccess, accl_data_addr=%s:%u, client_ip=%s, "
                "client_isp=%u, accl_token=%u, last_node:(node_id=%d, ip=%s, port=%d, "
                "accl_token=%u), token=%u"
          : asker == NegoAsker::kUdp
              ? "[UDP] UdpRemoteSession::OnNegotiationSuccess, accl_data_addr=%s:%u, "
                "client_ip=%s, client_isp=%u, accl_token=%u, last_node:(node_id=%d, ip=%s, "
                "port=%d, accl_token=%u), token=%u"
              : "[UDP] UdpSwitchRemoteSession::OnNegotiationSuccess, accl_data_addr=%s:%u, "
                "client_ip=%s, client_isp=%u, accl_token=%u, last_node:(node_id=%d, ip=%s, "
                "port=%d, accl_token=%u), token=%u",
          common::IpToString(htonl(body.accl_data_ip)).c_str(), u32{body.accl_data_port},
          common::IpToString(htonl(body.client_ip)).c_str(), u32{body.client_isp},
          u32{body.accl_token}, int{node.node_id}, common::IpToString(htonl(node.ip)).c_str(),
          int{node.port}, u32{node.accl_token}, token);
}

ProxyAddrText::ProxyAddrText(const RouteProxyInfo& proxy) noexcept {
  std::memcpy(text, proxy.proxy_addr, sizeof proxy.proxy_addr);
}

sockaddr_in ProxyAddress(const RouteProxyInfo& proxy) noexcept {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = static_cast<u32>(inet_addr(ProxyAddrText(proxy).text));
  address.sin_port = htons(proxy.proxy_port);
  return address;
}

}  // namespace moru_vyr::lsp
