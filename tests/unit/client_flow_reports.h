// Reports about one flow as several tests tell them, one after the other.
#pragma once
#include <string>

#include "client/watch/flow_book.h"
#include "route/decision.h"
#include "tests/unit/client_reports.h"

namespace test {

inline bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

inline client::Report DecisionReport(const char* guid, int32_t reason, uint64_t time_ms = 0) {
  return ReportOf(client::kDecisionReport, Decision(guid, reason), time_ms);
}

inline client::Report TrafficReport(const moru_vyr::lsp::CommInfoRecord& record,
                                    uint64_t time_ms = 0) {
  return ReportOf(client::kCommunicationReport, record, time_ms);
}

inline client::Report FailureReport(const char* guid, int32_t result, uint64_t time_ms = 0) {
  moru_vyr::lsp::NegRetRecord record;
  record.neg_type = 1;
  record.nego_result = result;
  record.proxy_idc = 1;
  record.elapsed_ms = 5003;
  record.nego_count = 2;
  record.game_port = 7000;
  common::SetFieldText(record.game_ip, "198.51.100.10");
  common::SetFieldText(record.proxy_ip, "198.51.100.20");
  record.proxy_port = 9000;
  common::SetFieldText(record.guid, guid);
  return ReportOf(client::kNegotiationResultReport, record, time_ms);
}

inline client::Report SwitchReport(const char* guid, int32_t need, int32_t outcome) {
  moru_vyr::lsp::RecoverySwitchRecord record;
  record.need_switch = need;
  record.is_switch_succ = outcome;
  record.proxy_idc = 7;
  record.data_link_small_section_lost = 101;
  record.data_link_full_section_lost = 23;
  common::SetFieldText(record.guid, guid);
  return ReportOf(client::kRecoverySwitchReport, record);
}

// --- a flow that moves: what a node on trial answers comes without the flow's guid ---

inline client::Report NegotiationReport(const char* guid, uint32_t node) {
  moru_vyr::lsp::RealNegoRecord record;
  common::SetFieldText(record.guid, guid);
  record.proxy_id = node;
  common::SetFieldText(record.proxy_ip, node == 1 ? "198.51.100.20" : "198.51.100.21");
  record.proxy_port = 9000;
  record.game_ip = 0xc633640a;
  record.game_port = 7000;
  return ReportOf(client::kRealNegotiationReport, record);
}

inline client::Report DecisionFor(const char* guid, uint32_t node, const char* name) {
  auto info = Decision(guid, moru_vyr::lsp::kReasonAcce);
  info.selected_proxy.proxy_idc = node;
  common::SetFieldText(info.selected_proxy.proxy_name, name);
  common::SetFieldText(info.selected_proxy.proxy_addr,
                       node == 1 ? "198.51.100.20" : "198.51.100.21");
  return ReportOf(client::kDecisionReport, info);
}

inline client::Report TroubleReport(int32_t count, int32_t need, int32_t outcome) {
  client::Report report = SwitchReport("g", need, outcome);
  auto record = report.As<moru_vyr::lsp::RecoverySwitchRecord>();
  record.count = count;
  return ReportOf(client::kRecoverySwitchReport, record);
}

inline client::Report Bytes(uint32_t life, uint32_t bytes) {
  moru_vyr::lsp::CommInfoRecord record = Traffic("g", life);
  record.total_sent_bytes = bytes;
  return TrafficReport(record);
}

inline client::FlowBook OnTrial() {
  client::FlowBook book;
  book.Add(DecisionFor("g", 1, "north"));
  book.Add(NegotiationReport("g", 1));
  book.Add(Bytes(5000, 500));
  book.Add(DecisionFor("g", 2, "south"));
  book.Add(NegotiationReport("", 2));
  return book;
}

inline client::Report Probes(uint32_t life, uint32_t node, const moru_vyr::lsp::FineStats& front,
                             uint32_t bytes) {
  moru_vyr::lsp::CommInfoRecord record = Traffic("g", life);
  record.frontend_fine = front;
  record.total_sent_bytes = bytes;
  if (node == 2) common::SetFieldText(record.proxy_ip, "198.51.100.21");
  record.proxy_idc = node;
  return TrafficReport(record, life);
}

}  // namespace test
