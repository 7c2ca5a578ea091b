#include "tests/study/conditions.h"

#include "abi/mending_formats.h"
#include "tests/support/switch_config.h"

namespace study {
namespace {

using moru_vyr::lsp::AccConfigRecord;
using std::chrono::milliseconds;

// The settings without which nothing is measured, reported or switched. Everything else has the
// library's defaults.
void Unset(AccConfigRecord* config) {
  test::OpenSwitches(config);
  config->max_link_except_rep_num = 1000;
  config->max_link_switch_count = 1000;
}

// By default no node passes its trial, because the answer to a burst's last probe never counts.
void Least(AccConfigRecord* config) {
  Unset(config);
  config->switching_max_real_route_lost = 60;
}

void NoWatch(AccConfigRecord* config) {
  Least(config);
  // No window holds so many bursts. 0, the unset value, is a watch period without end.
  config->max_high_freq_test_count = 100;
  // The first look finds less than it needs to tell a quiet link from a dead one. In a watch period
  // that asks for nothing; here it would be a burst for each flow.
  config->ignore_high_freq_test_time = 2;
}

// Shorter windows see slots without a datagram, and take a healthy link for a dead one.
void Fast(AccConfigRecord* config) {
  NoWatch(config);
  config->lost_calc_unit_size = 100;
  config->recovery_window_word = 50;
  // Half as many probes, and so less waiting for the timer: the burst ends sooner.
  config->high_freq_test_interval = 100;
}

// For links of this length: a burst alone does not look like delay, and the verdict on the new
// node rests on 25 probes.
void Steady(AccConfigRecord* config) {
  NoWatch(config);
  config->max_delay_avg = 150;
  config->max_delay_amp = 25;
  config->switching_high_freq_test_interval = 20;
  config->switching_high_freq_test_time = 500;
  config->switching_max_real_route_lost = 15;
}

}  // namespace

sim::LinkOptions HealthyLink(double loss) {
  sim::LinkOptions link;
  link.delay = milliseconds(10);
  link.jitter = milliseconds(3);
  link.loss = loss;
  return link;
}

sim::LinkOptions Trouble::Link(double loss) const {
  sim::LinkOptions link = HealthyLink(loss);
  link.delay += milliseconds(delay_ms) / 2;
  link.jitter += milliseconds(jitter_ms);
  link.partitioned = node_down;
  return link;
}

const std::vector<Trouble>& Troubles() {
  static const std::vector<Trouble> all = {
      {.name = "dead", .words = "the node is gone", .node_down = true},
      {.name = "loss20", .words = "20 % lost each way", .loss_up = .2, .loss_down = .2},
      {.name = "loss40", .words = "40 % lost each way", .loss_up = .4, .loss_down = .4},
      {.name = "delay150", .words = "150 ms more", .delay_ms = 150},
      {.name = "jitter60", .words = "up to 60 ms more each way", .jitter_ms = 60},
      {.name = "down40", .words = "40 % lost from the node", .loss_down = .4},
      {.name = "up40", .words = "40 % lost to the node", .loss_up = .4},
      {.name = "both20",
       .words = "20 % lost each way, at both nodes",
       .loss_up = .2,
       .loss_down = .2,
       .at_both = true},
      {.name = "both-delay150",
       .words = "150 ms more, at both nodes",
       .delay_ms = 150,
       .at_both = true},
  };
  return all;
}

const std::vector<Settings>& AllSettings() {
  static const std::vector<Settings> all = {
      {"unset", "nothing set but what opens measuring and switching: no node ever passes", Unset,
       1000, 50},
      {"least", "the same, and 60 percent for the trial", Least, 1000, 50},
      {"no-watch", "the same without a watch period, so that each burst asked for is sent", NoWatch,
       1000, 50},
      {"fast", "as fast as a healthy link allows: slots of 100 ms", Fast, 1000, 50},
      {"steady", "for links of this length: delay from 150 ms on, a trial of 25 probes", Steady,
       1000, 500},
      {"mended", "as unset, for a client that asks for after-switch and judgement", Unset, 1000, 80,
       moru_vyr::lsp::kMendAfterSwitch | moru_vyr::lsp::kMendJudgement},
      {"on-time", "as mended, for a client that asks for throughput too", Unset, 1000, 80,
       moru_vyr::lsp::kMendAfterSwitch | moru_vyr::lsp::kMendJudgement |
           moru_vyr::lsp::kMendThroughput},
  };
  return all;
}

}  // namespace study
