#include "client/explain/explain.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "client/explain/reason_words.h"
#include "client/fields/text_rules.h"
#include "common/text.h"
#include "quality/link_thresholds.h"
#include "route/acc_config.h"
#include "route/acc_mode.h"
#include "route/decision.h"
#include "route/destination.h"
#include "route/route.h"
#include "route/route_file.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;
using common::FieldText;

constexpr uint32_t kSilent = 100;  // a log level above all lines

template <size_t N>
std::string Text(const char (&field)[N]) {
  return std::string(FieldText(field));
}

std::string Number(uint64_t number) { return std::to_string(number); }

std::string Counted(uint64_t count, const char* thing, const char* plural) {
  return Number(count) + " " + thing + (count == 1 ? "" : plural);
}

// The path that is meant, by itself or by its file's name; empty if it is none of the game's.
std::string AskedPath(const AccConfigRecord& game, const std::string& wanted) {
  const uint32_t count = std::min(game.path_count, kMaxGamePaths);
  for (uint32_t i = 0; i < count; ++i) {
    std::string path = Text(game.game_paths[i]);
    if (common::EqualsIgnoreCase(path, wanted) ||
        common::EqualsIgnoreCase(path.substr(path.rfind('\\') + 1), wanted)) {
      return path;
    }
  }
  return "";
}

bool IsAsked(const AccConfigRecord& game, const std::string& wanted) {
  if (game.valid == 0) return false;
  return wanted.empty() || wanted == Number(game.game_id) || !AskedPath(game, wanted).empty();
}

const AccConfigRecord* FindGame(const Tables& tables, const std::string& wanted) {
  for (const AccConfigRecord& game : tables.restriction.games) {
    if (IsAsked(game, wanted)) return &game;
  }
  return nullptr;
}

Way WayOf(const RouteProxyInfo& proxy) {
  return {.name = Text(proxy.proxy_name),
          .proxy_idc = proxy.proxy_idc,
          .address = Text(proxy.proxy_addr) + ":" + Number(proxy.proxy_port),
          .section1_delay = proxy.section1_delay,
          .section1_lost = proxy.section1_lost,
          .section2_delay = proxy.section2_delay,
          .section2_lost = proxy.section2_lost,
          .decision = DecisionName(proxy.decision, nullptr)};
}

class Explainer {
 public:
  Explainer(const Tables& tables, const Question& question, const std::vector<SwitchAdvice>& advice)
      : tables_(tables), question_(question), advice_(advice), route_(std::make_unique<Route>()) {}

  Explanation Run() {
    const AccConfigRecord* const game = FindGame(tables_, question_.game);
    if (game == nullptr) {
      out_.problem = question_.game.empty() ? "no game is listed"
                                            : "no listed game is '" + question_.game + "'";
      return out_;
    }
    Describe(*game);
    LoadAsTheGame(*game);
    if (AskGame() && AskNeedRelay()) AskMakeDecision();
    if (out_.accelerated && question_.udp) {
      TakeWarnings(static_cast<uint32_t>(game - tables_.restriction.games));
    }
    if (out_.acc_reason) out_.reason = ReasonWords(*out_.acc_reason);
    return out_;
  }

 private:
  void Describe(const AccConfigRecord& game) {
    out_.destination = AddressText(question_.ip) + ":" + Number(question_.port);
    out_.protocol = question_.udp ? "UDP" : "TCP";
    out_.game_path = AskedPath(game, question_.game);
    if (out_.game_path.empty() && game.path_count != 0) out_.game_path = Text(game.game_paths[0]);
    out_.game_id = game.game_id;
    out_.mended = tables_.mending.games[&game - tables_.restriction.games].mended;
    out_.vip_level = question_.vip_level.value_or(game.game_vip_level);
  }

