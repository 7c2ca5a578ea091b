// What is known of one flow: what happened to it, which nodes it had, and what was reported of
// each.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace client {

// One half of a flow's probes. Frontend: answers of the first relay, or of the only one. Backend:
// answers of the second relay, so the whole way through both.
struct Section {
  uint32_t delay_avg = 0;  // whole milliseconds, rounded down
  uint32_t delay_amp = 0;
  uint32_t answered = 0;
  uint32_t asked = 0;
  double lost = 0;  // percent of the probes since the flow came to its node
};

struct FlowPoint {
  uint64_t time_ms = 0;  // of what was reported of a node after a move: the move
  size_t stay = 0;       // index of the node's stay
  double sent_rate = 0;  // bytes a second since the previous report
  double recv_rate = 0;
  std::optional<Section> frontend;
  std::optional<Section> backend;
  std::optional<uint32_t> direct_delay;  // by the tables of that moment
};

// What the tables say; nothing where they say nothing.
struct TableFigures {
  std::optional<uint32_t> direct_delay, direct_lost;
  std::optional<uint32_t> section1_delay, section1_lost;
  std::optional<uint32_t> section2_delay, section2_lost;
  bool direct_unreachable = false;
  // The direct way is that of the tables in force at the latest report. False: that of the tables
  // when the flow began, as it was reported.
  bool direct_is_in_force = false;
};

// The time that a flow spent with one node. The figures are those of this node alone.
struct Stay {
  std::string node;      // with its name, if that is known
  std::string endpoint;  // empty: the node was not reported
  uint64_t from_ms = 0;
  uint64_t until_ms = 0;  // 0: still there
  bool is_reported = false;
  bool is_announced = true;  // false: figures told of the move before the report on it
  uint64_t sent_bytes = 0, recv_bytes = 0;
  uint32_t sent_packets = 0, recv_packets = 0;
  uint32_t sent_errors = 0, recv_errors = 0;
  std::optional<Section> frontend, backend;
  TableFigures tables;
};

// Another node that was tried while the flow stayed where it was.
struct Trial {
  std::string node;
  std::string endpoint;
  uint64_t from_ms = 0;
  uint64_t until_ms = 0;  // 0: it still runs
  std::string outcome;
  bool is_told = false;  // by a report of trouble
  TableFigures tables;
};

// The limits at which a link is in trouble, as a report of trouble named them.
struct TroubleLimits {
  uint32_t delay_avg = 0, delay_amp = 0, real_lost = 0;
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
  uint64_t game_id = 0;
  uint32_t process_id = 0;  // 0: not reported
  bool accelerated = false;
  bool ended = false;
  bool moved = false;
  // Whether the figures go on under the new node after a move.
  bool figures_follow = false;
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
  std::vector<Stay> stays;  // in the order of their times; empty: direct
  std::vector<Trial> trials;
  std::optional<TroubleLimits> limits;

  const FlowPoint* last_point() const { return points.empty() ? nullptr : &points.back(); }
  std::string last_event() const { return marks.empty() ? "" : marks.back().text; }
  // Where the flow is now, or was at its end. Null: direct.
  const Stay* stay() const { return stays.empty() ? nullptr : &stays.back(); }
};

// A process that began to be served.
struct Process {
  uint64_t time_ms = 0;
  std::string name;  // empty: only its log was reported
  uint64_t game_id = 0;
  unsigned bits = 0;
  std::optional<uint32_t> mended = {};  // where that is known
  std::string library_file = {};        // the version of the library beside the client, likewise
  std::string log;
};

}  // namespace client
