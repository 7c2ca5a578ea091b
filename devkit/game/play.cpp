#include "game/play.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "game/heartbeat.h"
#include "game/icmp_ping.h"
#include "game/lobby.h"

namespace game {
namespace {

using Json = nlohmann::ordered_json;

constexpr uint64_t kSecondUs = 1'000'000;
constexpr int64_t kLongestWaitUs = 5000;  // answers to pings are asked for at least this often
constexpr unsigned kGoodbyeWaitMs = 2000;

double Percent(uint32_t part, uint32_t whole) { return whole == 0 ? 0 : part * 100.0 / whole; }

std::string InMs(uint32_t us) { return us == 0 ? "-" : std::to_string(us / 1000) + " ms"; }

Json FiguresJson(const PingFigures& figures) {
  return {{"min", figures.min_ms}, {"avg", figures.avg_ms}, {"max", figures.max_ms},
          {"p50", figures.p50_ms}, {"p99", figures.p99_ms}, {"jitter", figures.jitter_ms}};
}

class Game {
 public:
  explicit Game(const PlayOptions& options)
      : options_(options), beats_(options.servers, options.connected, options.size) {
    for (const sockaddr_in& server : options.servers) pings_.emplace_back(server);
  }

  bool Open() {
    std::string error = beats_.Open();
    if (error.empty() && options_.lobby) error = lobby_.Join(*options_.lobby);
    if (!error.empty()) {
      std::fprintf(stderr, "vyr_game: %s\n", error.c_str());
      return false;
    }
    if (lobby_.is_joined() && !options_.json) {
      std::printf("in the lobby as %s\n", lobby_.welcome().c_str());
    }
    for (size_t i = 0; options_.ping && i < pings_.size() && ping_error_.empty(); ++i) {
      ping_error_ = pings_[i].Open();
    }
    if (!ping_error_.empty()) {
      std::fprintf(stderr, "vyr_game: %s: plays on without a ping\n", ping_error_.c_str());
    }
    return true;
  }

  void Run(const volatile std::sig_atomic_t* ended) {
    const uint64_t begin = NowUs();
    const double step_us = kSecondUs / options_.rate;
    uint64_t beat = 0, second = 0;
    while (*ended == 0) {
      const uint64_t passed = NowUs() - begin;
      if (options_.seconds > 0 && static_cast<double>(passed) >= options_.seconds * kSecondUs)
        break;
      const auto due = static_cast<uint64_t>(static_cast<double>(beat) * step_us);
      if (passed >= due) {
        beats_.SendAll();
        ++beat;
        // A game that was held up does not catch up on the beats that it missed.
        if (passed > due + kSecondUs)
          beat = static_cast<uint64_t>(static_cast<double>(passed) / step_us);
        continue;
      }
      if (passed >= second * kSecondUs) EachSecond(second++);
      Wait(static_cast<int64_t>(due - passed));
    }
    const uint64_t end = NowUs() + uint64_t{options_.linger_ms} * 1000;
    while (NowUs() < end && !AllAnswered()) Wait(kLongestWaitUs);
    lobby_.Leave(kGoodbyeWaitMs);
    beats_.NotePorts();
  }

  void Report() const {
    if (options_.json) {
      std::printf("%s\n", Summary().dump().c_str());
    } else {
      ReportText();
    }
    std::fflush(stdout);
  }

 private:
  bool AllAnswered() const {
    return std::all_of(beats_.servers().begin(), beats_.servers().end(),
                       [](const ServerFigures& server) { return server.lost() == 0; });
  }

  void Wait(int64_t microseconds) {
    std::vector<SOCKET> sockets = beats_.sockets();
    if (lobby_.is_joined() && !lobby_.is_lost()) sockets.push_back(lobby_.socket());
    WaitReadable(sockets.data(), sockets.size(), std::min(microseconds, kLongestWaitUs));
    beats_.Receive();
    if (lobby_.is_joined() && !lobby_.is_lost()) lobby_.Receive();
    for (IcmpPing& ping : pings_) {
      if (ping.is_open()) ping.Receive();
    }
  }

  void EachSecond(uint64_t second) {
    if (second > 0 && !options_.json) ShowSecond(second);
    if (lobby_.is_joined()) lobby_.Say();
    for (IcmpPing& ping : pings_) {
      if (ping.is_open()) ping.Send();
    }
  }

