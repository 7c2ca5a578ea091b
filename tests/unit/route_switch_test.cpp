// Where a flow may move when its link degrades: three sources, and the rules of each.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "tests/support/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;
using test::AddProxy;
using test::AddRoute;
using test::Ref;

constexpr u32 kMovedToken = 77;
constexpr u32 kIdc = 1001;
constexpr u16 kLastNode = 61;

// Proxies 1 to 6. The flow is at proxy 1, of data centre 1001, last node 61.
class Switch : public test::RoutePolicy {
 protected:
  Switch() {
    for (u32 i = 1; i <= 6; ++i) AddProxy(image, i, ("198.51.100." + std::to_string(i)).c_str());
    for (RouteSet& set : image.route_sets) AddRoute(set, kIdc, Ref(1, DECISION_ACCE, kLastNode));
    info.game_idc = kIdc;
    info.selected_proxy.proxy_idc = 1;
    info.acc_reason = 11;
  }

  void SetGroup(u32 slot, u32 last_node, u32 first, u32 second) {
    for (RouteSet& set : image.route_sets) {
      SwitchGroup& group = set.routes[0].switch_groups[slot];
      group.last_node = last_node;
      group.candidates[0] = Ref(first, DECISION_DIRECT, last_node, 20);
      group.candidates[1] = Ref(second, DECISION_OVER_MAX_LOST, last_node, 30);
    }
  }
  void SetManual(u32 slot, u32 game_idc, u32 first, u32 first_node, u32 second, u32 second_node) {
    ManualRouteRecord& record = config.manual_routes[slot];
    record.game_idc = game_idc;
    record.last_node = 12345;  // read by nothing
    record.proxies[0].proxy_idc = first;
    record.proxies[0].last_node = first_node;
    record.proxies[1].proxy_idc = second;
    record.proxies[1].last_node = second_node;
  }
  void ManualMode() {
    config.acc_mode = 2;
    config.manual_mode = 1;
  }
  void SetRecord(u32 last_node, u32 first, u32 second, u32 game_idc = kIdc) {
    cache = {};
    cache.game_idc = game_idc;
    cache.last_node = last_node;
    cache.proxies[0].proxy_idc = first;
    cache.proxies[1].proxy_idc = second;
  }
  // The proxy that was chosen, 0 for none.
  u32 Choose(u16 last_node = kLastNode) {
    AccDecisionInfo copy = info;
    const bool found = route.MakeSwitchDecision(&copy, &cache, &last_node, kMovedToken);
    if (!found) {
      EXPECT_EQ(copy.acc_reason, kReasonNoRoute);
      copy.acc_reason = info.acc_reason;
      EXPECT_EQ(std::memcmp(&copy, &info, sizeof copy), 0) << "a failure changes nothing else";
      return 0;
    }
    EXPECT_EQ(copy.acc_reason, kReasonForceAuto) << "the reason stays the first decision's";
    EXPECT_EQ(copy.selected_proxy.decision, DECISION_FORCE_ACCE_AUTO) << "whatever the route said";
    EXPECT_NE(copy.selected_proxy.proxy_idc, 0u) << "found, and it is none";
    return copy.selected_proxy.proxy_idc;
  }
  void Say(const std::string& line) {
    EXPECT_TRUE(log.Contains(line + "\n")) << line << "\nis not in\n" << log.Text();
  }

  AccDecisionInfo info;
  SwitchProxyInfo cache;
};

TEST_F(Switch, SourcesRankManualThenTableThenRecord) {
  SetManual(0, kIdc, 2, kLastNode, 0, 0);
  SetGroup(0, kLastNode, 3, 0);
  SetRecord(kLastNode, 4, 0);
  ManualMode();
  Publish();
  EXPECT_EQ(Choose(), 2u);
  config.manual_mode = 0;
  Publish();
  EXPECT_EQ(Choose(), 3u);
  SetGroup(0, 0, 0, 0);
  SetRecord(kLastNode, 4, 0);
  Publish();
  EXPECT_EQ(Choose(), 4u);
  SetRecord(kLastNode, 0, 0);
  EXPECT_EQ(Choose(), 0u);
}

