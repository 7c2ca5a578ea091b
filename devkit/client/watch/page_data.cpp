#include "client/watch/page_data.h"

#include <nlohmann/json.hpp>

#include "client/fields/mending_text.h"
#include "client/watch/flow_intervals.h"
#include "client/watch/flow_worth.h"
#include "client/watch/page_parts.h"

namespace client {
namespace {

using Json = nlohmann::ordered_json;

const char* KindName(MarkKind kind) {
  switch (kind) {
    case MarkKind::kDecision:
      return "decision";
    case MarkKind::kNegotiation:
      return "negotiation";
    case MarkKind::kFailure:
      return "failure";
    case MarkKind::kSwitch:
      return "switch";
    default:
      return "end";
  }
}

template <typename Value>
Json OrNull(const std::optional<Value>& value) {
  return value ? Json(*value) : Json();
}

double SecondsOf(uint64_t time_ms) { return static_cast<double>(time_ms) / 1000; }

// A time that has not come yet is 0 in the book.
Json EndJson(uint64_t time_ms) { return time_ms == 0 ? Json() : Json(SecondsOf(time_ms)); }

// A delay that was not measured is a gap in its line.
Json Measured(const std::optional<Section>& section, uint32_t value) {
  return section && section->answered != 0 ? Json(value) : Json();
}

Json LossJson(const std::optional<Section>& section) {
  return section ? Json(section->lost) : Json();
}

void AddPoint(const FlowPoint& point, Json* columns) {
  const Section front = point.frontend.value_or(Section{});
  const Section back = point.backend.value_or(Section{});
  const auto add = [columns](const char* key, const Json& value) {
    (*columns)[key].push_back(value);
  };
  add("t", SecondsOf(point.time_ms));
  add("stay", point.stay);
  add("sent", point.sent_rate);
  add("recv", point.recv_rate);
  add("fd", Measured(point.frontend, front.delay_avg));
  add("fa", Measured(point.frontend, front.delay_amp));
  add("bd", Measured(point.backend, back.delay_avg));
  add("ba", Measured(point.backend, back.delay_amp));
  add("fl", LossJson(point.frontend));
  add("bl", LossJson(point.backend));
}

// What was measured since the report before, and the delay of the whole way by it.
void AddInterval(const Interval& interval, const TableFigures& tables,
                 const std::optional<uint32_t>& direct, Json* columns) {
  const auto add = [columns](const char* key, const Json& value) {
    (*columns)[key].push_back(value);
  };
  add("ifd", OrNull(interval.frontend.delay));
  add("ife", interval.frontend.error);
  add("ibd", OrNull(interval.backend.delay));
  add("ibe", interval.backend.error);
  add("ifl", OrNull(interval.frontend.lost));
  add("ibl", OrNull(interval.backend.lost));
  add("way", OrNull(TakenDelay(interval.frontend.delay, interval.backend.delay, tables)));
  add("direct", OrNull(direct ? direct : tables.direct_delay));
  add("burst", interval.is_burst);
}

Json PointsJson(const Flow& flow) {
  constexpr const char* kKeys[] = {"t",   "stay", "sent", "recv",   "fd",   "fa",  "bd",
                                   "ba",  "fl",   "bl",   "ifd",    "ife",  "ibd", "ibe",
                                   "ifl", "ibl",  "way",  "direct", "burst"};
  Json columns = Json::object();
  for (const char* key : kKeys) columns[key] = Json::array();
  const std::vector<Interval> intervals = IntervalsOf(flow.points);
  for (size_t i = 0; i < flow.points.size(); ++i) {
    const FlowPoint& point = flow.points[i];
    AddPoint(point, &columns);
    AddInterval(intervals[i], flow.stays[point.stay].tables, point.direct_delay, &columns);
  }
  return columns;
}

const char* BasisName(Worth::Basis basis) {
  return basis == Worth::Basis::kMeasured ? "measured"
         : basis == Worth::Basis::kTables ? "tables"
                                          : "unknown";
}

Json WorthJson(const Worth& worth) {
  return {{"basis", BasisName(worth.basis)},      {"saves", OrNull(worth.saves())},
          {"words", WorthWords(worth)},           {"why", worth.why},
          {"direct", OrNull(worth.direct)},       {"directInForce", worth.direct_is_in_force},
          {"taken", OrNull(worth.taken)},         {"directLost", OrNull(worth.direct_lost)},
          {"takenLost", OrNull(worth.taken_lost)}};
}

Json StaysJson(const Flow& flow) {
  Json stays = Json::array();
  for (const Stay& stay : flow.stays) {
    const Section front = stay.frontend.value_or(Section{});
    const Section back = stay.backend.value_or(Section{});
    stays.push_back({{"node", stay.node},
                     {"from", SecondsOf(stay.from_ms)},
                     {"until", EndJson(stay.until_ms)},
                     {"reported", stay.is_reported},
                     {"sentBytes", stay.sent_bytes},
                     {"recvBytes", stay.recv_bytes},
                     {"sentPackets", stay.sent_packets},
                     {"recvPackets", stay.recv_packets},
                     {"errors", stay.sent_errors + stay.recv_errors},
                     {"fd", Measured(stay.frontend, front.delay_avg)},
                     {"fa", Measured(stay.frontend, front.delay_amp)},
                     {"bd", Measured(stay.backend, back.delay_avg)},
                     {"ba", Measured(stay.backend, back.delay_amp)},
                     {"lost", LossJson(stay.backend ? stay.backend : stay.frontend)},
                     {"probes", stay.frontend ? Json(front.asked) : Json()},
                     {"worth", WorthJson(WorthOf(stay))}});
  }
  return stays;
}

Json TrialsJson(const Flow& flow) {
  Json trials = Json::array();
  for (const Trial& trial : flow.trials) {
    trials.push_back({{"node", trial.node},
                      {"from", SecondsOf(trial.from_ms)},
                      {"until", EndJson(trial.until_ms)},
                      {"outcome", trial.outcome}});
  }
  return trials;
}

Json MarksJson(const Flow& flow) {
  Json marks = Json::array();
  for (const Mark& mark : flow.marks) {
    marks.push_back(
        {{"t", SecondsOf(mark.time_ms)}, {"kind", KindName(mark.kind)}, {"text", mark.text}});
  }
  return marks;
}

Json LimitsJson(const std::optional<TroubleLimits>& limits) {
  if (!limits) return {};
  return {
      {"delay", limits->delay_avg}, {"amplitude", limits->delay_amp}, {"lost", limits->real_lost}};
}

Json FlowJson(const FlowBook& book, const Flow& flow) {
  const Process* const process = book.ProcessOf(flow);
  return {{"guid", flow.guid},
          {"type", flow.type},
          {"game", flow.game},
          {"gameId", flow.game_id},
          {"process", process != nullptr ? Json(process->name) : Json()},
          {"processId", flow.process_id != 0 ? Json(flow.process_id) : Json()},
          {"node", flow.node},
          {"accelerated", flow.accelerated},
          {"ended", flow.ended},
          {"moved", flow.moved},
          {"figuresFollow", flow.figures_follow},
          {"first", SecondsOf(flow.first_ms)},
          {"last", SecondsOf(flow.last_ms)},
          {"life", flow.life_ms / 1000.0},
          {"failures", flow.failures},
          {"switches", flow.switches},
          {"worth", flow.stay() != nullptr ? WorthJson(WorthOf(*flow.stay())) : Json()},
          {"stays", StaysJson(flow)},
          {"trials", TrialsJson(flow)},
          {"limits", LimitsJson(flow.limits)},
          {"points", PointsJson(flow)},
          {"marks", MarksJson(flow)}};
}

Json ProcessJson(const Process& process) {
  return {{"t", SecondsOf(process.time_ms)},
          {"name", process.name},
          {"gameId", process.game_id},
          {"bits", process.bits != 0 ? Json(process.bits) : Json()},
          {"libraryFile", process.library_file.empty() ? Json() : Json(process.library_file)},
          {"mended", process.mended ? Json(MendingText(*process.mended)) : Json()},
          {"log", process.log}};
}

}  // namespace

std::string PageData(const FlowBook& book) {
  Json data = {{"version", PageVersion()}, {"flows", Json::array()}, {"processes", Json::array()}};
  for (const Flow& flow : book.flows()) data["flows"].push_back(FlowJson(book, flow));
  for (const Process& process : book.processes()) {
    data["processes"].push_back(ProcessJson(process));
  }
  return data.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace client
