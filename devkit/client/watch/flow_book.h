// Combines the reports on each flow.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/watch/report.h"

namespace client {

// One half of a flow's probes. Frontend: answers of the first relay, or of the only one. Backend:
// answers of the second relay, so the whole way through both.
struct Section {
  uint32_t delay_avg = 0;  // milliseconds
  uint32_t delay_amp = 0;
  uint32_t answered = 0;
  double lost = 0;  // percent of the probes since the flow began
};

struct FlowPoint {
  uint64_t time_ms = 0;
  double sent_rate = 0;  // bytes a second since the previous report
  double recv_rate = 0;
  std::optional<Section> frontend;
  std::optional<Section> backend;
};

enum class MarkKind { kDecision, kNegotiation, kFailure, kSwitch, kEnd };

struct Mark {
  uint64_t time_ms = 0;
  MarkKind kind = MarkKind::kDecision;
  std::string text;
};

struct Flow {
  std::string guid;
  std::string type;  // "TCP" or "UDP", empty while not known
  std::string game;  // address and port
  std::string node;  // the same, with the node's name if it is known; empty: direct
  // The node that agreed to take the flow over, while it is not known whether it did.
  std::string trial_node;
  bool accelerated = false;
  bool ended = false;
  // The figures are those of the socket towards the first node, so they stand still from here on.
  bool moved = false;
  uint64_t first_ms = 0;
  uint64_t last_ms = 0;  // the last report of any kind, or the end
  uint32_t life_ms = 0;
  uint32_t sent_bytes = 0, recv_bytes = 0;  // these wrap, as the library's own counters do
  uint32_t sent_packets = 0, recv_packets = 0;
  uint32_t sent_errors = 0, recv_errors = 0;
  unsigned failures = 0, switches = 0;
  bool is_seen_from_start = false;
  // Of the flow's reports of trouble: the number up to which all have come, and the highest.
  int32_t troubles_all = 0, troubles_highest = 0;
  std::vector<FlowPoint> points;
  std::vector<Mark> marks;

  const FlowPoint* last_point() const { return points.empty() ? nullptr : &points.back(); }
  std::string last_event() const { return marks.empty() ? "" : marks.back().text; }
};

// Bounded: the older half of a long flow's points is thinned out, and beyond kMostFlows flows the
// one with the oldest news is forgotten.
class FlowBook {
 public:
  static constexpr size_t kMostFlows = 1000;
  static constexpr size_t kMostPoints = 4000;
  static constexpr size_t kMostMarks = 500;

  void Add(const Report& report);

  // In the order of their first reports.
  const std::list<Flow>& flows() const { return flows_; }

 private:
  Flow* Find(const std::string& guid, const std::string& game, uint64_t time_ms);
  Flow* FindByServer(const std::string& game);
  std::string NodeName(uint32_t proxy_idc, const std::string& endpoint) const;
  void AddMark(Flow* flow, uint64_t time_ms, MarkKind kind, std::string text);
  void AddDecision(const Report& report);
  void AddNegotiation(const Report& report);
  void AddFailure(const Report& report);
  void AddSwitch(const Report& report);
  void AddTraffic(const Report& report);

  std::list<Flow> flows_;
  std::map<std::string, Flow*> by_key_;
  std::map<uint32_t, std::string> node_names_;  // by proxy_idc
};

}  // namespace client
