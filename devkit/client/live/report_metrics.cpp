#include "client/live/report_metrics.h"

#include <algorithm>
#include <utility>

#include "client/watch/report_fields.h"
#include "client/watch/report_words.h"
#include "route/decision.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;
using metrics::Labels;
using metrics::MetricsText;
using metrics::Type;

constexpr uint32_t kNotMeasured = 9999;
constexpr uint32_t kTwoRelays = 2;

std::string Protocol(int64_t type, int64_t stream, int64_t datagram) {
  return type == stream ? "tcp" : type == datagram ? "udp" : "other";
}

bool IsAccelerated(int32_t acc_reason) {
  return acc_reason == kReasonAcce || acc_reason == kReasonForceAuto ||
         acc_reason == kReasonForceManual;
}

const char* Outcome(const RecoverySwitchRecord& record) {
  static constexpr const char* kOutcomes[] = {"moved",   "no_node",   "not_sent",
                                              "refused", "no_better", "off"};
  if (record.need_switch == 0) return "not_allowed";
  const bool is_known = record.is_switch_succ >= 0 && record.is_switch_succ < 6;
  return is_known ? kOutcomes[record.is_switch_succ] : "unknown";
}

Labels With(const std::vector<const char*>& names, const std::vector<std::string>& values) {
  Labels labels;
  for (size_t i = 0; i < names.size(); ++i) labels.emplace_back(names[i], values[i]);
  return labels;
}

void WriteSeries(MetricsText* text, const char* name, const char* help,
                 const std::vector<const char*>& labels,
                 const std::map<std::vector<std::string>, uint64_t>& series) {
  text->Family(name, Type::kCounter, help);
  for (const auto& [values, count] : series) text->Sample(With(labels, values), count);
}

const std::vector<const char*> kFlowLabels = {"game_id", "protocol", "node_id", "node"};

// The means of a figure over the flows that have it, by the labels of the flows.
class Means {
 public:
  void Add(const std::vector<std::string>& labels, uint32_t milliseconds) {
    auto& [sum, count] = sums_[labels];
    sum += milliseconds;
    ++count;
  }

  void Write(MetricsText* text, const Labels& more = {}) const {
    for (const auto& [values, sum] : sums_) {
      Labels labels = With(kFlowLabels, values);
      labels.insert(labels.end(), more.begin(), more.end());
      text->Sample(labels, sum.first / 1000.0 / static_cast<double>(sum.second));
    }
  }

 private:
  std::map<std::vector<std::string>, std::pair<double, unsigned>> sums_;
};

}  // namespace

struct ReportMetrics::Family {
  const char* name;
  const char* help;
};

const ReportMetrics::Family ReportMetrics::kTrafficFamilies[] = {
    {"vyr_sent_bytes_total", "Bytes that games sent through nodes."},
    {"vyr_received_bytes_total", "Bytes that games received through nodes."},
    {"vyr_sent_packets_total",
     "Datagrams that games sent through nodes, or calls that sent bytes."},
    {"vyr_received_packets_total", "Datagrams that games received, or calls that received bytes."},
    {"vyr_send_errors_total", "Calls of games that failed to send."},
    {"vyr_receive_errors_total", "Calls of games that failed to receive."},
};

void ReportMetrics::Count(Series* series, Values labels, uint64_t by) {
  if (series->size() >= kMostSeries && !series->contains(labels)) {
    std::fill(labels.begin(), labels.end(), "other");
  }
  (*series)[std::move(labels)] += by;
}

void ReportMetrics::Add(const Report& report) {
  ++reports_[report.kind];
  latest_ms_ = std::max(latest_ms_, report.time_ms);
  switch (report.kind) {
    case kLoadedReport:
      return Count(&processes_, {std::to_string(report.As<LspLoadedRecord>().game_id)});
    case kDecisionReport:
      return AddDecision(report);
    case kRealNegotiationReport:
      return AddAgreement(report);
    case kNegotiationResultReport:
      return AddFailure(report);
    case kRecoverySwitchReport:
      return AddTrouble(report);
    case kCommunicationReport:
      return AddTraffic(report);
    default:
      return;
  }
}

