#include "quality/recovery_switch_config.h"

#include <cstdio>

#include "quality/link_thresholds.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {

void RecoverySwitchConfig::ReadConfig(bool is_switch_session) noexcept {
  const AccConfig& config = *GetAccConfig();
  short_cycle = thresholds::ShortCycle(config);
  long_cycle = thresholds::LongCycle(config);
  max_delay_amp = thresholds::MaxDelayAmp(config, is_switch_session);
  max_delay_avg = thresholds::MaxDelayAvg(config, is_switch_session);
  max_real_route_lost_ = thresholds::MaxRealRouteLost(config, is_switch_session);
  lost_calc_unit_size = thresholds::LostCalcUnitSize(config);
  max_link_except_rep_num = config.max_link_except_rep_num;
  link_switch_min_inter = thresholds::LinkSwitchMinInterMs(config);
  max_link_switch_count = config.max_link_switch_count;
  data_link_short_cycle_pkg_ = thresholds::DataLinkShortCyclePkg(config);
  data_link_short_cycle_lost = thresholds::DataLinkShortCycleLost(config);
  data_link_long_cycle_pkg_ = thresholds::DataLinkLongCyclePkg(config);
  data_link_long_cycle_lost_ = thresholds::DataLinkLongCycleLost(config);
}

void RecoverySwitchConfig::Format(char (&text)[kTextSize]) const noexcept {
  std::snprintf(text, sizeof text,
                "short_cycle              =%u"
                ", long_cycle             =%u"
                ", max_delay_amp          =%u"
                ", max_delay_avg          =%u"
                ", lost_calc_unit_size    =%u"
                ", max_link_except_rep_num=%u"
                ", link_switch_min_inter  =%u"
                ", max_link_switch_count  =%u"
                ", data_link_short_cycle_pkg_%u"
                ", data_link_short_cycle_lost%u"
                ", data_link_long_cycle_pkg_%u"
                ", data_link_long_cycle_lost_%u"
                ", max_real_route_lost_%u",
                u32{short_cycle}, u32{long_cycle}, max_delay_amp, max_delay_avg,
                lost_calc_unit_size, max_link_except_rep_num, link_switch_min_inter,
                max_link_switch_count, data_link_short_cycle_pkg_, data_link_short_cycle_lost,
                data_link_long_cycle_pkg_, data_link_long_cycle_lost_, max_real_route_lost_);
}

}  // namespace moru_vyr::lsp