  // The tables go in one by one, because a region of the same name may stand for a running game.
  void LoadAsTheGame(const AccConfigRecord& game) {
    AccConfig config;
    static_cast<AccConfigRecord&>(config) = game;
    config.game_vip_level = out_.vip_level;
    config.log_level = kSilent;
    if ((config.net_mode & kNetModeAsyTcp) != 0) config.net_mode |= kNetModeTcp;
    common::SetFieldText(config.route_binary_file_path,
                         FieldText(tables_.restriction.route_binary_file_path));
    ReplaceAccConfig(config);
    LoadRoutes();
    route_->ip_table().LoadIpTableFromMem(tables_.iptable);
    route_->blacklist().LoadBlacklistTableFromMem(tables_.blacklist);
    route_->spur_list().LoadSpurIplistTableFromMem(tables_.spur);
    route_->port_map().LoadPortIdcTable();
    route_->launch_test().LoadGltTableFromMem(tables_.launch_test);
  }

  void LoadRoutes() {
    auto image = std::make_unique<RouteTableImage>(tables_.route.image);
    const bool found =
        HasContent(tables_, Regions()[kRoute]) ||
        LoadRouteFromBinFile(GetAccConfig()->route_binary_file_path, image.get(), sizeof *image);
    if (found) route_->route_table().LoadRouteFromMem(*image);
  }

  // --- the game's own entry ---

  bool AskGame() {
    const AccConfig& config = *GetAccConfig();
    const ModeVerdict verdict = ExamineModes(config.net_mode, config.acc_mode, SocketType());
    if (verdict == ModeVerdict::kNeedsAccMode) {
      return Stop("acc_mode is 0, and net_mode has REFUSE_WITHOUT_ACC_MODE",
                  "the game's entry refuses every relay while acc_mode is 0");
    }
    if ((config.net_mode & kNetModeRefuseWithoutAccMode) != 0) {
      Pass("acc_mode is not 0, as REFUSE_WITHOUT_ACC_MODE wants it");
    }
    const std::string mode = "its net_mode " + HexNumber(config.net_mode);
    if (verdict == ModeVerdict::kNotRelayed) {
      return Stop("the game does not relay " + out_.protocol + ": " + mode + " lacks it",
                  "the game's entry does not ask for " + out_.protocol);
    }
    Pass("the game relays " + out_.protocol + " (" + mode + ")");
    return true;
  }

  // --- whether the relay should take it at all ---

  bool AskNeedRelay() {
    uint32_t idc = 0;
    const RelayVerdict verdict = route_->ExamineRelay(question_.ip, Port(), SocketType(), &idc);
    constexpr RelayVerdict kOrder[] = {RelayVerdict::kInnerIp, RelayVerdict::kNoIpTable,
                                       RelayVerdict::kExcludedPort, RelayVerdict::kNotInIpTable,
                                       RelayVerdict::kBlacklisted};
    for (const RelayVerdict test : kOrder) {
      if (test != verdict) {
        Pass(RelayTestPassed(test, idc));
        continue;
      }
      Stop(RelayTestFailed(test), RelayConclusion(test));
      // What a decision would have reported. It does not look at the blacklist.
      if (test != RelayVerdict::kBlacklisted && !Decide(nullptr)) {
        out_.acc_reason = info_.acc_reason;
      }
      return false;
    }
    return route_->NeedRelay(question_.ip, Port(), SocketType(), 0, 0);
  }

  std::string RelayTestPassed(RelayVerdict test, uint32_t idc) const {
    switch (test) {
      case RelayVerdict::kInnerIp:
        return "the address is outside the player's own network";
      case RelayVerdict::kNoIpTable:
        return "the IP table is loaded: " + Counted(route_->ip_table().size(), "address", "es") +
               " at VIP level " + Number(out_.vip_level);
      case RelayVerdict::kExcludedPort:
        return question_.udp ? "UDP ports are never excluded"
                             : "TCP port " + Number(question_.port) + " is not excluded";
      case RelayVerdict::kNotInIpTable:
        return "the destination is known: data centre " + Number(idc) + ", by " + KnownBy();
      default:
        return "it is not on the blacklist (" + Counted(route_->blacklist().size(), "record", "s") +
               ")";
    }
  }

