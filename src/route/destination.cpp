#include "route/destination.h"

#include <winsock2.h>

#include <algorithm>
#include <iterator>

#include "common/log.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kUnreachableDelayMs = 9999;

// The address as it is in memory, read on this little-endian machine: its first byte is the lowest.
struct InnerRange {
  u32 mask;
  u32 value;
};
constexpr InnerRange kInnerRanges[] = {
    {0xFF, 0x0A},      // 10.0.0.0/8
    {0xF0FF, 0x10AC},  // 172.16.0.0/12
    {0xFFFF, 0xA8C0},  // 192.168.0.0/16
    // Kept: not 100.64.0.0/10. Only one bit of the second byte is checked, so 100.192 to 100.255
    // are inner as well as 100.64 to 100.127.
    {0x40FF, 0x4064},
    {0xFF, 0x7F},  // 127.0.0.0/8
};

bool FindReachable(const ReachabilityTable& table, u32 game_idc) noexcept {
  if (game_idc == 0) return false;
  const u32 count = std::min(table.reach_count, kMaxReachRecords);
  for (u32 i = 0; i < count; ++i) {
    if (table.records[i].game_idc == game_idc) return table.records[i].delay < kUnreachableDelayMs;
  }
  return false;
}

}  // namespace

bool IsInnerIp(u32 ip) noexcept {
  return std::any_of(std::begin(kInnerRanges), std::end(kInnerRanges),
                     [ip](const InnerRange& range) { return (ip & range.mask) == range.value; });
}

bool IsExcludedPort(const AccConfigRecord& config, u16 port, i32 socket_type) noexcept {
  if (socket_type != SOCK_STREAM) return false;
  const u32 host_port = ntohs(port);
  const u32 count = std::min(config.excluded_port_count, kMaxExcludedPorts);
  for (u32 i = 0; i < count; ++i)
    if (config.excluded_ports[i] == host_port) return true;
  return false;
}

bool IsReachable(const ReachabilityTable* table, u32 game_idc) noexcept {
  if (table == nullptr) return false;
  const bool reachable = FindReachable(*table, game_idc);
  LSP_LOG(4, "[Route][IsReachable] proxy_idc(%u) to game_idc(%u) reachable=%s", table->proxy_idc,
          game_idc, reachable ? "true" : "false");
  return reachable;
}

}  // namespace moru_vyr::lsp
