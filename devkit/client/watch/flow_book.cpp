#include "client/watch/flow_book.h"

#include <algorithm>
#include <utility>

#include "abi/mending_formats.h"
#include "abi/report_records.h"
#include "client/explain/reason_words.h"
#include "client/watch/flow_stays.h"
#include "client/watch/report_words.h"
#include "route/decision.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

const char* TypeName(int64_t type, int64_t stream, int64_t datagram) {
  return type == stream ? "TCP" : type == datagram ? "UDP" : "";
}

// is_switch_succ: beyond it another node was tried.
constexpr int32_t kNoOtherNode = 1;

constexpr uint64_t kLogBeforeProcessMs = 2000;

double Rate(uint32_t now, uint32_t before, uint32_t span_ms) {
  return span_ms == 0 ? 0 : (now - before) * 1000.0 / span_ms;
}

void ThinOut(std::vector<FlowPoint>* points) {
  std::vector<FlowPoint> kept;
  const size_t half = points->size() / 2;
  for (size_t i = 0; i < points->size(); ++i) {
    if (i >= half || i % 2 == 0) kept.push_back((*points)[i]);
  }
  *points = std::move(kept);
}

// Only figures carry their own time. Other reports have the time at which they were taken out,
// which may be later than that of reports that came after them.
void PullBack(std::vector<Mark>* marks, std::vector<Mark>::iterator end, uint64_t time_ms) {
  for (auto mark = marks->begin(); mark != end; ++mark) {
    mark->time_ms = std::min(mark->time_ms, time_ms);
  }
}

// A report that speaks of success can also be one that came while a trial still ran. Reports are
// numbered, and that of the trial keeps its number until its end: so a gap stands for a trial.
bool FollowsAGap(const Flow& flow, int32_t count) {
  const bool may_have_missed_some = flow.troubles_all == 0 && !flow.is_seen_from_start;
  return count > flow.troubles_all + 1 && !may_have_missed_some;
}

}  // namespace

void FlowBook::Add(const Report& report) {
  switch (report.kind) {
    case kDecisionReport:
      return AddDecision(report);
    case kRealNegotiationReport:
      return AddNegotiation(report);
    case kNegotiationResultReport:
      return AddFailure(report);
    case kRecoverySwitchReport:
      return AddSwitch(report);
    case kCommunicationReport:
      return AddTraffic(report);
    case kLoadedReport:
      return AddLoaded(report);
    default:
      return AddLogPath(report);
  }
}

Process* FlowBook::NewProcess(uint64_t game_id, uint64_t time_ms) {
  if (processes_.size() == kMostProcesses) processes_.erase(processes_.begin());
  processes_.push_back({.time_ms = time_ms, .name = {}, .game_id = game_id, .log = {}});
  return &processes_.back();
}

void FlowBook::AddLoaded(const Report& report) {
  const auto record = report.As<LspLoadedRecord>();
  const std::string name = Printable(Text(record.process_name));
  // Channels are looked at one after the other, so its log may have been taken before it.
  const auto logs = [&](const Process& process) {
    return process.game_id == record.game_id && process.name.empty() &&
           process.log.find("[" + name + "]") != std::string::npos &&
           report.time_ms - std::min(report.time_ms, process.time_ms) <= kLogBeforeProcessMs;
  };
  const auto known = std::find_if(processes_.begin(), processes_.end(), logs);
  Process* const process =
      known != processes_.end() ? &*known : NewProcess(record.game_id, report.time_ms);
  process->name = name;
  process->bits = record.is_x64 != 0 ? 64 : 32;
  process->mended = report.mended;
  process->library_file = Printable(report.library_file);
}

// A process reports its log right after itself.
void FlowBook::AddLogPath(const Report& report) {
  const auto record = report.As<LogPathRecord>();
  const auto waiting =
      std::find_if(processes_.begin(), processes_.end(), [&](const Process& process) {
        return process.game_id == record.game_id && process.log.empty();
      });
  Process* const process =
      waiting != processes_.end() ? &*waiting : NewProcess(record.game_id, report.time_ms);
  process->log = Printable(Text(record.log_path));
}