  std::string RelayTestFailed(RelayVerdict test) const {
    switch (test) {
      case RelayVerdict::kInnerIp:
        return "the address is inside the player's own network, where no node could reach it";
      case RelayVerdict::kNoIpTable:
        return "there is no IP table, or none of its " + Number(tables_.iptable.ip_count) +
               " addresses is of VIP level " + Number(out_.vip_level);
      case RelayVerdict::kExcludedPort:
        return "TCP port " + Number(question_.port) + " is one of the game's excluded_ports";
      case RelayVerdict::kNotInIpTable:
        return "the destination is unknown: " + WhyUnknown();
      default:
        return "it is on the blacklist: " + BlockedBy();
    }
  }

  std::string RelayConclusion(RelayVerdict test) const {
    switch (test) {
      case RelayVerdict::kInnerIp:
        return "the address belongs to the player's own network";
      case RelayVerdict::kNoIpTable:
        return "there is no IP table for this user";
      case RelayVerdict::kExcludedPort:
        return "the game keeps this port direct";
      case RelayVerdict::kNotInIpTable:
        return OtherLevels().empty() ? "nothing says that this is one of the game's servers"
                                     : "the address is for users of another VIP level";
      default:
        return "it is on the blacklist";
    }
  }

  std::string KnownBy() const {
    if (route_->ip_table().Find(question_.ip) != nullptr) {
      const IpTableRegion& table = tables_.iptable;
      for (uint32_t i = std::min(table.ip_count, kMaxIpRecords); i-- > 0;) {
        const IpRecord& record = table.records[i];
        const bool same_level = record.game_idc / 100 % 10 == out_.vip_level;
        if (record.ip == question_.ip && same_level) {
          return "record " + Number(i + 1) + " of the IP table";
        }
      }
    }
    if (route_->spur_list().Find(question_.ip)) {
      for (uint32_t i = std::min(tables_.spur.spur_count, kMaxSpurRecords); i-- > 0;) {
        if (tables_.spur.records[i].ip == question_.ip) {
          return "record " + Number(i + 1) + " of the spur list";
        }
      }
    }
    if (route_->port_map().all_port_idc() != 0) return "the game's port map, which has every port";
    return "port " + Number(question_.port) + " of the game's port map";
  }

  // The levels at which the IP table has an address that it does not have at this one.
  std::string OtherLevels() const {
    std::string levels;
    const IpTableRegion& table = tables_.iptable;
    for (uint32_t i = 0; i < std::min(table.ip_count, kMaxIpRecords); ++i) {
      if (table.records[i].ip != question_.ip) continue;
      levels += (levels.empty() ? "" : ", ") + Number(table.records[i].game_idc / 100 % 10);
    }
    return levels;
  }

  std::string WhyUnknown() const {
    if (const std::string levels = OtherLevels(); !levels.empty()) {
      return "the IP table has the address for VIP level " + levels + " only, and the level is " +
             Number(out_.vip_level);
    }
    return "neither the IP table nor the spur list has the address, and the game's port map does "
           "not have port " +
           Number(question_.port);
  }

  // The library only says whether a list matches, so it is asked with lists of one record each.
  std::string BlockedBy() const {
    for (uint32_t i = 0; i < std::min(tables_.blacklist.blacklist_count, kMaxBlacklistRecords);
         ++i) {
      auto one = std::make_unique<BlacklistRegion>();
      one->blacklist_count = 1;
      one->records[0] = tables_.blacklist.records[i];
      Blacklist list;
      list.LoadBlacklistTableFromMem(*one);
      if (!list.IsInAccBlacklist(out_.game_id, question_.ip, Port(), SocketType())) continue;
      const BlacklistRecord& record = one->records[0];
      return "record " + Number(i + 1) + ", " + out_.protocol + ", " +
             (record.ip != 0 ? AddressText(record.ip) : "every address") + ", " +
             (record.port != 0 ? "port " + Number(record.port) : "every port") + ", " +
             (record.game_id != 0 ? "game " + Number(record.game_id) : "every game");
    }
    return "by several records together";
  }