TEST_F(Switch, OutcomeIsLogged) {
  SetGroup(0, kLastNode, 3, 0);
  Publish();
  EXPECT_EQ(Choose(), 3u);
  Say("[4][lsp][Route][MakeSwitchDecision] switch proxy route for game_idc 1001 found, "
      "cur_proxy:1, "
      "last_node:61, new_proxy (3), ip(198.51.100.3), port(7003) will be used, token=77");
  Say("[4][lsp][GetSwitchProxyInfoFromIntelliRoute] found a proper switch acc node 3 in "
      "intelligent route set.");
  EXPECT_EQ(Choose(62), 0u);
  Say("[4][lsp][Route][MakeSwitchDecision] Can not find IDC(1001)'s switch proxy route, "
      "current_proxy=1, last_node=62, token=77");
}

TEST_F(Switch, NoLastNodeFindsNothing) {
  ManualMode();
  SetManual(0, kIdc, 2, 0, 3, 0);
  SetGroup(0, 0, 3, 4);
  SetRecord(0, 4, 5);
  Publish();
  EXPECT_EQ(Choose(0), 0u);
}

TEST_F(Switch, NullPlacesAreRefused) {
  const u16 last_node = kLastNode;
  EXPECT_FALSE(route.MakeSwitchDecision(nullptr, &cache, &last_node, kMovedToken));
  EXPECT_FALSE(route.MakeSwitchDecision(&info, &cache, nullptr, kMovedToken));
  SetGroup(0, kLastNode, 3, 0);
  Publish();
  EXPECT_TRUE(route.MakeSwitchDecision(&info, nullptr, &last_node, kMovedToken))
      << "a record may miss";
}

// --- the manual routes -------------------------------------------------------------------------

TEST_F(Switch, ManualRoutesCountInManualModeOnly) {
  SetManual(0, kIdc, 2, kLastNode, 0, 0);
  const struct {
    u32 acc_mode, manual_mode, chosen;
  } kRows[] = {{2, 1, 2}, {2, 9, 2}, {2, 0, 0}, {1, 1, 0}, {0, 1, 0}};
  for (const auto& row : kRows) {
    config.acc_mode = row.acc_mode;
    config.manual_mode = row.manual_mode;
    Publish();
    EXPECT_EQ(Choose(), row.chosen) << row.acc_mode << row.manual_mode;
  }
}

TEST_F(Switch, ManualProxiesQualifyOneByOneAndTheLaterWins) {
  ManualMode();
  info.selected_proxy.proxy_idc = 1;
  const struct {
    const char* what;
    u32 first, first_node, second, second_node, chosen;
  } kRows[] = {
      {"both", 2, kLastNode, 3, kLastNode, 3},
      {"the first", 2, kLastNode, 3, 62, 2},
      {"the second", 2, 62, 3, kLastNode, 3},
      {"the first is the present one", 1, kLastNode, 3, kLastNode, 3},
      {"the second is the present one", 2, kLastNode, 1, kLastNode, 2},
      {"neither", 1, kLastNode, 3, 62, 0},
  };
  for (const auto& row : kRows) {
    SetManual(0, kIdc, row.first, row.first_node, row.second, row.second_node);
    Publish();
    EXPECT_EQ(Choose(), row.chosen) << row.what;
  }
  Say("[4][lsp][Route][GetSwitchProxyInfoFromManualRoute] found a proper switch acc node 2 in "
      "manual_forced route set.");
}

TEST_F(Switch, ManualProxyWithoutIdentityWillDo) {
  ManualMode();
  SetManual(0, kIdc, 2, kLastNode, 0, kLastNode);
  Publish();
  const u16 last_node = kLastNode;
  ASSERT_TRUE(route.MakeSwitchDecision(&info, &cache, &last_node, kMovedToken));
  EXPECT_EQ(info.selected_proxy.proxy_idc, 0u) << "kept: 0 is as good as any, and the later wins";
}

TEST_F(Switch, ManualRecordsAreSearchedUpToTheFirstHit) {
  ManualMode();
  SetManual(0, 1002, 2, kLastNode, 0, 0);  // another data centre
  SetManual(3, kIdc, 3, 62, 0, 0);         // another last node
  SetManual(7, kIdc, 4, kLastNode, 0, 0);
  SetManual(8, kIdc, 5, kLastNode, 6, kLastNode);
  Publish();
  EXPECT_EQ(Choose(), 4u);
  SetManual(7, 0, 0, 0, 0, 0);
  SetManual(8, 0, 0, 0, 0, 0);
  SetManual(19, kIdc, 6, kLastNode, 0, 0);
  Publish();
  EXPECT_EQ(Choose(), 6u) << "the last of twenty";
}

// --- the route table ---------------------------------------------------------------------------

