// RecoverySwitch: the verdict on the link, and what follows from it.
#include <windows.h>

#include <cstdio>
#include <string_view>

#include "common/log.h"
#include "common/text.h"
#include "quality/real_route_recent_cycle_data.h"
#include "quality/recovery_switch.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

bool IsHigh(u32 delay, u32 limit) noexcept { return delay >= limit && delay != kDelayNotMeasured; }

// A text that does not fit is left out whole.
template <std::size_t N>
void SetWholeText(char (&field)[N], std::string_view text) noexcept {
  common::SetFieldText(field, text.size() < N ? text : std::string_view());
}

}  // namespace

bool RecoverySwitch::UpdateDelayValue(u32 delay_amp, u32 delay_avg, u8 relay_idx) noexcept {
  if (!enabled_) return false;
  LinkDataSet& section = link_data_[relay_idx == 1 ? 0 : 1];
  section.delay_amp = delay_amp;
  section.delay_avg = delay_avg;
  if (relay_idx == 1) return false;
  if (!IsHigh(delay_amp, config_.max_delay_amp) && !IsHigh(delay_avg, config_.max_delay_avg)) {
    return false;
  }
  LSP_LOG(0,
          "[RecoverySwitch::UpdateDelayValue]delay_amp=%d, delay_avg=%d, real_route_lost=%d, "
          "socket=%u, token=%u",
          delay_amp, delay_avg, section.lost, static_cast<u32>(socket_), token_);
  return !is_switch_session_;  // a link on trial is judged by its loss alone
}

std::optional<bool> RecoverySwitch::TryFireRealRouteLost() noexcept {
  if (!enabled_) return std::nullopt;
  const LinkDataSet& route = link_data_[1];
  // No answer at all leaves no range of numbers: that counts as loss.
  const bool is_loss = route.lost <= 100 || route.lost == kLostNoRange;
  const bool fire = is_loss && route.lost >= config_.max_real_route_lost_;
  if (fire) {
    LSP_LOG(0,
            "[RecoverySwitch::TryFireRealRouteLost]delay_amp=%d, delay_avg=%d, "
            "real_route_lost=%d, socket=%u, token=%u",
            route.delay_amp, route.delay_avg, route.lost, static_cast<u32>(socket_), token_);
  }
  return fire;
}

LinkRequest RecoverySwitch::Report() noexcept {
  if (IsBelowReportLimit()) return LinkRequest::kNone;
  last_report_tick_ = GetTickCount();
  ++calc_count_;
  if (link_type_ == 1) link_data_[0] = {};  // a single relay: there is no front section
  FillReport();
  Reset();
  if (!IsAllowSwitch()) {
    SubmitReport();
    return LinkRequest::kNone;
  }
  report_.need_switch = 1;
  LSP_LOG(0, "[RecoverySwitch]DoSwitch, count=%d, socket=%u, token=%u", switch_count_,
          static_cast<u32>(socket_), token_);
  return LinkRequest::kSwitch;
}

// Where a switch has begun, its session reports, once it knows how it ended.
void RecoverySwitch::SwitchAnswered(bool begun) noexcept {
  if (!begun) {
    SubmitReport();
    return;
  }
  ++switch_count_;
  last_switch_tick_ = GetTickCount();
}

void RecoverySwitch::SubmitReport() noexcept {
  GetTracker().SubmitRecoverySwitch(&report_);
  LSP_LOG(0, "[RecoverySwitch::Report]%s, socket=%u, token=%u", RecoveryRecordText(report_).c_str(),
          static_cast<u32>(socket_), token_);
}

void RecoverySwitch::FillReport() noexcept {
  report_ = {};
  RecoverySwitchRecord* const record = &report_;
  record->used = 1;
  record->game_id = game_id_;
  record->data_link_small_section_pack = static_cast<i32>(small_section_pack_);
  record->data_link_small_section_lost = static_cast<i32>(small_section_lost_);
  record->data_link_full_section_pack = static_cast<i32>(full_section_pack_);
  record->data_link_full_section_lost = static_cast<i32>(full_section_lost_);
  record->count = static_cast<i32>(calc_count_);
  record->proxy_idc = static_cast<i32>(proxy_idc_);
  record->elapse_time = GetTickCount() - start_tick_;
  u32 sent = 0;
  u32 received = 0;
  if (GetTracker().GetPacketCounts(socket_, &sent, &received)) {
    record->total_recv_pack = static_cast<i32>(received);
    record->total_send_pack = static_cast<i32>(sent);
  }
  record->link_type = static_cast<i32>(link_type_);
  SetWholeText(record->guid, guid_);
  SetWholeText(record->switch_condition, switch_condition_);
  char text[kLinkTextSize];
  acc_info_.Format(text);
  SetWholeText(record->acc_info, text);
  SetWholeText(record->client_info, client_info_);
  const auto& [front, full] = link_data_;
  std::snprintf(text, sizeof text, "%u-%u-%u-%u;%u-%u-%u-%u", front.lost, front.recv,
                front.delay_amp, front.delay_avg, full.lost, full.recv, full.delay_amp,
                full.delay_avg);
  LSP_LOG(0, "real route data set=%s", text);
  SetWholeText(record->fe_be, text);
}

void RecoverySwitch::UpdateRecoveryInfo() noexcept {
  if (!enabled_) return;
  if (link_type_ == 1) link_data_[0] = {};
  const auto& [front, full] = link_data_;
  char text[120];  // as much as a report holds: longer figures are cut
  constexpr u32 kNeedSwitch = 0, kSwitchResult = 0;  // only a report knows them
  std::snprintf(text, sizeof text, "%u-%u-%u-%u-%u-%u-%u-%u-%u-%u-%u-%u-%u-%u-%u", front.lost,
                front.recv, front.delay_amp, front.delay_avg, full.lost, full.recv, full.delay_amp,
                full.delay_avg, small_section_pack_, small_section_lost_, full_section_pack_,
                full_section_lost_, kNeedSwitch, kSwitchResult, calc_count_);
  LSP_LOG(0, "rs info=%s, link type=%d", text, link_type_);
  LSP_LOG(0, "rs recovery switch info=%s", text);
  GetTracker().SetRecoveryInfo(socket_, text);
}

RecoveryRecordText::RecoveryRecordText(const RecoverySwitchRecord& record) noexcept {
  std::snprintf(text_, sizeof text_,
                "game_id=%llu"
                ", data_link_small_section_pack=%d"
                ", data_link_small_section_lost=%d"
                ", data_link_full_section_pack=%d"
                ", data_link_full_section_lost=%d"
                ", need_switch=%d"
                ", switch_result=%d"
                ", count=%d"
                ", link type=%d"
                ", proxy_idc=%d"
                ", session_elapse_time=%u"
                ", session_recv_pack=%d"
                ", session_send_pack=%d"
                ", guid=%s"
                ", switch_condition=%s"
                ", acc_info=%s"
                ", client_info=%s"
                ", fe_be=%s",
                static_cast<unsigned long long>(record.game_id),
                record.data_link_small_section_pack, record.data_link_small_section_lost,
                record.data_link_full_section_pack, record.data_link_full_section_lost,
                record.need_switch, record.is_switch_succ, record.count, record.link_type,
                record.proxy_idc, record.elapse_time, record.total_recv_pack,
                record.total_send_pack, record.guid, record.switch_condition, record.acc_info,
                record.client_info, record.fe_be);
}

}  // namespace moru_vyr::lsp
