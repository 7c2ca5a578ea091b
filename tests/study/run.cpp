#include "tests/study/run.h"
#include "tests/support/log_texts.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "tests/scenario/udp_world.h"
#include "tests/study/links.h"

namespace study {
namespace {

using namespace sim_test;  // NOLINT: the verbs of scenarios
using udp_test::kPort;
using udp_test::kServer;

constexpr char kMark[] = "RESULT ";
constexpr DWORD kGameTurnMs = 50;  // of the game, which sends once in each

int Ms(sim::Duration time) {
  return static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(time).count());
}

// When each line that contains that text was written, in milliseconds of the world's time.
std::vector<int> TimesOf(const std::string& part, const std::string& log) {
  constexpr int kDay = 86'400'000;
  const int start = static_cast<int>(sim::Options{}.unix_start_ms % kDay);
  std::vector<int> times;
  for (std::size_t at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) {
    const std::size_t line = log.rfind('\n', at) + 1;  // npos + 1 is the first line
    int hour = 0, minute = 0, second = 0, ms = 0;
    if (std::sscanf(log.c_str() + line, "[%*d-%*d-%*d %d:%d:%d.%d]", &hour, &minute, &second,
                    &ms) != 4) {
      continue;
    }
    const int of_day = ((hour * 60 + minute) * 60 + second) * 1000 + ms;
    times.push_back((of_day - start + kDay) % kDay);
  }
  return times;
}

// How many flows have a line with that part.
int FlowsWith(const std::string& part, const std::string& log) {
  std::set<std::string> tokens;
  for (std::size_t at = log.find(part); at != std::string::npos; at = log.find(part, at + 1)) {
    const std::size_t end = log.find('\n', at);
    const std::size_t token = log.rfind("token=", end);
    if (token != std::string::npos && token > at) tokens.insert(log.substr(token, end - token));
  }
  return static_cast<int>(tokens.size());
}

class Play : public udp_test::UdpWorld {
 public:
  Play(const Settings& settings, const Losses& losses) : udp_test::UdpWorld(settings.mended) {
    Configures(settings.apply);
    sim::Host& player = world.home().host;
    for (sim::Host* node : {&a_host, &b_host}) {
      world.SetLinkOneWay(player, *node, HealthyLink(losses.up));
      world.SetLinkOneWay(*node, player, HealthyLink(losses.down));
      sim::LinkOptions to_server;
      to_server.delay = 5ms;
      world.SetLink(*node, server_host, to_server);
    }
    server->answer = [this](const std::string& text) {
      const bool by_b = server->heard.back().from == "B";
      server->heard.clear();
      if (by_b) {
        if (first_by_b < 0) first_by_b = Ms(world.now());
        by_b_.insert(text);
      }
      return text;
    };
  }

  // The game sends at its pace on each of its sockets for as long as the run lasts, and listens all
  // the time.
  void GamePlays(int flows = 1) {
    const int phase = static_cast<int>(world.random().Below(kGameTurnMs));
    GameThread([this, phase, flows] {
      Sleep(static_cast<DWORD>(phase));
      std::vector<SOCKET> sockets;
      for (int i = 0; i < flows; ++i) sockets.push_back(Udp());
      for (unsigned n = 0;; ++n) {
        for (const SOCKET s : sockets) Sends(s, std::to_string(s) + " " + std::to_string(n));
        const DWORD turn = GetTickCount();
        for (DWORD passed; (passed = GetTickCount() - turn) < kGameTurnMs;) {
          Listens(sockets, kGameTurnMs - passed);
        }
      }
    });
  }

  void Strike(const Trouble& trouble) {
    sim::Host& player = world.home().host;
    for (sim::Host* node : {&a_host, &b_host}) {
      if (node == &b_host && !trouble.at_both) continue;
      world.SetLinkOneWay(player, *node, trouble.Up());
      world.SetLinkOneWay(*node, player, trouble.Down());
    }
  }

