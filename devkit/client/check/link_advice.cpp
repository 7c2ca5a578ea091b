#include "client/check/link_advice.h"

#include <algorithm>

#include "common/text.h"
#include "quality/link_thresholds.h"
#include "quality/lost_calc.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

constexpr uint32_t kShortUnitMs = 70;     // below it slots stay without a probe of a burst
constexpr uint32_t kManyDatagrams = 100;  // a second; few games send so much

std::string Number(uint64_t number) { return std::to_string(number); }

bool Lists(std::string_view list, uint64_t game_id) {
  for (;;) {
    const size_t comma = list.find(',');
    if (list.substr(0, comma) == Number(game_id)) return true;
    if (comma == std::string_view::npos) return false;
    list.remove_prefix(comma + 1);
  }
}

class SettingsAdviser {
 public:
  SettingsAdviser(const AccConfigRecord& game, std::vector<Advice>* found)
      : game_(game), found_(found) {}

  void Gates() {
    if (game_.switch_open == 0) {
      Say("switch_open", "0: no flow ever moves, though other keys speak of moving");
    }
    if (game_.link_switch_mask == 0) {
      Say("link_switch_mask", "0: no link is measured, so none is found bad and no flow moves");
    }
    if (!Lists(common::FieldText(game_.list_text), game_.game_id)) {
      Say("list_text", "does not list game_id " + Number(game_.game_id) +
                           ": the game's links are not measured, so no flow moves");
    }
    if (game_.game_link_switch_open == 0) {
      Say("game_link_switch_open",
          "0: a node that passed its trial is reported and left, and the flow stays");
    }
    if (game_.max_link_switch_count == 0) Say("max_link_switch_count", "0: no flow ever moves");
    if (game_.max_link_switch_count > 1) {
      Say("max_link_switch_count",
          Number(game_.max_link_switch_count) +
              ": after a move the loss of the old link is remembered for as long as the flow was "
              "old, so the new node can be left though nothing is wrong with it; 1 avoids it");
    }
    if (game_.max_link_except_rep_num == 0) {
      Say("max_link_except_rep_num", "0: links are never checked, so no flow moves");
    } else if (game_.max_link_except_rep_num < game_.max_link_switch_count) {
      Say("max_link_except_rep_num",
          "checking ends after " + Number(game_.max_link_except_rep_num) +
              " reports, and each of max_link_switch_count's moves takes one: the last ones "
              "never come");
    }
  }

  void Windows() {
    const uint64_t unit = thresholds::LostCalcUnitSize(game_);
    const uint64_t cycles = thresholds::LongCycle(game_);
    if (unit < LostCalc::kMinUnitMs) {
      Say("lost_calc_unit_size", Number(unit) +
                                     " ms is too short to count losses in, so nothing "
                                     "is measured and no flow moves");
    } else if (unit < kShortUnitMs ||
               unit * cycles <= thresholds::HighFreqTestInterval(game_, false) + kLongestPassMs) {
      Say("lost_calc_unit_size",
          Number(unit) +
              " ms leave ranges without a probe, and an empty range counts as loss: a "
              "healthy link is found bad");
    }
    if (cycles > LostCalc::kSlots) {
      Say("long_cycle", Number(cycles) + " cycles are more than the " + Number(LostCalc::kSlots) +
                            " that can be kept: nothing is measured and no flow moves");
    }
    if (cycles == 1 && game_.max_delay_amp != 0) {
      Say("max_delay_amp",
          "with long_cycle 1 no swing of the delay is ever computed, so this "
          "finds no link bad");
    }
    const uint64_t quiet = thresholds::ShortCycle(game_) * unit;
    const uint64_t probe = thresholds::NormTestInterval(game_);
    if (quiet <= probe) {
      Say("short_cycle", "its range of " + Number(quiet) + " ms holds no probe of the " +
                             Number(probe) +
                             " ms interval for sure: a flow whose game says "
                             "nothing for so long looks dead and gets bursts");
    }
  }

  void DataLink() {
    RateOfTheGame();
    LoneDatagram();
  }

  void RateOfTheGame() {
    const uint64_t window =
        std::max<uint64_t>(thresholds::ShortCycle(game_) * thresholds::LostCalcUnitSize(game_), 1);
    const uint64_t rate = thresholds::DataLinkShortCyclePkg(game_) * 1000 / window;
    if (rate <= kManyDatagrams) return;
    Say("data_link_short_cycle_pkg",
        "only a game that receives " + Number(rate) + " datagrams a second fills the range of " +
            Number(window) + " ms: for others the loss of their data counts for nothing");
  }

