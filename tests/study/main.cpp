// time_to_switch: how long a flow stays with a node that has gone bad, over many seeds.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "command_line.h"
#include "tests/study/run.h"

namespace {

using study::Outcome;
using study::Settings;
using study::Trouble;

struct Wanted {
  study::Spans spans;
  int seeds = 100, first_seed = 1;
  int healthy_minutes = 0, healthy_flows = 40, link_hours = 0;
  double healthy_loss_up = 0, healthy_loss_down = 0;  // percent
  std::vector<std::string> troubles, settings;
  bool json = false, quiet = false;
};

// Nearest rank; -1 of none.
int Percentile(std::vector<int> values, int percent) {
  if (values.empty()) return -1;
  std::sort(values.begin(), values.end());
  const std::size_t rank = (values.size() * static_cast<std::size_t>(percent) + 99) / 100;
  return values[std::max<std::size_t>(rank, 1) - 1];
}

void Progress(const Wanted& wanted, const std::string& what, int done, int all) {
  if (wanted.quiet) return;
  std::fprintf(stderr, "\r%-60s %d of %d ", what.c_str(), done, all);
  if (done == all) std::fprintf(stderr, "\r%80s\r", "");
}

// Times of the runs in which it happened.
std::vector<int> Times(const std::vector<Outcome>& all, int Outcome::*member) {
  std::vector<int> times;
  for (const Outcome& one : all) {
    if (one.*member >= 0) times.push_back(one.*member);
  }
  return times;
}

// Of a switch's time, what the settings ask for: the windows in which the trouble shows, bursts of
// so many probes so far apart. The rest is the worker's timer, at whose turns probes leave. Where
// there was more than one burst, the last one's share of that alone is taken off.
int Demanded(const Outcome& one, const Settings& settings) {
  const bool judged_by_burst = one.noticed >= 0 && one.fired - one.noticed >= settings.burst_ms;
  const int burst_over =
      judged_by_burst ? std::min(one.fired - one.noticed - settings.burst_ms, settings.burst_ms)
                      : 0;
  const int trial_over =
      one.verified >= 0 ? std::max(0, one.verified - one.answered - settings.trial_ms) : 0;
  return std::max(0, one.over_b - burst_over - trial_over);
}

// False: a run failed.
bool Study(const Wanted& wanted, const Trouble& trouble, const Settings& settings) {
  std::vector<Outcome> all;
  for (int i = 0; i < wanted.seeds; ++i) {
    const auto seed = static_cast<uint64_t>(wanted.first_seed + i);
    all.push_back(study::RunTrouble(seed, trouble, settings, wanted.spans));
    if (!all.back().failure.empty()) {
      std::fprintf(stderr, "\n%s, %s, seed %llu: %s\n", trouble.name, settings.name,
                   static_cast<unsigned long long>(seed), all.back().failure.c_str());
      return false;
    }
    Progress(wanted, std::string(settings.name) + ", " + trouble.name, i + 1, wanted.seeds);
  }
  int trials = 0, before = 0, later_trials = 0, later_switches = 0;
  double demanded = 0, total = 0;
  for (const Outcome& one : all) {
    trials += one.trials;
    before += one.before;
    later_trials += one.later_trials;
    later_switches += one.later_switches;
    if (one.over_b < 0) continue;
    demanded += Demanded(one, settings);
    total += one.over_b;
  }
  const std::vector<int> over_b = Times(all, &Outcome::over_b);
  const int share = total > 0 ? static_cast<int>(100 * demanded / total + .5) : -1;
  const int noticed = Percentile(Times(all, &Outcome::noticed), 50);
  const int fired = Percentile(Times(all, &Outcome::fired), 50);
  const int verified = Percentile(Times(all, &Outcome::verified), 50);
  const int played = Percentile(Times(all, &Outcome::played), 50);
  if (wanted.json) {
    const nlohmann::json line = {{"settings", settings.name},
                                 {"trouble", trouble.name},
                                 {"runs", all.size()},
                                 {"switched", over_b.size()},
                                 {"noticed_median_ms", noticed},
                                 {"fired_median_ms", fired},
                                 {"verified_median_ms", verified},
                                 {"over_b_median_ms", Percentile(over_b, 50)},
                                 {"over_b_p95_ms", Percentile(over_b, 95)},
                                 {"played_median_ms", played},
                                 {"demanded_percent", share},
                                 {"trials", trials},
                                 {"trials_before_trouble", before},
                                 {"later_trials", later_trials},
                                 {"later_switches", later_switches}};
    std::printf("%s\n", line.dump().c_str());
  } else {
    std::printf("%-8s %-14s %5zu %8zu %8d %8d %8d %8d %8d %8d %7d%% %7d %7d %7d\n", settings.name,
                trouble.name, all.size(), over_b.size(), noticed, fired, verified,
                Percentile(over_b, 50), Percentile(over_b, 95), played, share, trials, later_trials,
                later_switches);
  }
  std::fflush(stdout);
  return true;
}

bool StudyHealth(const Wanted& wanted, const Settings& settings) {
  study::Health sum;
  for (int i = 0; i < wanted.seeds; ++i) {
    const auto seed = static_cast<uint64_t>(wanted.first_seed + i);
    const study::Losses losses = {wanted.healthy_loss_up / 100, wanted.healthy_loss_down / 100};
    const study::Health one =
        study::RunHealthy(seed, losses, settings, wanted.healthy_flows, wanted.healthy_minutes);
    if (!one.failure.empty()) {
      std::fprintf(stderr, "\nhealthy, %s, seed %llu: %s\n", settings.name,
                   static_cast<unsigned long long>(seed), one.failure.c_str());
      return false;
    }
    sum.flow_hours += one.flow_hours;
    sum.bursts += one.bursts;
    sum.trials += one.trials;
    sum.switches += one.switches;
    sum.flows_moved += one.flows_moved;
    Progress(wanted, std::string(settings.name) + ", healthy", i + 1, wanted.seeds);
  }
  if (wanted.json) {
    const nlohmann::json line = {{"settings", settings.name},
                                 {"trouble", "none"},
                                 {"loss_up_percent", wanted.healthy_loss_up},
                                 {"loss_down_percent", wanted.healthy_loss_down},
                                 {"flow_hours", sum.flow_hours},
                                 {"bursts_asked_for", sum.bursts},
                                 {"trials", sum.trials},
                                 {"switches", sum.switches},
                                 {"flows_moved", sum.flows_moved}};
    std::printf("%s\n", line.dump().c_str());
  } else {
    std::printf(
        "%-8s healthy, %.2f %% lost up, %.2f %% down: %.1f hours of flows, %d bursts asked for, "
        "%d trials, %d switches of %d flows\n",
        settings.name, wanted.healthy_loss_up, wanted.healthy_loss_down, sum.flow_hours, sum.bursts,
        sum.trials, sum.switches, sum.flows_moved);
  }
  std::fflush(stdout);
  return true;
}

bool StudyLinks(const Wanted& wanted, const Settings& settings) {
  constexpr int kLinks = 50;
  const int minutes = std::clamp((wanted.link_hours * 60 + kLinks - 1) / kLinks, 1, 60);
  const study::Losses losses = {wanted.healthy_loss_up / 100, wanted.healthy_loss_down / 100};
  double hours = 0;
  int probes = 0, switches = 0, moved = 0;
  for (int i = 0; hours < wanted.link_hours; ++i) {
    const auto seed = static_cast<uint64_t>(wanted.first_seed + i);
    const study::Health one = study::RunLinks(seed, losses, settings, kLinks, minutes);
    if (!one.failure.empty()) {
      std::fprintf(stderr, "\nlinks, %s, seed %d: %s\n", settings.name, wanted.first_seed + i,
                   one.failure.c_str());
      return false;
    }
    hours += one.flow_hours;
    probes += one.probes;
    switches += one.switches;
    moved += one.flows_moved;
    Progress(wanted, std::string(settings.name) + ", links", static_cast<int>(hours),
             wanted.link_hours);
  }
  std::printf(
      "%-8s links of 20 to 150 ms, %.2f %% lost up, %.2f %% down: %.0f hours, %.0f probes an hour, "
      "%d switches of %d links\n",
      settings.name, wanted.healthy_loss_up, wanted.healthy_loss_down, hours, probes / hours,
      switches, moved);
  std::fflush(stdout);
  return true;
}

template <class Condition>
std::string Names(const std::vector<Condition>& all) {
  std::string text;
  for (const Condition& one : all) {
    text += std::string("\n  ") + one.name;
    text.append(text.size() - text.rfind('\n') < 18 ? 18 - (text.size() - text.rfind('\n')) : 1,
                ' ');
    text += one.words;
  }
  return text;
}

// False, and the name is in `*unknown`: there is none of that name. Nothing was named: all.
template <class Condition>
bool Choose(const std::vector<std::string>& names, std::vector<Condition>* all,
            std::string* unknown) {
  std::vector<Condition> chosen;
  for (const std::string& name : names) {
    const Condition* const found = study::Find(*all, name);
    if (found == nullptr) {
      *unknown = name;
      return false;
    }
    chosen.push_back(*found);
  }
  if (!names.empty()) *all = std::move(chosen);
  return true;
}

void AddOptions(devkit::CommandLine* line, Wanted* wanted) {
  line->Add("--seeds", &wanted->seeds, "runs of each kind").In(1, 1'000'000).ShowDefault();
  line->Add("--first-seed", &wanted->first_seed, "where to begin").ShowDefault();
  line->Add("--trouble", &wanted->troubles, "only these; 'none' for none");
  line->Add("--settings", &wanted->settings, "only these");
  line->Add("--limit", &wanted->spans.limit, "seconds after which a run has not switched")
      .ShowDefault();
  line->Add("--before", &wanted->spans.before, "seconds of healthy play before the trouble")
      .In(5, 3600)
      .ShowDefault();
  line->Add("--afterwards", &wanted->spans.afterwards,
            "seconds to play on with the trouble as it is, for the trials and moves of that time")
      .In(0, 3600)
      .ShowDefault();
  line->Add("--healthy-minutes", &wanted->healthy_minutes,
            "also play without trouble, so many minutes a seed; 0 does not")
      .In(0, 90)
      .ShowDefault();
  line->Add("--healthy-flows", &wanted->healthy_flows, "sockets of the game meanwhile")
      .In(1, 50)
      .ShowDefault();
  line->Add("--healthy-loss-up", &wanted->healthy_loss_up,
            "percent that such a link loses on the way to the node")
      .In(0.0, 100.0)
      .ShowDefault();
  line->Add("--healthy-loss-down", &wanted->healthy_loss_down, "… and on the way from it")
      .In(0.0, 100.0)
      .ShowDefault();
  line->Add("--link-hours", &wanted->link_hours,
            "also watch links without trouble on their own, so many hours of flows")
      .In(0, 10'000)
      .ShowDefault();
  line->Add("--json", &wanted->json, "one line of JSON for each row");
  line->Add("--quiet", &wanted->quiet, "no progress");
}

}  // namespace

int main(int argc, char** argv) {
  devkit::CommandLine line(
      {.program = argv[0],
       .text = "Measures, in the simulation, how long a game's flow stays with a node that has "
               "gone bad:\n"
               "from the start of the trouble to the first of the game's datagrams that its server "
               "gets "
               "over\n"
               "the other node, and what of that the rules of measuring demand. Medians in "
               "milliseconds.\n"
               "The player is 10 ms (swing 3 ms) from either node, a node 5 ms from the server; "
               "the game\n"
               "sends 20 datagrams a second and gets each back.",
       .footer = "Troubles:" + Names(study::Troubles()) +
                 "\nSettings:" + Names(study::AllSettings()) +
                 "\nExit codes: 0 done, 1 a run failed, above 100 wrong arguments."});
  Wanted wanted;
  AddOptions(&line, &wanted);
  if (const auto code = line.Parse(argc, argv)) return *code;
  const bool none = wanted.troubles.size() == 1 && wanted.troubles[0] == "none";
  auto troubles = none ? std::vector<Trouble>() : study::Troubles();
  auto settings = study::AllSettings();
  std::string unknown;
  if ((!none && !Choose(wanted.troubles, &troubles, &unknown)) ||
      !Choose(wanted.settings, &settings, &unknown)) {
    return line.Refuse("there is no '" + unknown + "': see --help");
  }
  if (!wanted.json && !troubles.empty()) {
    std::printf("%-8s %-14s %5s %8s %8s %8s %8s %8s %8s %8s %8s %7s %7s %7s\n", "settings",
                "trouble", "runs", "switched", "noticed", "fired", "verified", "over b", "95th",
                "played", "demanded", "trials", "later", "moved");
  }
  bool well = true;
  for (const Settings& each : settings) {
    for (const Trouble& trouble : troubles) well = Study(wanted, trouble, each) && well;
    if (wanted.healthy_minutes != 0) well = StudyHealth(wanted, each) && well;
    if (wanted.link_hours != 0) well = StudyLinks(wanted, each) && well;
  }
  return well ? 0 : 1;
}