  Outcome Through(const Trouble& trouble, const Spans& spans) {
    Starts(4);
    GamePlays();
    RunFor(std::chrono::seconds(spans.before) +
           std::chrono::milliseconds(world.random().Below(1000)));
    const int start = Ms(world.now());
    Strike(trouble);
    RunUntil([this] { return first_played >= 0; }, std::chrono::seconds(spans.limit));
    RunFor(100ms);  // what is on its way
    Outcome outcome = Describe(start);
    if (outcome.played >= 0 && spans.afterwards != 0) {
      const int switched = Ms(world.now());
      RunFor(std::chrono::seconds(spans.afterwards));
      outcome.later_trials = CountSince(switched, "switching is firing");
      outcome.later_switches = CountSince(switched, "::ReplaceSock");
    }
    return outcome;
  }

  Health InHealth(int flows, int minutes) {
    Starts(4);
    GamePlays(flows);
    RunFor(std::chrono::minutes(minutes));
    const std::string log = whole_log();
    Health health;
    health.flow_hours = flows * minutes / 60.0;
    health.bursts = static_cast<int>(TimesOf("requesting high freq test", log).size());
    health.trials = static_cast<int>(TimesOf("switching is firing", log).size());
    health.switches = static_cast<int>(TimesOf("::ReplaceSock", log).size());
    health.flows_moved = FlowsWith("::ReplaceSock", log);
    const std::size_t carried = a.Count("flow_opened") + b.Count("flow_opened");
    // A flow asks when it begins, another node where the first is not heard, and in each trial; a
    // link may lose the question.
    const std::size_t most = static_cast<std::size_t>(flows + health.trials) +
                             TimesOf("UdpRemoteSession::ChangeAcclServer", log).size();
    const std::size_t asked = a.Count("request") + b.Count("request");
    if (log.size() >= common::LogFile::kMaxWrittenTotal) {
      health.failure = "the log was full before the end";
    } else if (asked > most) {
      health.failure = "the nodes were asked " + std::to_string(asked) + " times, " +
                       std::to_string(most) + " at most by the log";
    } else if (carried < static_cast<std::size_t>(flows)) {
      health.failure = "only " + std::to_string(carried) + " flows were carried";
    }
    return health;
  }

 private:
  // At most that long.
  void Listens(const std::vector<SOCKET>& sockets, DWORD ms) {
    fd_set read = {};
    for (const SOCKET s : sockets) FD_SET(s, &read);
    const struct timeval most = {0, static_cast<int>(ms) * 1000};
    if (select(0, &read, nullptr, nullptr, &most) <= 0) return;
    char bytes[256];
    for (u_int i = 0; i < read.fd_count; ++i) {
      const int count = recv(read.fd_array[i], bytes, sizeof bytes, 0);
      if (count <= 0 || first_played >= 0 || by_b_.empty()) continue;
      if (by_b_.count({bytes, static_cast<std::size_t>(count)}) != 0) {
        first_played = Ms(world.now());
      }
    }
  }
  int CountSince(int moment, const char* part) const {
    const std::vector<int> times = TimesOf(part, whole_log());
    return static_cast<int>(
        std::count_if(times.begin(), times.end(), [=](int time) { return time >= moment; }));
  }

  Outcome Describe(int start) const {
    const std::string log = whole_log();
    const auto first = [&](const char* part) {
      for (const int time : TimesOf(part, log)) {
        if (time >= start) return time - start;
      }
      return -1;
    };
    Outcome outcome;
    outcome.noticed = first("requesting high freq test");
    outcome.fired = first("switching is firing");
    outcome.verified = first("Verifying result=succeeded");
    // Of the trial that passed: there may have been others before.
    for (const int time : TimesOf(test::kTrialAgreed, log)) {
      if (time >= start && time - start <= outcome.verified) outcome.answered = time - start;
    }
    if (first_by_b >= start) outcome.over_b = first_by_b - start;
    if (first_played >= start) outcome.played = first_played - start;
    for (const int time : TimesOf("switching is firing", log)) {
      ++(time < start ? outcome.before : outcome.trials);
    }
    if (a.Count("flow_opened") == 0) outcome.failure = "A never carried the flow";
    return outcome;
  }