  // Of as few datagrams as the long range may hold. The floors of the short range rule this out.
  void LoneDatagram() {
    const uint64_t least = thresholds::DataLinkLongCyclePkg(game_);
    const uint64_t most = thresholds::DataLinkLongCycleLost(game_);
    const uint64_t shown = 100 / (least + 1);
    if (shown < most) return;
    Say("data_link_long_cycle_lost",
        Number(most) + " %: one datagram that is lost is " + Number(shown) +
            " % of a range that holds " + Number(least) +
            " others, which is enough by data_link_long_cycle_pkg, so that a single lost one has "
            "a healthy link probed in a burst");
  }

  void Bursts() {
    const uint64_t interval = thresholds::HighFreqTestInterval(game_, false);
    const uint64_t time = thresholds::HighFreqTestTime(game_, false);
    if (interval > time) {
      Say("high_freq_test_interval", Number(interval) + " ms are more than a burst's " +
                                         Number(time) +
                                         " ms: bursts have no probe, and loss finds no link bad");
    }
    // The check before the first slot has closed finds nothing at all, which looks like a dead
    // link.
    const uint64_t first_slot =
        uint64_t{0} + thresholds::LostCalcUnitSize(game_) + thresholds::RecoveryWindow(game_);
    const uint64_t ignore = game_.ignore_high_freq_test_time * uint64_t{1000};
    if (ignore < first_slot) {
      Say("ignore_high_freq_test_time",
          Number(game_.ignore_high_freq_test_time) + " s: the first range of a flow closes after " +
              Number(first_slot) +
              " ms, and until then its link looks dead: each new flow gets a burst, whose delays "
              "add up to a high average; " +
              Number((first_slot + 999) / 1000) + " avoids it");
    }
    if (game_.max_high_freq_test_count == 0) {
      Say("max_high_freq_test_count",
          "0: the watch period begins at once and never ends, so bursts are refused until the "
          "ordinary probes alone show max_real_route_lost");
    }
  }

  void Trial() {
    const uint32_t interval = thresholds::HighFreqTestInterval(game_, true);
    const uint32_t time = thresholds::HighFreqTestTime(game_, true);
    if (interval > time) {
      Say("switching_high_freq_test_interval",
          Number(interval) + " ms are more than the trial's " + Number(time) +
              " ms: a trial has no probe and never ends, and blocks all later ones");
      return;
    }
    const uint64_t probes = TrialProbes(game_);
    if (probes == 0) {
      Say("switching_high_freq_test_time",
          "a trial of one probe shows no loss either way, which counts as loss: no node passes");
      return;
    }
    const uint32_t most = thresholds::MaxRealRouteLost(game_, true);
    const std::string shown = "the verdict falls as a trial's last probe leaves, so of the " +
                              Number(probes) + " that count one looks lost, " +
                              Number(100 / probes) + " %; ";
    if (100 / probes >= most) {
      Say("switching_max_real_route_lost", shown + "at " + Number(most) + " % no node ever passes");
    } else if (200 / probes >= most) {
      Say("switching_max_real_route_lost",
          shown + "at " + Number(most) +
              " % a node whose answer takes longer than the next probe fails, however healthy");
    }
  }

 private:
  void Say(const char* key, const std::string& reason) { found_->push_back({key, reason}); }

  const AccConfigRecord& game_;
  std::vector<Advice>* const found_;
};

}  // namespace

uint64_t TrialProbes(const AccConfigRecord& game) {
  const uint64_t interval = thresholds::HighFreqTestInterval(game, true);
  const uint64_t sent = thresholds::HighFreqTestTime(game, true) / interval;
  const uint64_t unit = thresholds::LostCalcUnitSize(game) + kLongestPassMs;
  const uint64_t range = thresholds::LongCycle(game) * unit / interval;
  if (sent == 0) return 0;
  return std::min(sent - 1, std::max<uint64_t>(range, 1));
}

void AdviseOnGates(const AccConfigRecord& game, std::vector<Advice>* found) {
  SettingsAdviser(game, found).Gates();
}

void AdviseOnMeasuring(const AccConfigRecord& game, std::vector<Advice>* found) {
  SettingsAdviser adviser(game, found);
  adviser.Windows();
  adviser.DataLink();
  adviser.Bursts();
  adviser.Trial();
}

}  // namespace client