TEST_F(Switch, CandidatesQualifyOneByOneAndTheLastTriedHasTheWord) {
  const struct {
    const char* what;
    u32 first, second, chosen;
  } kRows[] = {
      {"both", 2, 3, 3},
      {"the first", 2, 0, 2},
      {"the second", 0, 3, 3},
      {"the second is the present one", 2, 1, 2},
      {"the first is the present one", 1, 3, 3},
      {"none but the present one", 1, 0, 0},
      {"the first is missing", 99, 3, 3},
      {"the second is missing", 2, 99, 0},  // kept: although the first was found
      {"the only one is missing", 99, 0, 0},
  };
  for (const auto& row : kRows) {
    SetGroup(0, kLastNode, row.first, row.second);
    Publish();
    RouteProxyInfo out;
    cache = {};
    const bool found = route.GetSwitchProxyInfoFromIntelliRoute(kIdc, 1, kLastNode, &out, &cache);
    EXPECT_EQ(found, row.chosen != 0) << row.what;
    EXPECT_EQ(out.proxy_idc, row.chosen) << row.what;
  }
}

TEST_F(Switch, FailureBehindAHitLeavesNothingInTheAnswer) {
  SetGroup(0, kLastNode, 2, 99);
  Publish();
  RouteProxyInfo out;
  EXPECT_FALSE(route.GetSwitchProxyInfoFromIntelliRoute(kIdc, 1, kLastNode, &out, &cache));
  EXPECT_EQ(out.proxy_idc, 0u);
  EXPECT_EQ(cache.proxies[0].proxy_idc, 2u) << "but the hit has refreshed the record";
  EXPECT_EQ(Choose(), 2u) << "from which the switch finds it after all";
  Say("[4][lsp][Route][GetSwitchProxyInfo] found a proper switch acc node 2 in last switch route "
      "record.");
}

TEST_F(Switch, FirstGroupOfTheLastNodeCounts) {
  SetGroup(0, 62, 5, 0);
  SetGroup(2, kLastNode, 2, 0);
  SetGroup(3, kLastNode, 3, 0);
  Publish();
  EXPECT_EQ(Choose(), 2u);
  EXPECT_EQ(Choose(62), 5u);
}

TEST_F(Switch, GroupOfALastNodeBeyondSixteenBitsIsNotFoundByItsLowHalf) {
  SetGroup(0, 0x10000 + kLastNode, 2, 0);
  Publish();
  EXPECT_EQ(Choose(), 0u);
}

TEST_F(Switch, SearchThatFindsRefreshesTheRecord) {
  SetGroup(0, kLastNode, 2, 1);
  SetRecord(62, 5, 6, 1002);
  Publish();
  EXPECT_EQ(Choose(), 2u);
  EXPECT_EQ(cache.game_idc, kIdc);
  EXPECT_EQ(cache.last_node, kLastNode);
  EXPECT_EQ(cache.proxies[0].proxy_idc, 2u);
  EXPECT_EQ(cache.proxies[0].decision, DECISION_DIRECT) << "as the table has it";
  EXPECT_EQ(cache.proxies[1].proxy_idc, 1u) << "the present one too";
  Say("[0][lsp][Route][GetSwitchProxyInfo] cache route for intelligent mode.");
  Say("[0][lsp][Route][switch_proxy_info] game_idc(1001), last_node_idc(61): \n");

  SetGroup(0, kLastNode, 2, 0);
  SetRecord(62, 5, 6, 1002);
  Publish();
  EXPECT_EQ(Choose(), 2u);
  EXPECT_EQ(cache.proxies[1].proxy_idc, 6u) << "what has no successor stays";
}

TEST_F(Switch, SearchThatFindsNothingLeavesTheRecord) {
  SetGroup(0, kLastNode, 1, 0);
  SetRecord(62, 5, 6, 1002);
  Publish();
  const SwitchProxyInfo before = cache;
  EXPECT_EQ(Choose(), 0u);
  EXPECT_EQ(std::memcmp(&cache, &before, sizeof cache), 0);
}

TEST_F(Switch, MissingRouteIsNamed) {
  Publish();
  RouteProxyInfo out;
  EXPECT_FALSE(route.GetSwitchProxyInfoFromIntelliRoute(1002, 1, kLastNode, &out, &cache));
  Say("[4][lsp][Route][GetSwitchProxyInfoFromIntelliRoute] IDC(1002) route not found.");
}

