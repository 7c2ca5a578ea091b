#include "client/watch/flow_stays.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace client {
namespace {

using namespace moru_vyr::lsp;

constexpr char kUnreportedNode[] = "a node that was not reported";
constexpr char kUnreportedTrial[] = "another node";
constexpr uint32_t kUnreachable = 9999;
constexpr uint32_t kMostPercent = 100;  // above it there are codes
constexpr size_t kMostStays = 100;      // and trials

std::optional<uint32_t> DelayOf(uint32_t delay) {
  return delay == kUnreachable ? std::nullopt : std::optional(delay);
}

std::optional<uint32_t> LostOf(uint32_t lost) {
  return lost > kMostPercent ? std::nullopt : std::optional(lost);
}

// No way takes 0 ms: where a route says so, it leaves the direct way open.
void SetDirect(TableFigures* figures, uint32_t delay, uint32_t lost) {
  figures->direct_unreachable = delay == kUnreachable;
  if (delay == 0 || delay == kUnreachable) return;
  figures->direct_delay = delay;
  figures->direct_lost = LostOf(lost);
}

bool HasNone(const TableFigures& figures) {
  return !figures.direct_delay && !figures.direct_unreachable && !figures.section1_delay &&
         !figures.section2_delay;
}

// The figures of a flow's traffic come with what the tables said when it began.
TableFigures FiguresOf(const CommInfoRecord& record) {
  TableFigures figures;
  SetDirect(&figures, record.direct_delay, record.direct_lost);
  if (record.section1_delay == 0) return figures;
  figures.section1_delay = DelayOf(record.section1_delay);
  figures.section1_lost = LostOf(record.section1_lost);
  figures.section2_delay = DelayOf(record.section2_delay);
  return figures;
}

Stay* StartStay(Flow* flow, const NodeInReport& node, uint64_t time_ms) {
  if (!flow->stays.empty()) {
    Stay& before = flow->stays.back();
    if (before.until_ms == 0) before.until_ms = std::max(time_ms, before.from_ms);
  }
  // The points name stays by their place, so the list ends rather than moves on.
  if (flow->stays.size() == kMostStays) flow->stays.pop_back();
  flow->stays.push_back({.node = node.name,
                         .endpoint = node.endpoint,
                         .from_ms = time_ms,
                         .frontend = {},
                         .backend = {},
                         .tables = node.tables});
  flow->node = node.name;
  return &flow->stays.back();
}

Trial* OpenTrial(Flow* flow) {
  const bool runs = !flow->trials.empty() && flow->trials.back().until_ms == 0;
  return runs ? &flow->trials.back() : nullptr;
}

Trial* AddTrial(Flow* flow, const NodeInReport& node, uint64_t time_ms) {
  if (flow->trials.size() == kMostStays) flow->trials.erase(flow->trials.begin());
  flow->trials.push_back({.node = node.name,
                          .endpoint = node.endpoint,
                          .from_ms = time_ms,
                          .outcome = "still runs",
                          .tables = node.tables});
  return &flow->trials.back();
}

void Close(Trial* trial, uint64_t time_ms, const std::string& outcome) {
  trial->until_ms = std::max<uint64_t>({time_ms, trial->from_ms, 1});
  trial->outcome = outcome;
}

// Under a node's own name its probes are counted from their start.
bool StartsAnew(const Stay& stay, const CommInfoRecord& record) {
  return stay.frontend && record.frontend_fine.total_send < stay.frontend->asked;
}

// Without the request to the library that figures follow a move, all of them are the first node's,
// however often the flow has moved and wherever it is.
size_t StayOf(Flow* flow, const CommInfoRecord& record, const NodeInReport& node,
              uint64_t time_ms) {
  std::vector<Stay>& stays = flow->stays;
  if (stays.empty()) StartStay(flow, node, time_ms);
  if (stays.front().endpoint != node.endpoint || StartsAnew(stays.front(), record)) {
    flow->figures_follow = true;
  }
  if (!flow->figures_follow) return 0;
  for (size_t i = stays.size(); i-- > 0;) {
    if (stays[i].endpoint == node.endpoint) return i;
  }
  NodeInReport found = node;
  if (Trial* const trial = OpenTrial(flow); trial != nullptr && trial->endpoint == node.endpoint) {
    found.tables = trial->tables;
    Close(trial, time_ms, "took over");
  }
  flow->moved = true;
  StartStay(flow, found, time_ms)->is_announced = false;
  return stays.size() - 1;
}

}  // namespace

Section SectionOf(const FineStats& fine) {
  Section section = {.delay_avg = fine.delay_avg,
                     .delay_amp = fine.delay_amp,
                     .answered = fine.total_recv,
                     .asked = fine.total_send};
  if (fine.total_send > fine.total_recv) {
    section.lost = (fine.total_send - fine.total_recv) * 100.0 / fine.total_send;
  }
  return section;
}

