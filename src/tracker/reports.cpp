// The reports that get a complete record from their caller.
#include "tracker/reports.h"

#include <winsock2.h>

#include "common/log.h"
#include "common/net_text.h"
#include "route/acc_config.h"
#include "tracker/report_slot.h"

namespace moru_vyr::lsp {
namespace {

unsigned long Long(u32 value) noexcept { return value; }

}  // namespace

void ReportAcceDecisionInfo(const AccDecisionInfo& decision) noexcept {
  // The network probe decides often, and its reports are not wanted.
  if (GetAccConfig()->game_id == kNetProbeGameId) return;
  DecisionSlot slot;
  constexpr int kSlots = DecisionSlot::kSlots;
  if (!slot.has_region()) {
    LSP_LOG(4, "[Tracker] ReportAcceDecisionInfo failed, mem_addr=null");
    return;
  }
  if (!slot.is_free()) {
    LSP_LOG(4, "[Tracker] ReportAcceDecisionInfo failed,  can't find free position, array_size=%d",
            kSlots);
    return;
  }
  slot.Write(decision);
  LSP_LOG(0, "[Tracker] ReportAcceDecisionInfo success,  idx=%d, array_size=%d, pid=%d, sock=%d",
          slot.index(), kSlots, static_cast<int>(decision.process_id),
          static_cast<int>(decision.socket));
}

void ReportLogPath(const LogPathRecord& record) noexcept {
  LogPathSlot slot;
  if (!slot.IsFreeOr("[Tracker] ReportLogPath failed, mem_addr=null",
                     "[Tracker] ReportLogPath failed.can't find free position."))
    return;
  slot.Write(record);
  LSP_LOG(0, "[Tracker] ReportLogPath success, game_id=%llu,  log_path=%s",
          static_cast<unsigned long long>(record.game_id), record.log_path);
}

// Kept: it fails in the words of the previous report.
void ReportLspLoadedInfo(const LspLoadedRecord& record) noexcept {
  LoadedSlot slot;
  if (!slot.IsFreeOr("[Tracker] ReportLogPath failed, mem_addr=null",
                     "[Tracker] ReportLogPath failed.can't find free position."))
    return;
  slot.Write(record);
  LSP_LOG(0, "[Tracker] ReportLspLoadedInfo success, game_id=%llu,  process_name=%s, is_x64=%s",
          static_cast<unsigned long long>(record.game_id), record.process_name,
          record.is_x64 != 0 ? "true" : "false");
}

void ReportNegRetValue(const NegRetRecord& record) noexcept {
  NegotiationResultSlot slot;
  if (!slot.IsFreeOr("[Tracker] ReportNegRetValue failed, mem_addr=null",
                     "[Tracker] ReportNegRetValue failed. can't find free position."))
    return;
  slot.Write(record);
  LSP_LOG(4, "[Tracker] ReportNegRetValue success.");
}

void ReportRealNego(const RealNegoRecord& record) noexcept {
  RealNegotiationSlot slot;
  if (!slot.IsFreeOr("[SocketQosHelper] ReportRealNego failed, mem_addr=null",
                     "[SocketQosHelper]ReportRealNego failed.can't find free position."))
    return;
  slot.Write(record);
  LSP_LOG(0,
          "[SocketQosHelper] ReportRealNego success, stamp=%lu,game_id=%llu, user_ip=%s, "
          "user_isp=%lu, guid=%s, proxy_id=%lu, proxy_ip=%s,proxy_port=%lu, last_node_id=%lu, "
          "last_node_ip=%s, game_ip=%s,game_port=%lu",
          Long(record.stamp), static_cast<unsigned long long>(record.game_id),
          common::IpToString(record.user_ip).c_str(), Long(record.user_isp), record.guid,
          Long(record.proxy_id), record.proxy_ip, Long(record.proxy_port),
          Long(record.last_node_id), common::IpToString(record.last_node_ip).c_str(),
          common::IpToString(htonl(record.game_ip)).c_str(), Long(record.game_port));
}

void ReportRecoverySwitch(const RecoverySwitchRecord& record) noexcept {
  RecoverySwitchSlot slot;
  if (!slot.IsFreeOr("[SocketQosHelper] ReportRecoverySwitch failed, mem_addr=null",
                     "[SocketQosHelper]ReportRecoverySwitch failed.can't find free position."))
    return;
  slot.Write(record);
  LSP_LOG(0,
          "[SocketQosHelper] ReportRecoverySwitch success, game_id=%llu, "
          "data_link_small_section_pack=%d, data_link_small_section_lost=%d, "
          "data_link_full_section_pack=%d, data_link_full_section_lost=%d, need_switch=%d, "
          "is_switch_succ=%d, count=%d, proxy_idc=%d, elapse_time=%u, total_recv_pack=%d, "
          "total_send_pack=%d, link_type=%d, guid=%s, switch_condition=%s, acc_info=%s, "
          "client_info=%s, fe_be=%s",
          static_cast<unsigned long long>(record.game_id), int{record.data_link_small_section_pack},
          int{record.data_link_small_section_lost}, int{record.data_link_full_section_pack},
          int{record.data_link_full_section_lost}, int{record.need_switch},
          int{record.is_switch_succ}, int{record.count}, int{record.proxy_idc},
          u32{record.elapse_time}, int{record.total_recv_pack}, int{record.total_send_pack},
          int{record.link_type}, record.guid, record.switch_condition, record.acc_info,
          record.client_info, record.fe_be);
}

}  // namespace moru_vyr::lsp
