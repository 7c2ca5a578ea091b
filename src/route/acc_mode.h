// What the modes of the configuration mean together: net_mode, acc_mode and manual_mode.
#pragma once
#include <winsock2.h>

#include "abi/acc_config_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr u32 kAccModeNone = 0;       // no route is accelerated
inline constexpr u32 kAccModeSecondSet = 2;  // the second set of routes; manual choice is allowed

inline u32 RouteSetIndex(const AccConfigRecord& config) noexcept {
  return config.acc_mode == kAccModeSecondSet ? 1 : 0;
}

// What the modes say about a kind of socket, in the order of the checks.
enum class ModeVerdict {
  kNeedsAccMode,  // nothing is relayed without an acc_mode, and none is set
  kNotRelayed,    // this kind of socket is not relayed
  kMayRelay,      // so far; raw sockets get here without a further check
};

// socket_type as in the socket calls.
inline ModeVerdict ExamineModes(u32 net_mode, u32 acc_mode, i32 socket_type) noexcept {
  if ((net_mode & kNetModeRefuseWithoutAccMode) != 0 && acc_mode == kAccModeNone) {
    return ModeVerdict::kNeedsAccMode;
  }
  const u32 wanted = socket_type == SOCK_STREAM  ? kNetModeTcp
                     : socket_type == SOCK_DGRAM ? kNetModeUdp
                                                 : 0;
  return (net_mode & wanted) == wanted ? ModeVerdict::kMayRelay : ModeVerdict::kNotRelayed;
}

// Whether the user's own choice of proxies counts.
inline bool IsManualMode(const AccConfigRecord& config) noexcept {
  return config.acc_mode == kAccModeSecondSet && config.manual_mode != 0;
}

}  // namespace moru_vyr::lsp
