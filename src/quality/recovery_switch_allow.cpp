// RecoverySwitch: what allows measuring, reporting and switching.
#include <windows.h>

#include <charconv>
#include <string_view>
#include <system_error>

#include "common/log.h"
#include "common/process_info.h"
#include "common/text.h"
#include "quality/recovery_switch.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

enum class ListAnswer { kListed, kNotListed, kNoList };

// An item that does not begin with a digit, or is too large for an id, makes the whole list
// invalid, even if the wanted number comes before it. Text behind the digits does not.
ListAnswer FindInList(std::string_view list, u64 wanted) noexcept {
  bool found = false;
  for (;;) {
    const std::size_t comma = list.find(',');
    const std::string_view piece = list.substr(0, comma);
    u64 number = 0;
    const auto [end, error] = std::from_chars(piece.data(), piece.data() + piece.size(), number);
    if (error != std::errc()) return ListAnswer::kNoList;
    found = found || number == wanted;
    if (comma == std::string_view::npos) break;
    list.remove_prefix(comma + 1);
  }
  return found ? ListAnswer::kListed : ListAnswer::kNotListed;
}

}  // namespace

bool RecoverySwitch::IsCalcOpen() const noexcept {
  const u32 mask = GetAccConfig()->link_switch_mask;
  if (mask == 0) return false;
  if (acc_info_.type > 1) return true;
  return (mask >> acc_info_.type & 1) != 0;
}

bool RecoverySwitch::IsGameListed() const noexcept {
  const AccConfig& config = *GetAccConfig();
  const u32 socket = static_cast<u32>(socket_);
  LSP_LOG(4, "[RecoverySwitch][Init]game id =%llu, acc idc=%u, gamelist=%s, socket=%u, token=%u",
          static_cast<unsigned long long>(game_id_), acc_info_.proxy_idc, config.list_text, socket,
          token_);
  const ListAnswer answer = FindInList(common::FieldText(config.list_text), game_id_);
  if (answer == ListAnswer::kListed) return true;
  if (answer == ListAnswer::kNoList) LSP_LOG(4, "[RecoverySwitch][Init]split_int fail");
  LSP_LOG(4, "[RecoverySwitch][IsAllowCalc]game id is not in Gamelist,socket=%u, token=%u", socket,
          token_);
  return false;
}

bool RecoverySwitch::IsAllowCalc() noexcept {
  const u32 socket = static_cast<u32>(socket_);
  if (!IsCalcOpen() && !common::IsSpeedTester()) {
    LSP_LOG(4, "[RecoverySwitch][IsAllowCalc]calc_open is false, socket=%u, token=%u", socket,
            token_);
    return false;
  }
  if (!IsGameListed()) return false;
  if ((acc_info_.flag & kLinkMayBeMeasured) == 0) {
    LSP_LOG(4,
            "[RecoverySwitch][IsAllowCalc], flag not allow calc, flag=%d, proxy_idc=%d, socket=%u, "
            "token=%u",
            acc_info_.flag, proxy_idc_, socket, token_);
    return false;
  }
  return true;
}

bool RecoverySwitch::IsBelowReportLimit() noexcept {
  const u32 socket = static_cast<u32>(socket_);
  if (calc_count_ >= config_.max_link_except_rep_num) {
    LSP_LOG(4,
            "[RecoverySwitch]IsBelowReportLimit: current calc_count %dis more than report "
            "limit(%d), socket=%u, token=%u",
            calc_count_, config_.max_link_except_rep_num, socket, token_);
    return true;
  }
  const u32 limit = config_.long_cycle * config_.lost_calc_unit_size;
  if (GetTickCount() - last_report_tick_ >= limit) return false;
  LSP_LOG(4,
          "[RecoverySwitch]IsBelowReportLimit could not happen within %d milliseconds, socket=%u, "
          "token=%u",
          limit, socket, token_);
  return true;
}

bool RecoverySwitch::IsAllowSwitch() noexcept {
  const u32 socket = static_cast<u32>(socket_);
  if (!has_owner_) {
    LSP_LOG(4, "IsAllowSwitch, switch_notifier_ pointer is null, socket=%u, token=%u", socket,
            token_);
    return false;
  }
  if (GetAccConfig()->switch_open == 0 && !common::IsSpeedTester()) {
    LSP_LOG(4, "[RecoverySwitch][IsAllowSwitch]switch_open is false, socket=%u, token=%u", socket,
            token_);
    return false;
  }
  if ((acc_info_.flag & kLinkMaySwitch) == 0) {
    LSP_LOG(4, "[RecoverySwitch]flag not allow switch, proxy_idc=%d ,socket=%u, token=%u",
            proxy_idc_, socket, token_);
    return false;
  }
  if (GetTickCount() - last_switch_tick_ < config_.link_switch_min_inter) {
    LSP_LOG(4,
            "[RecoverySwitch]switching could not happen within %dms, proxy_idc=%d "
            ",socket=%u,token=%u",
            config_.link_switch_min_inter, proxy_idc_, socket, token_);
    return false;
  }
  if (switch_count_ >= config_.max_link_switch_count) {
    LSP_LOG(4,
            "[RecoverySwitch]switching count reaches top limit %d, proxy_idc=%d "
            ",socket=%u,token=%u",
            config_.max_link_switch_count, proxy_idc_, socket, token_);
    return false;
  }
  LSP_LOG(4, "[RecoverySwitch]switching is firing: count=%d, proxy_idc=%d ,socket=%u, token=%u",
          switch_count_, proxy_idc_, socket, token_);
  return true;
}

}  // namespace moru_vyr::lsp
