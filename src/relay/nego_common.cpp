#include "relay/nego_common.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <limits>
#include <system_error>

#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

// As strtoull reads a text of digits, which says of a number too large that in the host's errno.
u64 UserNumber(const AccConfig& config) noexcept {
  u64 number = 0;
  const auto read = std::from_chars(config.uin, std::end(config.uin), number);
  return read.ec == std::errc::result_out_of_range ? std::numeric_limits<u64>::max() : number;
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
