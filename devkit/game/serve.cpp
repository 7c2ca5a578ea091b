#include "game/serve.h"

#include <cstdio>
#include <nlohmann/json.hpp>

namespace game {
namespace {

using Json = nlohmann::ordered_json;

constexpr unsigned kStepMs = 100;  // how often it looks whether it is to end

void PrintLine(const Json& event) {
  std::printf("%s\n", event.dump().c_str());
  std::fflush(stdout);
}

void ReportServer(const Server& server) {
  Json players = Json::array();
  for (const auto& [key, player] : server.players()) {
    players.push_back({{"session", key.first},
                       {"server", key.second},
                       {"received", player.beats.received()},
                       {"duplicated", player.beats.duplicated()},
                       {"reordered", player.beats.reordered()},
                       {"answered", player.answered},
                       {"withheld", player.withheld},
                       {"address", player.last_address},
                       {"address_changes", player.address_changes}});
  }
  PrintLine({{"event", "summary"},
             {"players", players},
             {"strangers", server.strangers()},
             {"lobby", {{"guests", server.guests()}, {"words", server.words()}}}});
}

}  // namespace

bool Serve(const ServerOptions& options, const std::string& address,
           const volatile std::sig_atomic_t* ended) {
  Server server(options);
  const std::string error = server.Open();
  if (!error.empty()) {
    std::fprintf(stderr, "vyr_game: %s\n", error.c_str());
    return false;
  }
  PrintLine({{"event", "listening"}, {"address", address}});
  while (*ended == 0) server.Step(kStepMs);
  ReportServer(server);
  return true;
}

}  // namespace game
