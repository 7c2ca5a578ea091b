// The only way for a report into its channel: one operation for each kind.
//
// Each waits for the channel's mutex, which the client program or another game may hold, so only
// the Tracker's thread calls them. If the client has created no region, or one of another version,
// or if no slot is free, the report is lost: nothing is retried, queued or counted. Nothing throws.
#pragma once
#include "abi/acc_decision_info.h"
#include "abi/report_records.h"
#include "tracker/socket_qos_record.h"

namespace moru_vyr::lsp {

void ReportAcceDecisionInfo(const AccDecisionInfo& decision) noexcept;
void ReportCommunicationStatistic(const SocketQosRecord& socket) noexcept;
void ReportLogPath(const LogPathRecord& record) noexcept;
void ReportLspLoadedInfo(const LspLoadedRecord& record) noexcept;
void ReportNegRetValue(const NegRetRecord& record) noexcept;
void ReportRealNego(const RealNegoRecord& record) noexcept;
void ReportRecoverySwitch(const RecoverySwitchRecord& record) noexcept;

}  // namespace moru_vyr::lsp
