// Which link and which client a report on link trouble is about.
#pragma once
#include <cstddef>

#include "common/types.h"

namespace moru_vyr::lsp {

// Room for either text, terminator included.
inline constexpr std::size_t kLinkTextSize = 120;

// Addresses and ports in network byte order.
struct AccInfo {
  u32 game_ip = 0;
  u32 game_port = 0;
  u32 proxy_idc = 0;
  u32 type = 0;  // of the proxy, as is flag
  u32 flag = 0;
  u32 acc_ip = 0;  // where the node negotiates
  u32 acc_port = 0;

  // "198.51.100.1-5000-7-198.51.100.2-6000"
  void Format(char (&text)[kLinkTextSize]) const noexcept;
};

// Bits of AccInfo::flag.
inline constexpr u32 kLinkMayBeMeasured = 2;
inline constexpr u32 kLinkMaySwitch = 4;

struct ClientInfo {
  u32 header1 = 0;  // of the decision; copied into reports, otherwise unused
  u32 reserved = 0;
  u32 client_isp = 0;
  u32 client_ip = 0;  // host byte order

  // "3-0-2-203.0.113.9"
  void Format(char (&text)[kLinkTextSize]) const noexcept;
};

}  // namespace moru_vyr::lsp
