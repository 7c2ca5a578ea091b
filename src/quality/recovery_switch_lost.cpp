// RecoverySwitch: what the link loses, in the forms that others ask for it.
#include "common/log.h"
#include "common/loss.h"
#include "quality/recovery_switch.h"

namespace moru_vyr::lsp {
namespace {

// A loss from fewer packets than that says nothing.
u8 DefCurLost(const LostCalc& calc, bool raw) noexcept {
  const bool too_few = calc.real_recv_pkgs() < calc.min_pkgs() && calc.last_lost() < kLostTooFew;
  return !raw && too_few ? kLostTooFew : calc.last_lost();
}

}  // namespace

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

u8 RecoverySwitch::GetCurLost(const LostCalc& calc, u8 upload_lost, bool is_real_route, u16 cycles,
                              u32* need, u32* real, bool include_current) noexcept {
  const u8 download_lost = calc.GetCurLost(cycles, need, real, include_current);
  // Above 100 the node does not know its view, or told nonsense. A code in place of our own goes
  // through as if it were a percentage, and comes out as it went in where the node's is 0.
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
  const u8 lost = GetCurLost(data_link_, data_link_upload_lost_, false, config_.short_cycle, need,
                             real, include_current);
  small_section_pack_ = *real;
  small_section_lost_ = lost;
  return lost;
}

u8 RecoverySwitch::GetDataLinkLongLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  const u8 lost = GetCurLost(data_link_, data_link_upload_lost_, false, config_.long_cycle, need,
                             real, include_current);
  full_section_pack_ = *real;
  full_section_lost_ = lost;
  return lost;
}

u8 RecoverySwitch::GetRealRouteShortLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  return GetCurLost(real_route_full_, 0, true, config_.short_cycle, need, real, include_current);
}

u8 RecoverySwitch::GetRealRouteLost(u32* need, u32* real, bool include_current) noexcept {
  if (!enabled_) return kLostNeverComputed;
  link_data_[0].lost =
      GetCurLost(real_route_front_, 0, true, config_.long_cycle, need, real, include_current);
  link_data_[0].recv = *real;
  const u8 lost =
      GetCurLost(real_route_full_, 0, true, config_.long_cycle, need, real, include_current);
  link_data_[1].lost = lost;
  link_data_[1].recv = *real;
  return lost;
}

}  // namespace moru_vyr::lsp