TEST_F(Switch, SetOfRoutesFollowsAccMode) {
  SetGroup(0, kLastNode, 2, 0);
  image.route_sets[1].routes[0].switch_groups[0].candidates[0] = Ref(3);
  Publish();
  EXPECT_EQ(Choose(), 2u);
  config.acc_mode = 2;
  Publish();
  EXPECT_EQ(Choose(), 3u);
}

// --- the session's record ----------------------------------------------------------------------

TEST_F(Switch, RecordServesWhereTheTableDoesNot) {
  const struct {
    const char* what;
    u32 last_node, first, second, game_idc, chosen;
  } kRows[] = {
      {"both will do: the first", kLastNode, 4, 5, kIdc, 4},
      {"the first is the present one", kLastNode, 1, 5, kIdc, 5},
      {"the first is empty", kLastNode, 0, 5, kIdc, 5},
      {"neither will do", kLastNode, 0, 1, kIdc, 0},
      {"another last node", 62, 4, 5, kIdc, 0},
      {"another data centre", kLastNode, 4, 5, 1002, 4},  // kept: it is not compared
  };
  Publish();
  for (const auto& row : kRows) {
    SetRecord(row.last_node, row.first, row.second, row.game_idc);
    EXPECT_EQ(Choose(), row.chosen) << row.what;
  }
}

TEST_F(Switch, RecordOutlivesTheGroupItWasMadeFrom) {
  SetGroup(0, kLastNode, 2, 3);
  Publish();
  route.CacheSwitchProxy(&image.route_sets[0].routes[0], kLastNode, &cache);
  SetGroup(0, 0, 0, 0);
  Publish();
  EXPECT_EQ(Choose(), 2u);
  image = {};
  Publish();
  EXPECT_EQ(Choose(), 2u) << "even that of a route that is gone";
}

TEST_F(Switch, CandidatesAreCachedFromTheFirstGroupOfTheLastNode) {
  SetGroup(1, kLastNode, 2, 99);
  SetGroup(2, kLastNode, 3, 4);
  Publish();
  test::Fill(cache, 0xFF);
  route.CacheSwitchProxy(&image.route_sets[0].routes[0], kLastNode, &cache);
  EXPECT_EQ(cache.game_idc, kIdc);
  EXPECT_EQ(cache.last_node, kLastNode);
  EXPECT_EQ(cache.proxies[0].proxy_idc, 2u);
  EXPECT_EQ(cache.proxies[0].section2_delay, 20u);
  const RouteProxyInfo zero;
  EXPECT_EQ(std::memcmp(&cache.proxies[1], &zero, sizeof zero), 0) << "the missing one";
  Say("[0][lsp][Route][CacheSwitchProxy] cache route for intelligent mode.");
  Say("[0][lsp][Route][switch_proxy_info] game_idc(" + std::to_string(kIdc) + "), last_node_idc(" +
      std::to_string(kLastNode) + "): \n");
}

TEST_F(Switch, ASecondCandidateIsCachedWithoutAFirst) {
  SetGroup(1, kLastNode, 0, 3);
  Publish();
  route.CacheSwitchProxy(&image.route_sets[0].routes[0], kLastNode, &cache);
  EXPECT_EQ(cache.proxies[0].proxy_idc, 0u);
  EXPECT_EQ(cache.proxies[1].proxy_idc, 3u);
}

TEST_F(Switch, NothingIsCachedWithoutALastNodeAGroupOrInManualMode) {
  SetGroup(0, kLastNode, 2, 3);
  Publish();
  const SwitchProxyInfo zero;
  const RouteEntry& entry = image.route_sets[0].routes[0];
  for (const u32 last_node : {0u, 62u}) {
    test::Fill(cache, 0xFF);
    route.CacheSwitchProxy(&entry, last_node, &cache);
    EXPECT_EQ(std::memcmp(&cache, &zero, sizeof zero), 0) << last_node;
  }
  ManualMode();
  Publish();
  test::Fill(cache, 0xFF);
  route.CacheSwitchProxy(&entry, kLastNode, &cache);
  EXPECT_EQ(std::memcmp(&cache, &zero, sizeof zero), 0);
  Say("[0][lsp][Route][CacheSwitchProxy]It is manual mode, not need to cache switch route.");
  route.CacheSwitchProxy(&entry, kLastNode, nullptr);
}

TEST_F(Switch, InManualModeNothingRemainsAfterBothSearches) {
  ManualMode();
  SetGroup(0, 62, 2, 3);
  Publish();
  route.CacheSwitchProxy(&image.route_sets[1].routes[0], kLastNode, &cache);
  EXPECT_EQ(Choose(), 0u);
}

}  // namespace
