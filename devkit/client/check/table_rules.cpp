#include "client/check/table_rules.h"

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "client/check/toml_node.h"
#include "common/text.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

constexpr uint32_t kMaxAskedLastNode = 0xffff;

// As the library compares paths: ASCII letters only.
std::string LowerCase(std::string text) {
  for (char& c : text) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return text;
}

class Checker {
 public:
  Checker(const toml::table& root, const Tables& tables, Problems* problems)
      : root_(root), tables_(tables), problems_(problems) {}

  void Run() {
    const RouteTableImage& image = tables_.route.image;
    CollectDataCentres();
    Games();
    Routes("route", image.route_sets[0]);
    Routes("route_mode2", image.route_sets[1]);
    Blacklist();
  }

 private:
  void Routes(const char* list, const RouteSet& set) {
    for (uint32_t i = 0; i < set.route_count; ++i) {
      const RouteEntry& route = set.routes[i];
      const std::string key = Entry(list, i);
      if (route.ref_default.proxy_idc == 0) {
        Say(Problem::Severity::kError, Line(list, i, "ref_default"), key + ".ref_default.node",
            "must be a node even where the verdict is against it: without one the verdict is lost "
            "and reads as DECISION_ACCE towards no address");
      }
      if (route.ref_both_modes.proxy_idc == 0 && AnyGameHasBothModes()) {
        Say(Problem::Severity::kError, Line(list, i, "ref_both_modes"), key + ".ref_both_modes",
            "must be a node: a game's net_mode has REF_BOTH_MODES, and without one this reads as "
            "DECISION_ACCE towards no address");
      }
      if (!known_.contains(route.game_idc)) {
        Doubt(Line(list, i, "game_idc"), key + ".game_idc",
              "no address and no port leads to " + std::to_string(route.game_idc) +
                  ", so this route is never used");
      }
      for (uint32_t group = 0; group < kSwitchGroups; ++group) {
        if (route.switch_groups[group].last_node <= kMaxAskedLastNode) continue;
        Doubt(Line(list, i, "switch_groups"), key + "." + Entry("switch_groups", group),
              "its last_node is above 65535 and cannot be asked for");
      }
    }
  }

  // The library takes the first game that lists a path; client programs know games by their number.
  void Games() {
    std::map<std::string, std::string> paths;
    std::map<uint64_t, std::string> numbers;
    const auto& games = tables_.restriction.games;
    for (uint32_t i = 0; i < std::size(games); ++i) {
      const std::string game = Entry("game", i);
      if (games[i].valid == 0) continue;
      for (uint32_t at = 0; at < games[i].path_count; ++at) {
        const std::string path(common::FieldText(games[i].game_paths[at]));
        const auto [first, is_new] = paths.emplace(LowerCase(path), game);
        if (is_new) continue;
        const std::string key = Entry("game_paths", at);
        Doubt(Line("game", i, key.c_str()), game + "." + key,
              "'" + path + "' is a path of " + first->second +
                  (first->second == game ? " already" : " already, whose settings count for it"));
      }
      const auto [first, is_new] = numbers.emplace(games[i].game_id, game);
      if (is_new) continue;
      Doubt(Line("game", i, "game_id"), game + ".game_id",
            "is that of " + first->second + " too: no report tells the two apart");
    }
  }

  void Blacklist() {
    for (uint32_t i = 0; i < tables_.blacklist.blacklist_count; ++i) {
      const BlacklistRecord& record = tables_.blacklist.records[i];
      if (record.game_id != 0 || record.ip != 0 || record.port != 0) continue;
      Doubt(Line("blacklist", i, "type"), Entry("blacklist", i),
            "names no game, no address and no port: such a record matches nothing");
    }
  }

  // All that an address or a port can lead to.
  void CollectDataCentres() {
    const IpTableRegion& ips = tables_.iptable;
    for (uint32_t i = 0; i < ips.ip_count; ++i) known_.insert(ips.records[i].game_idc);
    const SpurRegion& spurs = tables_.spur;
    for (uint32_t i = 0; i < spurs.spur_count; ++i) known_.insert(spurs.records[i].game_idc);
    for (const AccConfigRecord& game : tables_.restriction.games) {
      for (uint32_t i = 0; i < game.port_idc_count; ++i)
        known_.insert(game.port_idc_records[i].idc);
    }
  }

  bool AnyGameHasBothModes() const {
    const auto& games = tables_.restriction.games;
    return std::any_of(std::begin(games), std::end(games), [](const AccConfigRecord& game) {
      return (game.net_mode & kNetModeBothModes) == kNetModeBothModes;
    });
  }

  static std::string Entry(const std::string& list, uint32_t index) {
    return EntryKey(list, index);
  }

  unsigned Line(const char* list, uint32_t index, const char* key) const {
    return LineOfKey(root_, Entry(list, index) + "." + key);
  }

  void Doubt(unsigned line, const std::string& key, const std::string& reason) {
    Say(Problem::Severity::kWarning, line, key, reason);
  }
  void Say(Problem::Severity severity, unsigned line, const std::string& key,
           const std::string& reason) {
    problems_->push_back({severity, line, key, reason});
  }

  const toml::table& root_;
  const Tables& tables_;
  Problems* const problems_;
  std::set<uint32_t> known_;
};

}  // namespace

void CheckTables(const toml::table& root, const Tables& tables, Problems* problems) {
  Checker(root, tables, problems).Run();
}

}  // namespace client