void ReportMetrics::AddDecision(const Report& report) {
  const auto info = report.As<AccDecisionInfo>();
  Count(&decisions_,
        {std::to_string(info.game_id), Protocol(info.socket_type, 0, 1),
         IsAccelerated(info.acc_reason) ? "node" : "direct", std::to_string(info.acc_reason)});
}

void ReportMetrics::AddAgreement(const Report& report) {
  const auto record = report.As<RealNegoRecord>();
  Count(&agreements_, {std::to_string(record.game_id), std::to_string(record.proxy_id),
                       Endpoint(Text(record.proxy_ip), record.proxy_port)});
}

void ReportMetrics::AddFailure(const Report& report) {
  const auto record = report.As<NegRetRecord>();
  Count(&failures_,
        {std::to_string(record.game_id), Protocol(record.neg_type, 0, 1),
         std::to_string(record.proxy_idc), Endpoint(Text(record.proxy_ip), record.proxy_port),
         std::to_string(record.nego_result)});
}

void ReportMetrics::AddTrouble(const Report& report) {
  const auto record = report.As<RecoverySwitchRecord>();
  Count(&troubles_,
        {std::to_string(record.game_id), std::to_string(record.proxy_idc), Outcome(record)});
}

ReportMetrics::FlowState* ReportMetrics::Find(const std::string& guid) {
  if (flows_.size() >= kMostFlows && !flows_.contains(guid)) {
    flows_.erase(std::min_element(flows_.begin(), flows_.end(), [](const auto& a, const auto& b) {
      return a.second.time_ms < b.second.time_ms;
    }));
  }
  return &flows_[guid];
}

void ReportMetrics::AddTraffic(const Report& report) {
  const auto record = report.As<CommInfoRecord>();
  FlowState* const flow = Find(Text(record.guid_str));
  if (flow->ended) return;
  if (record.life < flow->life_ms) *flow = {};
  flow->labels = {std::to_string(record.game_id), Protocol(record.socket_type, 1, 2),
                  std::to_string(record.proxy_idc),
                  Endpoint(Text(record.proxy_ip), record.proxy_port)};
  flow->time_ms = report.time_ms;
  flow->life_ms = record.life;
  flow->ended = record.ended != 0;
  Grow(flow, record);
  flow->has_front = record.frontend_fine.total_recv != 0;
  flow->front_ms = record.frontend_fine.delay_avg;
  flow->has_back = record.topology_type == kTwoRelays && record.backend_fine.total_recv != 0;
  flow->back_ms = record.backend_fine.delay_avg;
  flow->direct_ms = report.direct ? report.direct->delay : record.direct_delay;
  flow->has_direct = flow->direct_ms != 0 && flow->direct_ms < kNotMeasured;
}

// Adds what came since the flow's last report. Bytes wrap at 32 bits; figures of probes start again
// where a flow has moved.
void ReportMetrics::Grow(FlowState* flow, const CommInfoRecord& record) {
  const bool has_back = record.topology_type == kTwoRelays;
  const std::array<uint32_t, kFigures> now = {record.total_sent_bytes,
                                              record.total_recv_bytes,
                                              record.total_sent_packets,
                                              record.total_recv_packets,
                                              record.total_sent_errors,
                                              record.total_recv_errors,
                                              record.frontend_fine.total_send,
                                              record.frontend_fine.total_recv,
                                              record.frontend_over.count,
                                              has_back ? record.backend_fine.total_send : 0,
                                              has_back ? record.backend_fine.total_recv : 0,
                                              has_back ? record.backend_over.count : 0};
  for (size_t i = 0; i < kFigures; ++i) {
    if (i >= kBackSent && !has_back) continue;
    const bool begins_anew = i >= kTrafficFigures && now[i] < flow->figures[i];
    const uint32_t grown = begins_anew ? now[i] : now[i] - flow->figures[i];
    Count(&figures_[i], flow->labels, grown);
  }
  flow->figures = now;
}