  // --- the way it takes ---

  bool Decide(SwitchProxyInfo* cache) {
    return route_->MakeDecision(question_.ip, Port(), SocketType(), "explain", &info_, cache, 0, 0);
  }

  void AskMakeDecision() {
    SwitchProxyInfo cache;
    out_.accelerated = Decide(question_.udp ? &cache : nullptr);
    out_.acc_reason = info_.acc_reason;
    out_.is_reported = true;
    const bool has_route_table = info_.acc_reason != kReasonNoRouteTable;
    if (!has_route_table) {
      Stop("there is no route table", "there is no route table");
      return;
    }
    Pass("the route table is loaded: " +
         Counted(std::min(tables_.route.image.proxy_count, kMaxProxies), "node", "s"));
    if (info_.acc_reason == kReasonIsProxy) {
      Stop("the address is that of " + NodeAt(question_.ip), "it is a node, not a game server");
      return;
    }
    Pass("the address is not that of a node");
    if (info_.acc_reason == kReasonNoRoute) {
      Stop("no entry of " + RouteSetName() + " is for data centre " + Number(info_.game_idc),
           "no route leads to its data centre");
      return;
    }
    Pass("there is a route: " + RouteRow());
    Verdict();
    if (out_.accelerated) Switching(cache);
  }

  void Verdict() {
    const RouteProxyInfo& proxy = info_.selected_proxy;
    const std::string name = DecisionName(proxy.decision, nullptr);
    out_.node = WayOf(proxy);
    out_.direct_delay = info_.direct_delay;
    out_.direct_lost = info_.direct_lost;
    const std::string finding = "the verdict is " + name + Changed();
    const std::string words = ReasonWords(info_.acc_reason);
    if (out_.accelerated) {
      Pass(finding);
      out_.conclusion = "through " + NodeName(proxy);
    } else {
      Stop(finding, words);
    }
  }

  // What replaced the route's own reference.
  std::string Changed() const {
    const AccConfig& config = *GetAccConfig();
    if (config.acc_mode == kAccModeNone) return ", because acc_mode is 0, whatever the route says";
    if (IsManualMode(config) && IsReachable(&config.reachability, info_.game_idc)) {
      return ": acc_mode is 2, manual_mode is on, and the node that the user chose reaches the "
             "data centre";
    }
    RouteHeader header = {};
    const auto entry = route_->route_table().FindRouteEntry(info_.game_idc, &header);
    const ProxyRef& ref = UsesBothModes() ? entry->ref_both_modes : entry->ref_default;
    if (ref.proxy_idc != info_.selected_proxy.proxy_idc) {
      return ", and the node is the one that the launch test found best";
    }
    return "";
  }

  static bool UsesBothModes() {
    return (GetAccConfig()->net_mode & kNetModeBothModes) == kNetModeBothModes;
  }

  std::string RouteSetName() const {
    return RouteSetIndex(*GetAccConfig()) == 0 ? "[[route]]" : "[[route_mode2]]";
  }

  std::string RouteRow() const {
    const RouteSet& set = tables_.route.image.route_sets[RouteSetIndex(*GetAccConfig())];
    const std::string ref = UsesBothModes() ? "ref_both_modes" : "ref_default";
    for (uint32_t i = 0; i < std::min(set.route_count, kMaxRoutes); ++i) {
      if (set.routes[i].game_idc != info_.game_idc) continue;
      const std::string name = Text(set.routes[i].entry_name);
      return RouteSetName() + " " + Number(i + 1) + (name.empty() ? "" : " '" + name + "'") +
             ", its " + ref;
    }
    return "from the route file, its " + ref;
  }

  static std::string NodeName(const RouteProxyInfo& proxy) {
    const std::string name = Text(proxy.proxy_name);
    return name.empty() ? "node " + Number(proxy.proxy_idc) : "'" + name + "'";
  }

