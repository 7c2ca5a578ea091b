#include "quality/recovery_record_text.h"

#include <cstdio>

#include "abi/report_records.h"

namespace moru_vyr::lsp {

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