void ReportMetrics::Write(uint64_t now_ms, MetricsText* text) const {
  text->Family("vyr_reports_total", Type::kCounter, "Reports of the library that were taken.");
  for (int i = 0; i < kReportKindCount; ++i) {
    text->Sample({{"kind", ChannelOf(static_cast<ReportKind>(i)).name}},
                 reports_[static_cast<size_t>(i)]);
  }
  text->Family("vyr_last_report_timestamp_seconds", Type::kGauge,
               "When the latest report was true, since 1970; 0: there was none.");
  text->Sample({}, static_cast<double>(latest_ms_) / 1000);
  WriteEvents(text);
  WriteTraffic(text);
  WriteProbes(text);
  WriteFlows(now_ms, text);
}

void ReportMetrics::WriteEvents(MetricsText* text) const {
  WriteSeries(text, "vyr_processes_total", "Processes that began to be served.", {"game_id"},
              processes_);
  WriteSeries(text, "vyr_decisions_total", "Decisions on a route, by acc_reason.",
              {"game_id", "protocol", "route", "reason"}, decisions_);
  WriteSeries(text, "vyr_agreements_total", "Nodes that agreed to carry a flow, on trial too.",
              {"game_id", "node_id", "node"}, agreements_);
  WriteSeries(text, "vyr_negotiation_failures_total", "Nodes that did not agree, by nego_result.",
              {"game_id", "protocol", "node_id", "node", "result"}, failures_);
  WriteSeries(text, "vyr_link_troubles_total", "Reports of a link in trouble, by what was done.",
              {"game_id", "node_id", "outcome"}, troubles_);
}

void ReportMetrics::WriteTraffic(MetricsText* text) const {
  for (size_t i = 0; i < kTrafficFigures; ++i) {
    WriteSeries(text, kTrafficFamilies[i].name, kTrafficFamilies[i].help, kFlowLabels, figures_[i]);
  }
}

void ReportMetrics::WriteProbes(MetricsText* text) const {
  const auto family = [&](const char* name, const char* help, Figure front, Figure back) {
    text->Family(name, Type::kCounter, help);
    for (const auto& [section, figure] :
         {std::pair("frontend", front), std::pair("backend", back)}) {
      for (const auto& [values, count] : figures_[figure]) {
        Labels labels = With(kFlowLabels, values);
        labels.emplace_back("section", section);
        text->Sample(labels, count);
      }
    }
  };
  family("vyr_probes_sent_total", "Probes of links, without those whose answers came late.",
         kFrontSent, kBackSent);
  family("vyr_probes_answered_total", "Probes of links that were answered in time.", kFrontAnswered,
         kBackAnswered);
  family("vyr_probes_late_total", "Probes of links that were answered late.", kFrontLate,
         kBackLate);
}

void ReportMetrics::WriteFlows(uint64_t now_ms, MetricsText* text) const {
  std::map<Values, uint64_t> open;
  Means front, back, direct;
  for (const auto& [guid, flow] : flows_) {
    if (flow.ended || now_ms > flow.time_ms + kGoneMs) continue;
    Values labels = flow.labels;
    if (open.size() >= kMostSeries && !open.contains(labels)) {
      std::fill(labels.begin(), labels.end(), "other");
    }
    ++open[labels];
    if (flow.has_front) front.Add(labels, flow.front_ms);
    if (flow.has_back) back.Add(labels, flow.back_ms);
    if (flow.has_direct) direct.Add(labels, flow.direct_ms);
  }
  text->Family("vyr_flows", Type::kGauge, "Flows through nodes that are open.");
  for (const auto& [values, count] : open) text->Sample(With(kFlowLabels, values), count);
  text->Family("vyr_probe_delay_seconds", Type::kGauge,
               "Round trip of the probes since the flow began, the mean of the open flows.");
  front.Write(text, {{"section", "frontend"}});
  back.Write(text, {{"section", "backend"}});
  text->Family("vyr_direct_delay_seconds", Type::kGauge,
               "Round trip of the direct way as the tables have it, the mean of the open flows.");
  direct.Write(text);
}

}  // namespace client
