#include "quality/link_identity.h"

#include <winsock2.h>

#include <cstdio>

#include "common/net_text.h"

namespace moru_vyr::lsp {
namespace {

u32 HostPort(u32 port) noexcept { return ntohs(static_cast<u16>(port)); }

}  // namespace

void AccInfo::Format(char (&text)[kLinkTextSize]) const noexcept {
  std::snprintf(text, sizeof text, "%s-%u-%u-%s-%u", common::IpToString(game_ip).c_str(),
                HostPort(game_port), proxy_idc, common::IpToString(acc_ip).c_str(),
                HostPort(acc_port));
}

void ClientInfo::Format(char (&text)[kLinkTextSize]) const noexcept {
  std::snprintf(text, sizeof text, "%u-%u-%u-%s", header1, reserved, client_isp,
                common::IpToString(htonl(client_ip)).c_str());
}

}  // namespace moru_vyr::lsp
