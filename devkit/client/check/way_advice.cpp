#include "client/check/way_advice.h"

#include <algorithm>

#include "quality/link_identity.h"
#include "quality/link_thresholds.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

class WaysAdviser {
 public:
  WaysAdviser(const AccConfigRecord& game, const SwitchWays& ways, std::vector<Advice>* found)
      : game_(game), ways_(ways), found_(found) {}

  void Routes() {
    bool any_way_out = ways_.has_manual_candidates;
    for (const RouteUse& route : ways_.routes) {
      any_way_out |= route.leads_elsewhere;
      if (!route.has_groups) continue;
      if (!route.leads_elsewhere) {
        Say(route.key + ".switch_groups", "lead to no other node than the one that is left");
      } else if (route.last_node != 0 && !route.has_group_of_last_node) {
        Say(route.key + ".switch_groups",
            "none is for last node " + std::to_string(route.last_node) +
                ", to which the route's own way leads: its flows have nowhere to go");
      }
    }
    if (!any_way_out && !ways_.routes.empty()) {
      const std::string& first = ways_.routes.front().key;
      Say(first.substr(0, first.find('[')),
          "no route has a switch group with another node: no flow has anywhere to move");
    }
  }

  void Nodes() {
    SayOfEach(
        ".flag", [](const NodeUse& n) { return n.carries && (n.flag & kLinkMayBeMeasured) == 0; },
        "lacks 2: links through this node are not measured, so its flows never move");
    SayOfEach(
        ".flag",
        [](const NodeUse& n) {
          return n.carries && (n.flag & kLinkMayBeMeasured) != 0 && (n.flag & kLinkMaySwitch) == 0;
        },
        "lacks 4: links through this node are measured, but its flows never move");
    SayOfEach(
        ".flag",
        [](const NodeUse& n) {
          return n.is_candidate && !n.carries && (n.flag & kLinkMayBeMeasured) == 0;
        },
        "lacks 2: flows may move to this node, but its trial is not measured, never ends, and "
        "blocks all later ones");
    const uint32_t mask = game_.link_switch_mask;
    SayOfEach(
        ".type",
        [mask](const NodeUse& n) { return mask != 0 && n.type <= 1 && (mask >> n.type & 1) == 0; },
        "is one that link_switch_mask leaves out: links through this node are not measured");
    SayOfEach(
        ".surport_isps", [](const NodeUse& n) { return n.may_refuse && n.surport_isps == 0; },
        "0: the node serves no internet provider, so each negotiation with it fails");
  }

  void Delays() {
    for (const NodeUse& node : ways_.nodes) {
      if (node.carries && (DelayAtRest(node) || DelayOfBurst(node) || LateAnswers(node))) break;
    }
    for (const NodeUse& node : ways_.nodes) {
      if (node.is_candidate && Trial(node)) break;
    }
  }

 private:
  // The delay that the table itself gives for the link counts as bad.
  bool DelayAtRest(const NodeUse& node) {
    const uint64_t most = thresholds::MaxDelayAvg(game_, false);
    if (node.section1_delay < most) return false;
    SayOfGame("max_delay_avg", std::to_string(most) + " ms, and " + node.name + " is " +
                                   std::to_string(node.section1_delay) +
                                   " ms away at the best of times: its links are bad from the "
                                   "start and flows move without need");
    return true;
  }

  bool DelayOfBurst(const NodeUse& node) {
    const uint64_t most = thresholds::MaxDelayAvg(game_, false);
    const uint64_t cycles = thresholds::LongCycle(game_);
    const uint64_t interval = thresholds::HighFreqTestInterval(game_, false);
    const uint64_t burst = thresholds::HighFreqTestTime(game_, false) / interval;
    const uint64_t in_cycle = thresholds::NormTestInterval(game_) / (interval + kLongestPassMs);
    const uint64_t at_once = std::clamp<uint64_t>(in_cycle, 1, std::max<uint64_t>(burst, 1));
    const uint64_t shown = node.section1_delay * (cycles - 1 + at_once) / cycles;
    if (shown < most) return false;
    SayOfGame("max_delay_avg", std::to_string(most) + " ms: a burst adds up the delays of " +
                                   std::to_string(at_once) + " probes in one cycle, so that the " +
                                   std::to_string(node.section1_delay) + " ms of " + node.name +
                                   " read as " + std::to_string(shown) +
                                   " ms: whatever starts a burst moves the flow");
    return true;
  }

  // Answers that come after their slot has closed are missing from it when a burst is judged.
  bool LateAnswers(const NodeUse& node) {
    const uint64_t grace = thresholds::RecoveryWindow(game_);
    if (node.section1_delay <= grace) return false;
    const uint64_t window =
        std::max<uint64_t>(thresholds::LongCycle(game_) * thresholds::LostCalcUnitSize(game_), 1);
    const uint64_t missing = (node.section1_delay - grace) * 100 / window;
    if (missing < thresholds::MaxRealRouteLost(game_)) return false;
    SayOfGame("recovery_window_word", std::to_string(grace) + " ms: answers of " + node.name +
                                          " take " + std::to_string(node.section1_delay) +
                                          " ms, so that about " + std::to_string(missing) +
                                          " % of a healthy link's probes look lost");
    return true;
  }

  bool Trial(const NodeUse& node) {
    const uint64_t probes = TrialProbes(game_);
    const uint64_t most = thresholds::MaxRealRouteLost(game_, true);
    if (probes == 0 || 200 / probes >= most) return false;  // already reported for every node
    const uint64_t step = kLongestPassMs + uint64_t{thresholds::HighFreqTestInterval(game_, true)};
    const uint64_t open = std::min(1 + node.section1_delay / step, probes);
    const uint64_t shown = open * 100 / probes;
    if (shown < most) return false;
    SayOfGame("switching_max_real_route_lost",
              std::to_string(most) + " %: " + node.name + " is " +
                  std::to_string(node.section1_delay) + " ms away, so that at a trial's end " +
                  std::to_string(shown) +
                  " % of its probes are still out and look lost: it never passes");
    return true;
  }

  // One warning for all nodes that share a fault, at the first of them.
  template <typename Test>
  void SayOfEach(const char* key, Test has_fault, const std::string& reason) {
    const auto count = std::count_if(ways_.nodes.begin(), ways_.nodes.end(), has_fault);
    if (count == 0) return;
    const auto first = std::find_if(ways_.nodes.begin(), ways_.nodes.end(), has_fault);
    const std::string more =
        count == 1 ? ""
                   : " (the same at " + std::to_string(static_cast<uint64_t>(count) - 1) + " more)";
    Say(first->key + key, reason + more);
  }

  void Say(const std::string& key, const std::string& reason) {
    found_->push_back({key, reason, false});
  }
  void SayOfGame(const char* key, const std::string& reason) { found_->push_back({key, reason}); }

  const AccConfigRecord& game_;
  const SwitchWays& ways_;
  std::vector<Advice>* const found_;
};

}  // namespace

void AdviseOnWays(const AccConfigRecord& game, const SwitchWays& ways, std::vector<Advice>* found) {
  WaysAdviser adviser(game, ways, found);
  adviser.Routes();
  adviser.Nodes();
  adviser.Delays();
}

}  // namespace client
