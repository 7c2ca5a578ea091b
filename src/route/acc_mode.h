// What acc_mode and manual_mode of the configuration mean together.
#pragma once
#include "common/types.h"
#include "route/acc_config_formats.h"

namespace moru_vyr::lsp {

inline constexpr u32 kAccModeNone = 0;       // no route is accelerated
inline constexpr u32 kAccModeSecondSet = 2;  // the second set of routes; manual choice is allowed

inline u32 RouteSetIndex(const AccConfigRecord& config) noexcept {
  return config.acc_mode == kAccModeSecondSet ? 1 : 0;
}

// Whether the user's own choice of proxies counts.
inline bool IsManualMode(const AccConfigRecord& config) noexcept {
  return config.acc_mode == kAccModeSecondSet && config.manual_mode != 0;
}

}  // namespace moru_vyr::lsp