  void ShowSecond(uint64_t second) {
    uint32_t sent = 0, answered = 0;
    for (const ServerFigures& server : beats_.servers()) {
      sent += server.sent;
      answered += server.answers.received();
    }
    uint32_t icmp_us = 0;
    for (IcmpPing& ping : pings_) icmp_us = std::max(icmp_us, ping.TakeLatestUs());
    const std::string icmp = options_.ping ? "  ICMP ping " + InMs(icmp_us) : "";
    std::printf("%4llu s  ping %s%s  answered %u of %u\n", static_cast<unsigned long long>(second),
                InMs(beats_.TakeLatestUs()).c_str(), icmp.c_str(), answered, sent);
    std::fflush(stdout);
  }

  Json Summary() const {
    Json servers = Json::array();
    for (const ServerFigures& server : beats_.servers()) {
      servers.push_back({{"server", EndpointText(server.address)},
                         {"sent", server.sent},
                         {"send_errors", server.send_errors},
                         {"arrived", server.arrived},
                         {"received", server.answers.received()},
                         {"lost", server.lost()},
                         {"duplicated", server.answers.duplicated()},
                         {"reordered", server.answers.reordered()},
                         {"source_mismatches", server.source_mismatches},
                         {"damaged", server.damaged},
                         {"own_port_begin", server.port_at_begin},
                         {"own_port_end", server.port_at_end},
                         {"ping_ms", FiguresJson(Summarize(server.round_trips_us))}});
    }
    Json summary = {{"event", "summary"},
                    {"rate", options_.rate},
                    {"connected", options_.connected},
                    {"servers", servers},
                    {"strangers", beats_.strangers()},
                    {"receive_errors", beats_.receive_errors()},
                    {"last_error", beats_.last_error()}};
    if (options_.lobby) {
      summary["lobby"] = {{"server", EndpointText(*options_.lobby)},
                          {"known_as", lobby_.welcome()},
                          {"said", lobby_.said()},
                          {"answered", lobby_.answered()},
                          {"wrong", lobby_.wrong()},
                          {"left_well", lobby_.was_left_well()}};
    }
    if (options_.ping) summary["icmp"] = PingJson();
    return summary;
  }

  Json PingJson() const {
    if (!ping_error_.empty()) return {{"error", ping_error_}};
    Json all = Json::array();
    for (const IcmpPing& ping : pings_) {
      all.push_back({{"server", EndpointText(ping.server())},
                     {"sent", ping.sent()},
                     {"received", ping.round_trips_us().size()},
                     {"ping_ms", FiguresJson(Summarize(ping.round_trips_us()))}});
    }
    return all;
  }

  void ReportText() const {
    for (const ServerFigures& server : beats_.servers()) {
      const PingFigures ping = Summarize(server.round_trips_us);
      std::printf("%s: ping %.1f ms (%.1f to %.1f, jitter %.1f), lost %u of %u (%.1f %%)\n",
                  EndpointText(server.address).c_str(), ping.avg_ms, ping.min_ms, ping.max_ms,
                  ping.jitter_ms, server.lost(), server.sent, Percent(server.lost(), server.sent));
      std::printf(
          "  %u duplicated, %u reordered, %u from another source, %u damaged; "
          "own port %u at the beginning, %u at the end\n",
          server.answers.duplicated(), server.answers.reordered(), server.source_mismatches,
          server.damaged, server.port_at_begin, server.port_at_end);
    }
    for (const IcmpPing& ping : pings_) {
      if (!ping.is_open()) continue;
      const PingFigures figures = Summarize(ping.round_trips_us());
      std::printf("ICMP ping to %s: %zu of %u answered, %.1f ms (%.1f to %.1f)\n",
                  inet_ntoa(ping.server().sin_addr), ping.round_trips_us().size(), ping.sent(),
                  figures.avg_ms, figures.min_ms, figures.max_ms);
    }
    if (options_.lobby) {
      std::printf("lobby: %u of %u words answered, %s\n", lobby_.answered(), lobby_.said(),
                  lobby_.was_left_well() ? "left well" : "lost");
    }
  }

  const PlayOptions& options_;
  Heartbeat beats_;
  Lobby lobby_;
  std::vector<IcmpPing> pings_;
  std::string ping_error_;
};

}  // namespace

bool Play(const PlayOptions& options, const volatile std::sig_atomic_t* ended) {
  Game game(options);
  if (!game.Open()) return false;
  game.Run(ended);
  game.Report();
  return true;
}

}  // namespace game