  std::string NodeAt(uint32_t ip) const {
    const RouteTableImage& image = tables_.route.image;
    for (uint32_t i = 0; i < std::min(image.proxy_count, kMaxProxies); ++i) {
      if (Text(image.proxies[i].proxy_addr) != AddressText(ip)) continue;
      const std::string name = Text(image.proxies[i].proxy_name);
      return "[[node]] " + Number(i + 1) + (name.empty() ? "" : " '" + name + "'");
    }
    return "a node of the route file";
  }

  // --- where the flow could move ---

  void Switching(const SwitchProxyInfo& cache) {
    if (!question_.udp) {
      out_.switching = "a TCP connection stays with the node that it began with";
      return;
    }
    const uint16_t last_node = static_cast<uint16_t>(info_.selected_proxy.last_node);
    AccDecisionInfo after = info_;
    SwitchProxyInfo session = cache;
    const bool can_move = route_->MakeSwitchDecision(&after, &session, &last_node, 0);
    const uint32_t next = can_move ? after.selected_proxy.proxy_idc : 0;
    const auto add = [&](const RouteProxyInfo& proxy) {
      if (proxy.proxy_idc == 0) return;
      out_.candidates.push_back(WayOf(proxy));
      out_.candidates.back().would_be_taken = proxy.proxy_idc == next;
    };
    for (const RouteProxyInfo& proxy : session.proxies) add(proxy);
    const bool listed = std::any_of(out_.candidates.begin(), out_.candidates.end(),
                                    [](const Way& candidate) { return candidate.would_be_taken; });
    if (can_move && !listed) add(after.selected_proxy);  // the user's own, which is never cached
    const std::string same = "last node " + Number(info_.selected_proxy.last_node);
    const uint32_t wait = thresholds::LinkSwitchMinInterMs(*GetAccConfig()) / 1000;
    out_.switching = can_move ? "ways to the same " + same + ", no sooner than " + Number(wait) +
                                    " s after the machine's start and after an earlier move"
                     : info_.selected_proxy.last_node == 0
                         ? "none, because the way names no last node"
                         : "none: no other way leads to the same " + same;
  }

  void TakeWarnings(uint32_t game) {
    for (const SwitchAdvice& advice : advice_) {
      if (advice.game == game) out_.warnings.push_back(advice.problem);
    }
  }

  // --- helpers ---

  uint16_t Port() const { return htons(question_.port); }
  int32_t SocketType() const { return question_.udp ? SOCK_DGRAM : SOCK_STREAM; }

  static std::string HexNumber(uint32_t number) {
    char digits[16];
    std::snprintf(digits, sizeof digits, "0x%x", static_cast<unsigned>(number));
    return digits;
  }

  void Pass(const std::string& finding) { out_.steps.push_back({true, finding}); }
  bool Stop(const std::string& finding, const std::string& conclusion) {
    out_.steps.push_back({false, finding});
    out_.conclusion = conclusion;
    return false;
  }

  const Tables& tables_;
  const Question& question_;
  const std::vector<SwitchAdvice>& advice_;
  const std::unique_ptr<Route> route_;
  AccDecisionInfo info_;
  Explanation out_;
};

}  // namespace

std::optional<Question> ParseQuestion(const std::string& destination, const std::string& protocol) {
  const size_t colon = destination.rfind(':');
  const bool is_udp = common::EqualsIgnoreCase(protocol, "udp");
  if (colon == std::string::npos || !(is_udp || common::EqualsIgnoreCase(protocol, "tcp"))) {
    return std::nullopt;
  }
  const auto ip = ParseAddress(destination.substr(0, colon));
  const auto port = ParseNumber(destination.substr(colon + 1));
  if (!ip || !port || *port > 0xffff) return std::nullopt;
  Question question;
  question.ip = *ip;
  question.port = static_cast<uint16_t>(*port);
  question.udp = is_udp;
  return question;
}

Explanation Explain(const Tables& tables, const Question& question,
                    const std::vector<SwitchAdvice>& advice) {
  return Explainer(tables, question, advice).Run();
}

}  // namespace client
