#include "quality/recovery_switch.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>

#include "common/log.h"
#include "common/loss.h"
#include "common/text.h"
#include "quality/link_thresholds.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

// A loss from fewer packets than that says nothing.
u8 DefCurLost(const LostCalc& calc, bool raw) noexcept {
  const bool too_few = calc.real_recv_pkgs() < calc.min_pkgs() && calc.last_lost() < kLostTooFew;
  return !raw && too_few ? kLostTooFew : calc.last_lost();
}

}  // namespace

void RecoverySwitch::Init(SOCKET socket, u32 token, std::string_view guid, const AccInfo& acc_info,
                          const ClientInfo& client_info, bool is_switch_session) noexcept {
  Reset();
  socket_ = socket;
  token_ = token;
  acc_info_ = acc_info;
  game_id_ = GetAccConfig()->game_id;
  is_switch_session_ = is_switch_session;
  // One that is too long for a report would be left out of it.
  const std::string_view kept_guid = guid.size() < sizeof guid_ ? guid : std::string_view();
  common::SetFieldText(guid_, kept_guid);
  client_info.Format(client_info_);
  proxy_idc_ = acc_info_.proxy_idc;
  start_tick_ = last_report_tick_ = GetTickCount();
  enabled_ = IsAllowCalc();
  if (!enabled_) return;

  config_.ReadConfig(is_switch_session);
  std::snprintf(switch_condition_, sizeof switch_condition_,
                "delay_amp>=%d;delay_avg>=%d;real_lost>=%d",
                static_cast<int>(config_.max_delay_amp), static_cast<int>(config_.max_delay_avg),
                static_cast<int>(config_.max_real_route_lost_));
  char config_text[RecoverySwitchConfig::kTextSize];
  config_.Format(config_text);
  LSP_LOG(0, "RecoverySwitch::Init, switch_condition=%s, %s", switch_condition_, config_text);

  InitCalcs();
  char acc_text[kLinkTextSize];
  acc_info_.Format(acc_text);
  LSP_LOG(0,
          "[RecoverySwitch::Init]init result=%s, socket=%u, token=%u, game_id=%llu, guid=%s, "
          "acc_info=%s, client_info=%s, socket=%u, token=%u",
          enabled_ ? "succ" : "fail", static_cast<u32>(socket_), token_,
          static_cast<unsigned long long>(game_id_), guid_, acc_text, client_info_,
          static_cast<u32>(socket_), token_);
}

void RecoverySwitch::InitCalcs() noexcept {
  constexpr u32 kClockStart = 0;  // of the clock that OnUpdate gives them
  constexpr u32 kMinRealRoutePkgs = 0;
  constexpr u32 kMinDataLinkPkgs = 20;
  const AccConfig& config = *GetAccConfig();
  const u16 unit = thresholds::LostCalcUnitSize(config);
  const u16 cycle = thresholds::LongCycle(config);
  const u16 wait = thresholds::RecoveryWindow(config);
  real_route_front_.Init(kClockStart, unit, cycle, wait, kMinRealRoutePkgs, true);
  real_route_full_.Init(kClockStart, unit, cycle, wait, kMinRealRoutePkgs, true);
  // Only the last result counts. All three get the same unit and cycle.
  enabled_ = data_link_.Init(kClockStart, unit, cycle, wait, kMinDataLinkPkgs, false) == 0;
}

void RecoverySwitch::Forget() noexcept {
  real_route_front_ = real_route_full_ = data_link_ = LostCalc();
}

void RecoverySwitch::Reset() noexcept {
  data_link_upload_lost_ = 0;
  std::fill(std::begin(link_data_), std::end(link_data_), LinkDataSet{});
  link_type_ = 0;
  small_section_pack_ = small_section_lost_ = 0;
  full_section_pack_ = full_section_lost_ = 0;
}

bool RecoverySwitch::OnUpdate() noexcept {
  if (!enabled_) return false;
  if (calc_count_ >= config_.max_link_except_rep_num) {
    LSP_LOG(0, "RecoverySwitch::OnUpdate, reach to the limit.");
    return false;
  }
  const u32 now = GetTickCount();
  if (now <= start_tick_) {
    start_tick_ = now;
    return true;
  }
  const u32 time_delta = now - start_tick_;
  const bool data_link_closed = data_link_.Update(time_delta);
  real_route_front_.Update(time_delta);
  const bool real_route_closed = real_route_full_.Update(time_delta);
  if (data_link_closed) LogUpdate("data_link", time_delta);
  if (real_route_closed) LogUpdate("real_route", time_delta);
  return true;
}

void RecoverySwitch::LogUpdate(const char* calc_name, u32 time_delta) const noexcept {
  LSP_LOG(0, "[RecoverySwitch::Update]%s, time_delta=%u, socket=%u, token=%u", calc_name,
          time_delta, static_cast<u32>(socket_), token_);
}

