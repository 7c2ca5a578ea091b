#include "route/proxy_text.h"

#include <cstdio>
#include <string_view>

#include "common/log.h"
#include "common/text.h"

namespace moru_vyr::lsp {

ProxyText::ProxyText(const RouteProxyInfo& proxy) noexcept {
  const std::string_view addr = common::FieldText(proxy.proxy_addr);
  const std::string_view name = common::FieldText(proxy.proxy_name);
  std::snprintf(
      text_, sizeof text_,
      "type=%u, flag=%u, proxy_addr=%.*s, proxy_port=%u, proxy_idc=%u, proxy_isp=%u, "
      "proxy_name=%.*s, section1_delay=%u, section1_lost=%u, to_proxy_speed_isp=%u, "
      "to_proxy_speed_ip=%u, surport_isps=%u, version=%u, decision=%u, section2_delay=%u, "
      "section2_lost=%u, last_node=%u",
      proxy.type, proxy.flag, static_cast<int>(addr.size()), addr.data(),
      unsigned{proxy.proxy_port}, proxy.proxy_idc, proxy.proxy_isp, static_cast<int>(name.size()),
      name.data(), proxy.section1_delay, proxy.section1_lost, proxy.to_proxy_speed_isp,
      proxy.to_proxy_speed_ip, proxy.surport_isps, proxy.version, proxy.decision,
      proxy.section2_delay, proxy.section2_lost, proxy.last_node);
}

void LogSwitchProxyInfo(const SwitchProxyInfo& pair) noexcept {
  LSP_LOG(0, "[Route][switch_proxy_info] game_idc(%d), last_node_idc(%d): \n",
          static_cast<int>(pair.game_idc), static_cast<int>(pair.last_node));
  for (const RouteProxyInfo& proxy : pair.proxies) {
    if (proxy.proxy_idc != 0) LSP_LOG(0, "[proxy_info] %s", ProxyText(proxy).c_str());
  }
}

}  // namespace moru_vyr::lsp
