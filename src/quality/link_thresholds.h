// The thresholds of measuring and switching, as they are used everywhere: the values that the
// client program configured, raised to a minimum or replaced by a default if they would not work.
#pragma once
#include <algorithm>

#include "abi/acc_config_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp::thresholds {

// A setting of 0 means the default.
constexpr u32 OrDefault(u32 value, u32 preset) noexcept { return value != 0 ? value : preset; }

// Only the low half of the setting counts.
inline u16 LostCalcUnitSize(const AccConfigRecord& config) noexcept {
  return static_cast<u16>(OrDefault(config.lost_calc_unit_size & 0xFFFF, 1000));
}
inline u16 ShortCycle(const AccConfigRecord& config) noexcept {
  return static_cast<u16>(OrDefault(config.short_cycle, 2));
}
inline u16 LongCycle(const AccConfigRecord& config) noexcept {
  return static_cast<u16>(OrDefault(config.long_cycle, 5));
}
inline u16 RecoveryWindow(const AccConfigRecord& config) noexcept {
  return std::max<u16>(config.recovery_window_word, 50);
}
inline u32 DataLinkShortCyclePkg(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.data_link_short_cycle_pkg, 10);
}
inline u32 DataLinkShortCycleLost(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.data_link_short_cycle_lost, 10);
}
inline u32 DataLinkLongCyclePkg(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.data_link_long_cycle_pkg, 20);
}
inline u32 DataLinkLongCycleLost(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.data_link_long_cycle_lost, 2);
}
inline u32 NormTestInterval(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.norm_test_interval, 500);
}
inline u32 MaxValidTestDelay(const AccConfigRecord& config) noexcept {
  return OrDefault(config.max_valid_test_delay, 500);
}
inline u32 LinkSwitchMinInterMs(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.link_switch_min_inter, 30) * 1000;
}

// For a link that carries the game, whether or not another one is on trial.
inline u32 MaxRealRouteLost(const AccConfigRecord& config) noexcept {
  return std::max<u32>(config.max_real_route_lost, 20);
}

// The settings that apply to a link on trial.
inline u32 HighFreqTestInterval(const AccConfigRecord& config, bool on_trial) noexcept {
  return on_trial ? std::max<u32>(config.switching_high_freq_test_interval, 10)
                  : std::max<u32>(config.high_freq_test_interval, 50);
}
inline u32 HighFreqTestTime(const AccConfigRecord& config, bool on_trial) noexcept {
  return on_trial ? std::max<u32>(config.switching_high_freq_test_time, 50)
                  : std::max<u32>(config.high_freq_test_time, 1000);
}
inline u32 MaxDelayAmp(const AccConfigRecord& config, bool on_trial) noexcept {
  return on_trial ? OrDefault(config.switching_max_delay_amp, 20)
                  : std::max<u32>(config.max_delay_amp, 20);
}
inline u32 MaxDelayAvg(const AccConfigRecord& config, bool on_trial) noexcept {
  return on_trial ? OrDefault(config.switching_max_delay_avg, 50)
                  : std::max<u32>(config.max_delay_avg, 50);
}
inline u32 MaxRealRouteLost(const AccConfigRecord& config, bool on_trial) noexcept {
  return on_trial ? OrDefault(config.switching_max_real_route_lost, 1) : MaxRealRouteLost(config);
}

}  // namespace moru_vyr::lsp::thresholds