  int first_by_b = -1, first_played = -1;
  std::set<std::string> by_b_;
};

// The child prints its result in its last line.
nlohmann::json InChild(uint64_t seed, const std::function<nlohmann::json(sim::World&)>& body) {
  sim::Options options;
  options.seed = seed;
  options.max_steps = 4'000'000'000;
  const sim::ChildResult result = sim::RunInChild(
      options,
      [&](sim::World& world) {
        std::printf("%s%s\n", kMark, body(world).dump().c_str());
        std::fflush(stdout);
      },
      [] { return testing::Test::HasFailure() ? sim::Verdict::kFailed : sim::Verdict::kPassed; },
      std::chrono::seconds(3600));
  const std::size_t at = result.output.rfind(kMark);
  if (!result.passed || at == std::string::npos) {
    return {{"failure", "the run " + result.HowItEnded() + "\n" + result.output}};
  }
  return nlohmann::json::parse(result.output.substr(at + sizeof kMark - 1));
}

}  // namespace

Outcome RunTrouble(uint64_t seed, const Trouble& trouble, const Settings& settings,
                   const Spans& spans) {
  const nlohmann::json said = InChild(seed, [&](sim::World&) -> nlohmann::json {
    // Leaked on purpose: its threads run until the process ends.
    const Outcome o = (new Play(settings, {}))->Through(trouble, spans);
    return {{"failure", o.failure},
            {"noticed", o.noticed},
            {"fired", o.fired},
            {"answered", o.answered},
            {"verified", o.verified},
            {"over_b", o.over_b},
            {"played", o.played},
            {"trials", o.trials},
            {"before", o.before},
            {"later_trials", o.later_trials},
            {"later_switches", o.later_switches}};
  });
  Outcome outcome;
  outcome.failure = said.value("failure", "");
  outcome.noticed = said.value("noticed", -1);
  outcome.fired = said.value("fired", -1);
  outcome.answered = said.value("answered", -1);
  outcome.verified = said.value("verified", -1);
  outcome.over_b = said.value("over_b", -1);
  outcome.played = said.value("played", -1);
  outcome.trials = said.value("trials", 0);
  outcome.before = said.value("before", 0);
  outcome.later_trials = said.value("later_trials", 0);
  outcome.later_switches = said.value("later_switches", 0);
  return outcome;
}

Health RunHealthy(uint64_t seed, const Losses& losses, const Settings& settings, int flows,
                  int minutes) {
  const nlohmann::json said = InChild(seed, [&](sim::World&) -> nlohmann::json {
    const Health h = (new Play(settings, losses))->InHealth(flows, minutes);
    return {{"failure", h.failure}, {"hours", h.flow_hours},  {"bursts", h.bursts},
            {"trials", h.trials},   {"switches", h.switches}, {"flows_moved", h.flows_moved}};
  });
  Health health;
  health.failure = said.value("failure", "");
  health.flow_hours = said.value("hours", 0.0);
  health.bursts = said.value("bursts", 0);
  health.trials = said.value("trials", 0);
  health.switches = said.value("switches", 0);
  health.flows_moved = said.value("flows_moved", 0);
  return health;
}

Health RunLinks(uint64_t seed, const Losses& losses, const Settings& settings, int links,
                int minutes) {
  const nlohmann::json said = InChild(seed, [&](sim::World& world) -> nlohmann::json {
    const Health h = WatchLinks(world.random(), losses, settings, links, minutes);
    return {{"hours", h.flow_hours},
            {"switches", h.switches},
            {"flows_moved", h.flows_moved},
            {"probes", h.probes}};
  });
  Health health;
  health.failure = said.value("failure", "");
  health.flow_hours = said.value("hours", 0.0);
  health.switches = said.value("switches", 0);
  health.flows_moved = said.value("flows_moved", 0);
  health.probes = said.value("probes", 0);
  return health;
}

}  // namespace study