// By its number in the log's name, or because its game has no other.
const Process* FlowBook::ProcessOf(const Flow& flow) const {
  const std::string number = "[P" + std::to_string(flow.process_id) + "]";
  const Process* only = nullptr;
  bool is_only = true;
  for (const Process& process : processes_) {
    if (process.game_id != flow.game_id) continue;
    if (flow.process_id != 0 && process.log.find(number) != std::string::npos) return &process;
    is_only = only == nullptr;
    only = &process;
  }
  return is_only ? only : nullptr;
}

// Flows are identified by their guid. A failure can come before the socket has one, and the answer
// of a node on trial comes through a socket that never has one: these are identified by the game
// server.
Flow* FlowBook::Find(const std::string& guid, const std::string& game, uint64_t time_ms) {
  Flow* known = guid.empty() ? FindByServer(game) : nullptr;
  Flow*& flow = known != nullptr ? known : by_key_[guid.empty() ? "to " + game : guid];
  if (flow == nullptr) {
    if (flows_.size() == kMostFlows) {
      const auto oldest =
          std::min_element(flows_.begin(), flows_.end(),
                           [](const Flow& a, const Flow& b) { return a.last_ms < b.last_ms; });
      std::erase_if(by_key_, [&](const auto& entry) { return entry.second == &*oldest; });
      flows_.erase(oldest);
    }
    flow = &flows_.emplace_back();
    flow->guid = guid;
    flow->first_ms = time_ms;
  }
  if (!game.empty()) flow->game = game;
  flow->first_ms = std::min(flow->first_ms, time_ms);
  if (!flow->ended) flow->last_ms = std::max(flow->last_ms, time_ms);
  return flow;
}

// The open relayed flow to that server with the latest news.
Flow* FlowBook::FindByServer(const std::string& game) {
  Flow* found = nullptr;
  for (Flow& flow : flows_) {
    if (flow.guid.empty() || flow.game != game || !flow.accelerated || flow.ended) continue;
    if (found == nullptr || flow.last_ms >= found->last_ms) found = &flow;
  }
  return found;
}

std::string FlowBook::NodeName(uint32_t proxy_idc, const std::string& endpoint) const {
  const auto name = node_names_.find(proxy_idc);
  return (name != node_names_.end() ? name->second + " " : "") + endpoint;
}

std::string FlowBook::ShortName(uint32_t proxy_idc) const {
  const auto name = node_names_.find(proxy_idc);
  return name != node_names_.end() ? name->second : "node " + std::to_string(proxy_idc);
}

void FlowBook::AddMark(Flow* flow, uint64_t time_ms, MarkKind kind, std::string text) {
  std::vector<Mark>& marks = flow->marks;
  if (marks.size() == kMostMarks) marks.erase(marks.begin());
  // Reports that are taken out after a flow's end happened before it.
  const bool is_late = flow->ended && !marks.empty();
  if (is_late) time_ms = std::min(time_ms, marks.back().time_ms);
  // Reports of the same moment come channel by channel.
  const auto later =
      std::upper_bound(marks.begin(), is_late ? marks.end() - 1 : marks.end(), time_ms,
                       [](uint64_t at, const Mark& mark) { return at < mark.time_ms; });
  marks.insert(later, {time_ms, kind, std::move(text)});
}

void FlowBook::AddDecision(const Report& report) {
  const auto info = report.As<AccDecisionInfo>();
  Flow* const flow = Find(Text(info.guid), Endpoint(HostAddressText(info.game_ip), info.game_port),
                          report.time_ms);
  flow->type = TypeName(info.socket_type, 0, 1);
  flow->game_id = info.game_id;
  flow->process_id = info.process_id;
  flow->is_seen_from_start |= flow->marks.empty() && flow->points.empty();
  flow->accelerated = info.acc_reason == kReasonAcce || info.acc_reason == kReasonForceAuto ||
                      info.acc_reason == kReasonForceManual;
  const RouteProxyInfo& node = info.selected_proxy;
  if (node.proxy_name[0] != '\0') node_names_[node.proxy_idc] = Printable(Text(node.proxy_name));
  std::string text = ReportMark(report);
  if (flow->accelerated) {
    const std::string endpoint = Endpoint(Text(node.proxy_addr), node.proxy_port);
    NodeInReport chosen = {NodeName(node.proxy_idc, endpoint), endpoint, FiguresOf(info)};
    if (report.direct) SetDirectInForce(&chosen.tables, *report.direct);
    // A flow that already has a node is on trial with another one.
    const bool is_trial = !flow->stays.empty() && flow->stays.back().endpoint != endpoint;
    (is_trial ? SetTrial : SetNode)(flow, chosen, report.time_ms);
    text = (is_trial ? "a trial of " : "through ") + ShortName(node.proxy_idc) + ": " +
           ReasonWords(info.acc_reason);
  }
  AddMark(flow, report.time_ms, MarkKind::kDecision, text);
}