void RecoverySwitch::RealRouteAddOneSendPkg(u32 seq) noexcept {
  if (!enabled_) return;
  real_route_front_.AddOneSend(seq);
  real_route_full_.AddOneSend(seq);
  LSP_LOG(0, "[RecoverySwitch::RealRouteAddOneSendPkg]%s, pkg_seq=%u ,socket=%u, token=%u",
          "real_route", seq, static_cast<u32>(socket_), token_);
}

void RecoverySwitch::RealRouteAddOneRecvPkg(u32 seq, u8 relay_idx) noexcept {
  if (!enabled_) return;
  link_type_ = relay_idx == 0 ? 1 : 2;
  (relay_idx == 1 ? real_route_front_ : real_route_full_).AddOneRecv(seq);
  LSP_LOG(0, "[RecoverySwitch::RealRouteAddOneRecvPkg]%s, pkg_seq=%u ,socket=%u, token=%u",
          "real_route", seq, static_cast<u32>(socket_), token_);
}

void RecoverySwitch::DataLinkAddOneRecvPkg(u32 seq) noexcept {
  if (!enabled_) return;
  data_link_.AddOneRecv(seq);
  LSP_LOG(0, "[RecoverySwitch::DataLinkAddOneRecvPkg]%s, pkg_seq=%u ,socket=%u, token=%u",
          "data_link", seq, static_cast<u32>(socket_), token_);
}

// No effect on the figures: the node itself reports what it has received.
void RecoverySwitch::DataLinkAddOneSendPkg(u32 seq) noexcept {
  if (!enabled_) return;
  data_link_.AddOneSend(seq);
  LSP_LOG(0, "[RecoverySwitch::DataLinkAddOneSendPkg]%s, pkg_seq=%u ,socket=%u, token=%u",
          "data_link", seq, static_cast<u32>(socket_), token_);
}

void RecoverySwitch::SetUploadLost(u8 lost) noexcept {
  if (enabled_) data_link_upload_lost_ = lost;
}

// --- losses, in the forms that others ask for them ---

u8 RecoverySwitch::DataLinkGetDefCurLost(bool raw) noexcept {
  if (!enabled_) return 0;
  const u8 lost = DefCurLost(data_link_, raw);
  LSP_LOG(0, "[RecoverySwitch::DataLinkGetDefCurLost]%s, lost=%d, socket=%u, token=%u", "data_link",
          lost, static_cast<u32>(socket_), token_);
  return lost;
}

u8 RecoverySwitch::RealRouteGetDefCurLost(bool raw) noexcept {
  if (!enabled_) return 0;
  const u8 lost = DefCurLost(real_route_full_, raw);
  LSP_LOG(0, "[RecoverySwitch::RealRouteGetDefCurLost]%s, lost=%d, socket=%u, token=%u",
          "real_route", lost, static_cast<u32>(socket_), token_);
  return lost;
}

u8 RecoverySwitch::GetCurLost(const LostCalc& calc, u16 cycles, u32* need, u32* real,
                              bool include_current) const noexcept {
  const bool is_real_route = &calc != &data_link_;
  const u8 upload_lost = is_real_route ? 0 : data_link_upload_lost_;
  const u8 download_lost = calc.GetCurLost(cycles, need, real, include_current);
  // Above 100 the node does not know its loss, or sent nonsense. A code in place of our own loss is
  // combined as if it were a percentage, and comes out unchanged where the node's is 0.
  const u8 full_lost = upload_lost > 100
                           ? download_lost
                           : static_cast<u8>(common::CombineLoss(upload_lost, download_lost));
  LSP_LOG(0,
          "[GetCurLost]%s, cycle_size=%d, download_lost=%d, upload_lost=%d, full_lost=%d, "
          "need_recv_pkg=%u, real_recv_pkgs=%u,  socket=%u, token=%u",
          is_real_route ? "real_route" : "data_link", cycles, download_lost, upload_lost, full_lost,
          *need, *real, static_cast<u32>(socket_), token_);
  return full_lost;
}

u8 RecoverySwitch::GetDataLinkShortLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  const u8 lost = GetCurLost(data_link_, config_.short_cycle, need, real, include_current);
  small_section_pack_ = *real;
  small_section_lost_ = lost;
  return lost;
}

u8 RecoverySwitch::GetDataLinkLongLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  const u8 lost = GetCurLost(data_link_, config_.long_cycle, need, real, include_current);
  full_section_pack_ = *real;
  full_section_lost_ = lost;
  return lost;
}

u8 RecoverySwitch::GetRealRouteShortLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  return GetCurLost(real_route_full_, config_.short_cycle, need, real, include_current);
}

u8 RecoverySwitch::GetRealRouteLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  u8 lost = GetCurLost(real_route_front_, config_.long_cycle, need, real, include_current);
  link_data_[0].lost = lost;
  link_data_[0].recv = *real;
  lost = GetCurLost(real_route_full_, config_.long_cycle, need, real, include_current);
  link_data_[1].lost = lost;
  link_data_[1].recv = *real;
  return lost;
}

// --- the thresholds ------------------------------------------------------------------------------

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