TableFigures FiguresOf(const AccDecisionInfo& info) {
  TableFigures figures;
  if (info.game_idc == 0) return figures;
  SetDirect(&figures, info.direct_delay, info.direct_lost);
  const RouteProxyInfo& node = info.selected_proxy;
  if (node.proxy_idc == 0 || node.section1_delay == 0) return figures;
  figures.section1_delay = DelayOf(node.section1_delay);
  figures.section1_lost = LostOf(node.section1_lost);
  figures.section2_delay = DelayOf(node.section2_delay);
  figures.section2_lost = LostOf(node.section2_lost);
  return figures;
}

void SetDirectInForce(TableFigures* figures, const DirectWay& direct) {
  figures->direct_delay.reset();
  figures->direct_lost.reset();
  SetDirect(figures, direct.delay, direct.lost);
  figures->direct_is_in_force = true;
}

void SetNode(Flow* flow, const NodeInReport& node, uint64_t time_ms) {
  if (flow->stays.empty()) {
    StartStay(flow, node, time_ms);
    return;
  }
  Stay& stay = flow->stays.back();
  if (stay.endpoint != node.endpoint && (stay.is_reported || flow->stays.size() > 1)) return;
  stay.node = flow->node = node.name;
  stay.endpoint = node.endpoint;
  if (!HasNone(node.tables)) stay.tables = node.tables;
}

void SetTrial(Flow* flow, const NodeInReport& node, uint64_t time_ms) {
  Trial* trial = OpenTrial(flow);
  if (trial == nullptr || trial->endpoint != node.endpoint) {
    if (trial != nullptr) Close(trial, time_ms, "not reported");
    trial = AddTrial(flow, node, time_ms);
  }
  trial->node = node.name;
  if (!HasNone(node.tables)) trial->tables = node.tables;
}

void EndTrial(Flow* flow, uint64_t time_ms, const std::string& outcome, bool is_told) {
  Trial* trial = OpenTrial(flow);
  const bool was_refused = trial == nullptr && is_told && !flow->trials.empty() &&
                           !flow->trials.back().is_told &&
                           flow->trials.back().outcome != "took over";
  if (was_refused) {
    flow->trials.back().is_told = true;
    return;
  }
  if (trial == nullptr) trial = AddTrial(flow, {.name = kUnreportedTrial, .endpoint = ""}, time_ms);
  Close(trial, time_ms, outcome);
  trial->is_told = is_told;
}

void Move(Flow* flow, uint64_t time_ms) {
  NodeInReport node = {.name = kUnreportedNode, .endpoint = ""};
  Trial* const trial = OpenTrial(flow);
  if (trial != nullptr) {
    node = {.name = trial->node, .endpoint = trial->endpoint, .tables = trial->tables};
    Close(trial, time_ms, "took over");
    trial->is_told = true;
  }
  flow->moved = true;
  if (trial == nullptr && !flow->stays.empty() && !flow->stays.back().is_announced) {
    flow->stays.back().is_announced = true;
    return;
  }
  StartStay(flow, node, time_ms);
}

size_t AddFigures(Flow* flow, const CommInfoRecord& record, const NodeInReport& node,
                  uint64_t time_ms) {
  const uint64_t began = time_ms > record.life ? time_ms - record.life : 0;
  const bool is_first = flow->points.empty() || record.life < flow->life_ms;
  const size_t place = StayOf(flow, record, node, flow->stays.empty() ? began : time_ms);
  Stay& stay = flow->stays[place];
  stay.from_ms = std::min(stay.from_ms, time_ms);
  stay.is_reported = true;
  if (place == 0) {
    stay.node = node.name;
    if (flow->stays.size() == 1) flow->node = node.name;
    if (HasNone(stay.tables)) stay.tables = FiguresOf(record);
  }
  // Differences are right also where the library's counters have wrapped.
  const auto since = [is_first](uint32_t now, uint32_t before) -> uint32_t {
    return is_first ? now : now - before;
  };
  stay.sent_bytes += since(record.total_sent_bytes, flow->sent_bytes);
  stay.recv_bytes += since(record.total_recv_bytes, flow->recv_bytes);
  stay.sent_packets += since(record.total_sent_packets, flow->sent_packets);
  stay.recv_packets += since(record.total_recv_packets, flow->recv_packets);
  stay.sent_errors += since(record.total_sent_errors, flow->sent_errors);
  stay.recv_errors += since(record.total_recv_errors, flow->recv_errors);
  if (record.frontend_fine.total_send != 0 || record.frontend_fine.total_recv != 0) {
    stay.frontend = SectionOf(record.frontend_fine);
  }
  if (record.topology_type == kTwoRelays) stay.backend = SectionOf(record.backend_fine);
  return place;
}

void EndStays(Flow* flow, uint64_t time_ms) {
  if (!flow->stays.empty() && flow->stays.back().until_ms == 0) {
    flow->stays.back().until_ms = std::max(time_ms, flow->stays.back().from_ms);
  }
  if (Trial* const trial = OpenTrial(flow)) Close(trial, time_ms, "without a verdict at the end");
}

std::optional<TroubleLimits> LimitsOf(const std::string& condition) {
  TroubleLimits limits;
  const int read = std::sscanf(condition.c_str(), "delay_amp>=%u;delay_avg>=%u;real_lost>=%u",
                               &limits.delay_amp, &limits.delay_avg, &limits.real_lost);
  return read == 3 ? std::optional(limits) : std::nullopt;
}

}  // namespace client
