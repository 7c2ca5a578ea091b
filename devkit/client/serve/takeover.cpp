#include "client/serve/takeover.h"

#include "client/check/config_file.h"

namespace client {

TakeoverReport Takeover::Apply(std::string_view text, unsigned wait_ms) {
  TakeoverReport report;
  ConfigFile file = ParseConfig(text);
  report.problems = AllProblems(file);
  report.game_count = file.game_count;
  if (HasErrors(report.problems)) return report;
  const RegionServer::Outcome outcome = server_.Publish(*file.tables, wait_ms);
  report.failure = outcome.error;
  for (const RegionId region : outcome.written) {
    Change change = {.region = region, .summary = Summary(*file.tables, region)};
    if (region == kSpur) {
      std::set<unsigned long> pids = RunningGames(*file.tables);
      pids.insert(extra_pids_.begin(), extra_pids_.end());
      change.notified = notifier_.Notify(pids);
    }
    const bool is_filled = HasEntries(*file.tables, region);
    if (!is_filled) change.lost = filled_[region];
    filled_[region] = is_filled ? change.summary : "";
    report.changes.push_back(std::move(change));
  }
  return report;
}

bool HasEntries(const Tables& tables, RegionId region) {
  const auto& image = tables.route.image;
  switch (region) {
    case kMending:
      return HasContent(tables, Regions()[kMending]);
    case kRestriction:
      return tables.restriction.games[0].valid != 0;
    case kRoute:
      return image.route_sets[0].route_count + image.route_sets[1].route_count != 0;
    case kIpTable:
      return tables.iptable.ip_count != 0;
    case kBlacklist:
      return tables.blacklist.blacklist_count != 0;
    case kSpur:
      return tables.spur.spur_count != 0;
    default:
      return tables.launch_test.valid_count != 0;
  }
}

std::string Summary(const Tables& tables, RegionId region) {
  const auto counted = [](uint32_t count, const char* what, const char* plural = "s") {
    return std::to_string(count) + " " + what + (count == 1 ? "" : plural);
  };
  const auto& image = tables.route.image;
  switch (region) {
    case kMending: {
      uint32_t games = 0;
      for (const auto& game : tables.mending.games) games += game.mended != 0 ? 1 : 0;
      return counted(games, "game");
    }
    case kRestriction: {
      uint32_t games = 0;
      for (const auto& game : tables.restriction.games) games += game.valid != 0 ? 1 : 0;
      return counted(games, "game");
    }
    case kRoute:
      return counted(image.proxy_count, "node") + ", " +
             counted(image.route_sets[0].route_count, "route") + " and " +
             std::to_string(image.route_sets[1].route_count) + " for acc_mode 2";
    case kIpTable:
      return counted(tables.iptable.ip_count, "address", "es");
    case kBlacklist:
      return counted(tables.blacklist.blacklist_count, "record");
    case kSpur:
      return counted(tables.spur.spur_count, "address", "es");
    default:
      return counted(tables.launch_test.valid_count, "result");
  }
}

}  // namespace client
