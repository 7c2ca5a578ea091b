// Counts reports for Prometheus.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "abi/report_records.h"
#include "client/watch/report.h"
#include "metrics/metrics_text.h"

namespace client {

// Bounded: what differs in its labels beyond kMostSeries of a family is counted under "other", and
// beyond kMostFlows flows the one with the oldest news is forgotten.
class ReportMetrics {
 public:
  static constexpr size_t kMostSeries = 200;
  static constexpr size_t kMostFlows = 1000;
  // Without a report for so long, a flow counts as gone: one comes about every five seconds, and a
  // process that is killed sends no last one.
  static constexpr uint64_t kGoneMs = 30'000;

  void Add(const Report& report);

  // `now_ms` on the clock of the reports.
  void Write(uint64_t now_ms, metrics::MetricsText* text) const;

 private:
  // Values of labels, in the order of a family's names of them.
  using Values = std::vector<std::string>;
  using Series = std::map<Values, uint64_t>;

  // Cumulative figures of a report, as the library counts them: 32 bits wide.
  enum Figure {
    kSentBytes,
    kReceivedBytes,
    kSentPackets,
    kReceivedPackets,
    kSendErrors,
    kReceiveErrors,
    kTrafficFigures,
    kFrontSent = kTrafficFigures,
    kFrontAnswered,
    kFrontLate,
    kBackSent,
    kBackAnswered,
    kBackLate,
    kFigures
  };

  struct FlowState {
    Values labels;  // game_id, protocol, node_id, node
    uint64_t time_ms = 0;
    bool ended = false;
    std::array<uint32_t, kFigures> figures = {};
    uint32_t life_ms = 0;
    bool has_front = false, has_back = false, has_direct = false;
    uint32_t front_ms = 0, back_ms = 0, direct_ms = 0;
  };

  struct Family;
  static const Family kTrafficFamilies[kTrafficFigures];

  static void Count(Series* series, Values labels, uint64_t by = 1);
  void AddDecision(const Report& report);
  void AddAgreement(const Report& report);
  void AddFailure(const Report& report);
  void AddTrouble(const Report& report);
  void AddTraffic(const Report& report);
  FlowState* Find(const std::string& guid);
  void Grow(FlowState* flow, const moru_vyr::lsp::CommInfoRecord& record);
  void WriteEvents(metrics::MetricsText* text) const;
  void WriteTraffic(metrics::MetricsText* text) const;
  void WriteProbes(metrics::MetricsText* text) const;
  void WriteFlows(uint64_t now_ms, metrics::MetricsText* text) const;

  std::array<uint64_t, kReportKindCount> reports_ = {};
  Series processes_, decisions_, agreements_, failures_, troubles_;
  std::array<Series, kFigures> figures_;
  std::map<std::string, FlowState> flows_;
  uint64_t latest_ms_ = 0;
};

}  // namespace client