void FlowBook::AddNegotiation(const Report& report) {
  const auto record = report.As<RealNegoRecord>();
  const std::string guid = Text(record.guid);
  Flow* const flow =
      Find(guid, Endpoint(HostAddressText(record.game_ip), record.game_port), report.time_ms);
  const std::string endpoint = Endpoint(Text(record.proxy_ip), record.proxy_port);
  const bool is_trial = guid.empty() && !flow->node.empty();
  flow->accelerated = true;
  flow->game_id = record.game_id;
  (is_trial ? SetTrial : SetNode)(flow, {NodeName(record.proxy_id, endpoint), endpoint},
                                  report.time_ms);
  AddMark(flow, report.time_ms, MarkKind::kNegotiation, ShortName(record.proxy_id) + " agreed");
}

void FlowBook::AddFailure(const Report& report) {
  const auto record = report.As<NegRetRecord>();
  Flow* const flow =
      Find(Text(record.guid), Endpoint(Text(record.game_ip), record.game_port), report.time_ms);
  flow->type = TypeName(record.neg_type, 0, 1);
  flow->game_id = record.game_id;
  flow->process_id = record.process_id;
  ++flow->failures;
  if (!flow->stays.empty()) {
    const std::string endpoint = Endpoint(Text(record.proxy_ip), record.proxy_port);
    const uint64_t began = report.time_ms - std::min<uint64_t>(report.time_ms, record.elapsed_ms);
    SetTrial(flow, {NodeName(record.proxy_idc, endpoint), endpoint}, began);
    EndTrial(flow, report.time_ms, NegotiationFailureWords(record.nego_result), false);
  }
  AddMark(flow, report.time_ms, MarkKind::kFailure,
          ShortName(record.proxy_idc) + " failed: " + NegotiationFailureWords(record.nego_result));
}

// Unless the judge starts anew with the link, it keeps what it saw of the node before, and may see
// trouble in that. `stay`: the index of the one in trouble.
std::string FlowBook::Doubt(const Flow& flow, size_t stay) const {
  const Process* const process = ProcessOf(flow);
  const bool starts_anew = flow.figures_follow || (process != nullptr && process->mended &&
                                                   (*process->mended & kMendAfterSwitch) != 0);
  if (stay == 0 || stay >= flow.stays.size() || starts_anew) return "";
  return "; since the flow had moved, this may be what was lost at " + flow.stays[stay - 1].node;
}

void FlowBook::AddSwitch(const Report& report) {
  const auto record = report.As<RecoverySwitchRecord>();
  Flow* const flow = Find(Text(record.guid), "", report.time_ms);
  flow->type = "UDP";  // nothing else is moved
  const bool says_moved = record.need_switch != 0 && record.is_switch_succ == 0;
  const bool trial_runs = FollowsAGap(*flow, record.count);
  flow->troubles_highest = std::max(flow->troubles_highest, record.count);
  if (!trial_runs) flow->troubles_all = flow->troubles_highest;
  if (const auto limits = LimitsOf(Text(record.switch_condition))) flow->limits = limits;
  const size_t stay = flow->stays.empty() ? 0 : flow->stays.size() - 1;
  std::string text = ReportMark(report);
  if (says_moved && trial_runs) {
    text = "link in trouble: another node is on trial already";
  } else if (says_moved) {
    ++flow->switches;
    Move(flow, report.time_ms);
    text = "link in trouble: moved to " + flow->node;
  } else if (record.need_switch != 0 && record.is_switch_succ > kNoOtherNode) {
    EndTrial(flow, report.time_ms, TrialOutcomeWords(record.is_switch_succ), true);
  }
  AddMark(flow, report.time_ms, MarkKind::kSwitch, text + Doubt(*flow, stay));
}

// The flow still has its totals of the report before.
void FlowBook::AddPoint(Flow* flow, const CommInfoRecord& record, uint64_t time_ms, size_t stay) {
  const bool is_first = flow->points.empty() || record.life < flow->life_ms;
  // Where the figures do not follow a move, they are of the time until then.
  const uint64_t until_ms = flow->moved && !flow->figures_follow ? flow->stays[0].until_ms : 0;
  const uint64_t at_ms = until_ms != 0 ? std::min(time_ms, until_ms) : time_ms;
  const uint64_t silent_ms = time_ms - at_ms;
  const uint64_t span_ms = is_first ? record.life : record.life - flow->life_ms;
  FlowPoint point;
  point.time_ms = at_ms;
  point.stay = stay;
  if (silent_ms < span_ms) {
    const auto heard_ms = static_cast<uint32_t>(span_ms - silent_ms);
    point.sent_rate = Rate(record.total_sent_bytes, is_first ? 0 : flow->sent_bytes, heard_ms);
    point.recv_rate = Rate(record.total_recv_bytes, is_first ? 0 : flow->recv_bytes, heard_ms);
  }
  if (record.frontend_fine.total_send != 0 || record.frontend_fine.total_recv != 0) {
    point.frontend = SectionOf(record.frontend_fine);
  }
  if (record.topology_type == kTwoRelays) point.backend = SectionOf(record.backend_fine);
  point.direct_delay = flow->stays.back().tables.direct_delay;
  // A few more bytes may be counted after the move: they belong to its moment as well.
  if (silent_ms != 0 && !flow->points.empty() && flow->points.back().time_ms >= at_ms) {
    FlowPoint& last = flow->points.back();
    last.frontend = point.frontend;
    last.backend = point.backend;
    return;
  }
  if (flow->points.size() == kMostPoints) ThinOut(&flow->points);
  flow->points.push_back(point);
}

void FlowBook::AddTraffic(const Report& report) {
  const auto record = report.As<CommInfoRecord>();
  Flow* const flow =
      Find(Text(record.guid_str), Endpoint(Text(record.game_ip), record.game_port), report.time_ms);
  if (flow->ended && record.ended == 0) return;  // it was noted before the end, and came after it
  flow->type = TypeName(record.socket_type, 1, 2);
  flow->accelerated = true;
  const std::string endpoint = Endpoint(Text(record.proxy_ip), record.proxy_port);
  flow->game_id = record.game_id;
  const size_t stay =
      AddFigures(flow, record, {NodeName(record.proxy_idc, endpoint), endpoint}, report.time_ms);
  const bool stands_still = flow->moved && !flow->figures_follow &&
                            record.total_sent_bytes == flow->sent_bytes &&
                            record.total_recv_bytes == flow->recv_bytes;
  // The first figures come after the node's answer.
  const auto agreed = std::find_if(flow->marks.begin(), flow->marks.end(), [](const Mark& mark) {
    return mark.kind == MarkKind::kNegotiation;
  });
  if (flow->points.empty() && agreed != flow->marks.end()) {
    PullBack(&flow->marks, agreed + 1, report.time_ms);
  }
  if (report.direct) SetDirectInForce(&flow->stays.back().tables, *report.direct);
  if (!stands_still) AddPoint(flow, record, report.time_ms, stay);
  flow->life_ms = record.life;
  flow->sent_bytes = record.total_sent_bytes;
  flow->recv_bytes = record.total_recv_bytes;
  flow->sent_packets = record.total_sent_packets;
  flow->recv_packets = record.total_recv_packets;
  flow->sent_errors = record.total_sent_errors;
  flow->recv_errors = record.total_recv_errors;
  if (record.ended == 0 || flow->ended) return;
  PullBack(&flow->marks, flow->marks.end(), report.time_ms);
  AddMark(flow, report.time_ms, MarkKind::kEnd, "ended");
  EndStays(flow, report.time_ms);
  flow->ended = true;
  flow->last_ms = report.time_ms;
}

}  // namespace client
