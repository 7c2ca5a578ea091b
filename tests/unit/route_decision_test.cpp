// Whether a socket goes through a node, through which, and why.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "common/named_mutex.h"
#include "tests/support/route_fixture.h"
#include "tests/support/threads.h"
#include "tests/unit/out_of_memory.h"

namespace {

using namespace moru_vyr::lsp;
using test::AddGlt;
using test::AddProxy;
using test::AddRoute;
using test::ClientRegion;
using test::Ip;
using test::Port;
using test::Ref;

constexpr SOCKET kSocket = 400;
constexpr u32 kToken = 77;
constexpr char kServer[] = "203.0.113.1";

// One data centre, 1001, with 203.0.113.1 in it; proxies 1 to 4 at 198.51.100.1 to .4, of which
// the first is the default and the fourth is for both modes; the first three are the top.
class DecisionTest : public test::RoutePolicy {
 protected:
  DecisionTest() {
    config.game_id = 0x100000005;
    config.zone_id = 0x200000006;
    config.net_mode = 0x18;
    for (u32 i = 1; i <= 4; ++i)
      AddProxy(image, i, ("198.51.100." + std::to_string(i)).c_str(), 10 * i);
    RouteEntry& entry = AddRoute(image.route_sets[0], 1001, Ref(1, DECISION_ACCE, 61, 5));
    entry.ref_both_modes = Ref(4, DECISION_FORCE_ACCE_AUTO, 62, 6);
    for (u32 i = 0; i < 3; ++i) entry.top_refs[i] = Ref(i + 1, DECISION_DIRECT, 63 + i, 7 + i);
    entry.entry_word0 = 900;
    entry.entry_word1 = 901;
    entry.entry_word3 = 903;
    entry.entry_word4 = 904;
    common::SetFieldText(entry.entry_name, "east");
    entry.entry_word21 = 921;
    entry.direct_delay = 88;
    entry.direct_lost = 3;
    image.header0 = 800;
    image.header1 = 801;
    image.header2 = 802;
    image.header3 = 803;
    image.route_sets[1] = image.route_sets[0];
  }

  RouteEntry& Entry() { return image.route_sets[0].routes[0]; }

  void PublishAll() {
    Publish();
    LoadIps({{1001, Ip(kServer)}});
  }
  bool Decide(const char* ip = kServer, u16 port = 80, i32 socket_type = SOCK_STREAM) {
    return route.MakeDecision(Ip(ip), Port(port), socket_type, "guid-text", &info, &cache, kSocket,
                              kToken);
  }
  void Say(const std::string& line) {
    EXPECT_TRUE(log.Contains(line + "\n")) << line << "\nis not in\n" << log.Text();
  }

  AccDecisionInfo info;
  SwitchProxyInfo cache;
};

TEST_F(DecisionTest, EachCheckPrecedesTheNext) {
  config.excluded_port_count = 1;
  config.excluded_ports[0] = 8000;
  ReplaceAccConfig(config);
  const auto expect_reason = [this](const char* ip, u16 port, i32 acc_reason) {
    EXPECT_FALSE(Decide(ip, port));
    EXPECT_EQ(info.acc_reason, acc_reason) << ip << ":" << port;
  };
  expect_reason("192.168.0.1", 8000, 2);
  Say("[4][lsp][Route][MakeDecision] inner IP(192.168.0.1), token=77");
  expect_reason("198.51.100.1", 8000, 8);
  Say("[4][lsp][Route][MakeDecision] IP table not ready, token=77");
  LoadIps({{1001, Ip(kServer)}, {1002, Ip("203.0.113.2")}});
  expect_reason("198.51.100.1", 8000, 9);
  Say("[4][lsp][Route][MakeDecision] Route table not ready, token=77");
  Publish();
  expect_reason("198.51.100.1", 8000, 4);
  Say("[4][lsp][Route][MakeDecision] Port(8000) not accelerate, token=77");
  expect_reason("198.51.100.1", 80, 15);
  Say("[4][lsp][Route][MakeDecision] IP(198.51.100.1) is Proxy, token=77");
  info.game_idc = 5;
  expect_reason("203.0.113.9", 80, 3);
  EXPECT_EQ(info.game_idc, 0u);
  Say("[4][lsp][Route][MakeDecision] IP(203.0.113.9:80) is not in ip table, token=77");
  expect_reason("203.0.113.2", 80, 6);
  EXPECT_EQ(info.game_idc, 1002u);
  Say("[0][lsp][Route][MakeDecision] IDC info founded\xA3\xBAgame server IP(203.0.113.2) "
      "IDC(1002), token=77");
  Say("[4][lsp][Route][MakeDecision] Can not find IDC(1002)'s route, token=77");
  EXPECT_TRUE(Decide());
  EXPECT_EQ(info.acc_reason, kReasonAcce);
  Say("[4][lsp][Route][MakeDecision] proxy route founded\xA3\xBAip(198.51.100.1), port(7001) will "
      "be used, token=77");
}

TEST_F(DecisionTest, DecisionOfTheTableGivesTheResultAndTheReason) {
  PublishAll();
  const struct {
    u32 decision;
    bool accelerates;
    i32 acc_reason;
    const char* name;
  } kRows[] = {
      {0, true, 0, "DECISION_ACCE"},
      {1, false, 1, "DECISION_DIRECT"},
      {2, false, 7, "DECISION_NOT_ACCE_SAME_ISP"},
      {3, false, 10, "DECISION_NOT_ACCE"},
      {4, true, 11, "DECISION_FORCE_ACCE_AUTO"},
      {5, false, 12, "DECISION_OVER_MAX_BOTH"},
      {6, false, 13, "DECISION_OVER_MAX_DELAY"},
      {7, false, 14, "DECISION_OVER_MAX_LOST"},
      {8, true, 16, "DECISION_FORCE_ACCE_MANUAL"},
      {9, false, -1, "DECISION_UNKNOWN"},
      {0xFFFFFFFF, false, -1, "DECISION_UNKNOWN"},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.decision);
    Entry().ref_default.decision = row.decision;
    Publish();
    info = {};
    EXPECT_EQ(Decide(), row.accelerates);
    EXPECT_EQ(info.acc_reason, row.acc_reason);
    EXPECT_EQ(info.selected_proxy.proxy_idc, 1u) << "filled whatever the answer";
    EXPECT_EQ(info.selected_proxy.decision, row.decision);
    Say(std::string("[4][lsp][Route][FillAccDecisionInfo] route info founded\xA3\xBA") + row.name +
        ", game IDC(1001), direct delay(88), direct lost(3), proxy IDC(1), t1 delay(10), "
        "t1 lost(0), t2 delay(5), t2 lost(0), last_node(61)");
  }
}

TEST_F(DecisionTest, RecordHasTheWholeOutcome) {
  config.game_launch_test_use = 1;
  config.glt_word = 0xABCD;
  PublishAll();
  EXPECT_TRUE(Decide(kServer, 8080, SOCK_DGRAM));
  EXPECT_EQ(info.used, 1);
  EXPECT_STREQ(info.guid, "guid-text");
  EXPECT_EQ(info.game_id, 0x100000005u);
  EXPECT_EQ(info.zone_id, 0x200000006u);
  EXPECT_EQ(info.net_mode, 0x18u);
  EXPECT_EQ(info.process_id, GetCurrentProcessId());
  EXPECT_EQ(info.socket, 400u);
  EXPECT_EQ(info.socket_type, 1);
  EXPECT_EQ(info.game_ip, 0xCB007101u);
  EXPECT_EQ(info.game_port, 8080u);
  EXPECT_EQ(info.game_idc, 1001u);
  EXPECT_EQ(info.entry_word0, 900u);
  EXPECT_EQ(info.entry_word1, 901u);
  EXPECT_EQ(info.entry_word3, 903u);
  EXPECT_EQ(info.entry_word4, 904u);
  EXPECT_STREQ(info.entry_name, "east");
  EXPECT_EQ(info.entry_word21, 921u);
  EXPECT_EQ(info.direct_delay, 88u);
  EXPECT_EQ(info.direct_lost, 3u);
  EXPECT_EQ(info.header0, 800u);
  EXPECT_EQ(info.header1, 801u);
  EXPECT_EQ(info.header2, 802u);
  EXPECT_EQ(info.header3, 803u);
  for (u32 i = 0; i < 3; ++i) {
    EXPECT_EQ(info.top_proxy[i].proxy_idc, i + 1);
    EXPECT_EQ(info.top_proxy[i].decision, DECISION_DIRECT);
    EXPECT_EQ(info.top_proxy[i].last_node, 63 + i);
    EXPECT_EQ(info.top_proxy[i].section2_delay, 7 + i);
  }
  EXPECT_STREQ(info.selected_proxy.proxy_addr, "198.51.100.1");
  EXPECT_EQ(info.selected_proxy.proxy_port, 7001);
  EXPECT_EQ(info.game_launch_test_use, 1);
  EXPECT_EQ(info.glt_word, 0xABCDu);
  Say("[0][lsp][Route][MakeDecision] Ready to make decision, destination(203.0.113.1:8080), "
      "game_id=4294967301, zone_id=8589934598, net_mode=0x00000018, process_id=" +
      std::to_string(GetCurrentProcessId()) +
      ", socket=400, socket_type=2, guid=guid-text, token=77");
}

TEST_F(DecisionTest, SocketTypesHaveTheirCodes) {
  const struct {
    i32 socket_type;
    i32 code;
  } kRows[] = {{SOCK_STREAM, 0}, {SOCK_DGRAM, 1}, {SOCK_RAW, -1}, {0, -1}};
  for (const auto& row : kRows) {
    Decide(kServer, 80, row.socket_type);
    EXPECT_EQ(info.socket_type, row.code);
  }
}

// The caller's record may have been used before. Only fields that would mislead are cleared.
TEST_F(DecisionTest, OfAnOldRecordOnlyTwoFieldsAreCleared) {
  test::Fill(info, 'x');
  EXPECT_FALSE(Decide("10.0.0.1"));
  GltRouteInfo zero;
  EXPECT_EQ(std::memcmp(&info.glt_route_info, &zero, sizeof zero), 0);
  EXPECT_EQ(std::string(info.selected_proxy.proxy_addr, 32), std::string(32, '\0'));
  EXPECT_EQ(info.selected_proxy.proxy_idc, 0x78787878u);
  EXPECT_EQ(info.entry_name[0], 'x');
  EXPECT_EQ(info.game_idc, 0x78787878u);
  EXPECT_EQ(info.glt_word, 0x78787878u);
}

TEST_F(DecisionTest, GuidIsCutToItsField) {
  const std::string longest(64, 'g');
  route.MakeDecision(Ip("10.0.0.1"), 0, SOCK_STREAM, longest + "more", &info, nullptr, kSocket,
                     kToken);
  EXPECT_EQ(std::string(info.guid), longest);
}

TEST_F(DecisionTest, NullRecordIsRefused) {
  EXPECT_FALSE(route.MakeDecision(Ip(kServer), Port(80), SOCK_STREAM, "", nullptr, nullptr, kSocket,
                                  kToken));
  Say("[4][lsp][Route][MakeDecision] invalid decision info pointer");
}

// Only a destination that is known without its port has a route whatever the port.
TEST_F(DecisionTest, AnUnknownAddressIsKnownByItsOwnPortAndByNoOther) {
  LoadPorts({{443, 1001}});
  PublishAll();
  EXPECT_TRUE(Decide("203.0.113.9", 443));
  EXPECT_FALSE(Decide("203.0.113.9", 80));
  EXPECT_EQ(info.acc_reason, kReasonNotInIpTable);
  EXPECT_EQ(info.game_idc, 0u);
}

TEST_F(DecisionTest, BlacklistIsNotChecked) {
  PublishAll();
  LoadBlacklist({{0, Ip(kServer), 0, 1, {}}});
  EXPECT_TRUE(Decide());
}

TEST_F(DecisionTest, LateRouteTableIsSeenByAPingBeforeADecision) {
  LoadIps({{1001, Ip(kServer)}});
  client = std::make_unique<test::RouteClient>();
  client->Publish(image);
  EXPECT_FALSE(Decide()) << "kept: nothing looks for the table before it is asked for";
  EXPECT_EQ(info.acc_reason, kReasonNoRouteTable);
  route.GetServerLag(Ip(kServer));
  EXPECT_TRUE(Decide());
}

// --- the choice of the proxy -------------------------------------------------------------------

TEST_F(DecisionTest, BothModeBitsTogetherSelectTheOtherReference) {
  const struct {
    u32 net_mode;
    u32 proxy_idc;
  } kRows[] = {{0x18, 1}, {0x10018, 1}, {0x20018, 1}, {0x30000, 4}, {0x30018, 4}, {0xFFFFFFFF, 4}};
  PublishAll();
  for (const auto& row : kRows) {
    config.net_mode = row.net_mode;
    ReplaceAccConfig(config);
    EXPECT_TRUE(Decide());
    EXPECT_EQ(info.selected_proxy.proxy_idc, row.proxy_idc) << row.net_mode;
  }
  EXPECT_EQ(info.acc_reason, kReasonForceAuto);
}

TEST_F(DecisionTest, DanglingReferenceReadsAsAcceTowardsAnEmptyAddress) {
  Entry().ref_default = Ref(99, DECISION_DIRECT, 61, 5);
  Entry().top_refs[1] = Ref(98);
  PublishAll();
  EXPECT_TRUE(Decide());
  EXPECT_EQ(info.acc_reason, kReasonAcce);
  const RouteProxyInfo zero;
  EXPECT_EQ(std::memcmp(&info.selected_proxy, &zero, sizeof zero), 0);
  EXPECT_EQ(std::memcmp(&info.top_proxy[1], &zero, sizeof zero), 0);
  EXPECT_EQ(info.top_proxy[2].proxy_idc, 3u);
}

TEST_F(DecisionTest, WithoutAccModeNothingIsAcceleratedWhateverTheTablesSay) {
  ClientRegion<LaunchTestRegion> glt(kLaunchTestRegionName);
  AddGlt(glt.region(), 1001, 2, "198.51.100.22");
  config.game_launch_test_use = 1;
  config.acc_mode = 0;
  PublishAll();
  for (const u32 decision : {0u, 4u, 8u, 7u}) {
    Entry().ref_default.decision = decision;
    Publish();
    EXPECT_FALSE(Decide());
    EXPECT_EQ(info.acc_reason, kReasonNotAcce);
    EXPECT_EQ(info.selected_proxy.decision, DECISION_NOT_ACCE);
    EXPECT_EQ(info.selected_proxy.proxy_idc, 1u) << "the launch test has no say";
  }
  Say("[4][lsp][Route][RefineByGltRouteInfo] game launch test route info will not be "
      "used!decision=3, game_launch_test_use=true");
}

TEST_F(DecisionTest, ForcedProxyCountsInManualModeForReachableDataCentres) {
  common::SetFieldText(config.forced_proxy.proxy_addr, "198.51.100.77");
  config.forced_proxy.proxy_idc = 77;
  config.forced_proxy.decision = DECISION_DIRECT;
  config.reachability.reach_count = 1;
  config.reachability.records[0].game_idc = 1001;
  config.game_launch_test_use = 1;
  PublishAll();
  const struct {
    u32 acc_mode, manual_mode, delay;
    bool forced;
  } kRows[] = {
      {2, 1, 9998, true}, {2, 5, 0, true},  {2, 1, 9999, false},
      {2, 0, 0, false},   {1, 1, 0, false}, {3, 1, 0, false},
  };
  for (const auto& row : kRows) {
    config.acc_mode = row.acc_mode;
    config.manual_mode = row.manual_mode;
    config.reachability.records[0].delay = row.delay;
    ReplaceAccConfig(config);
    EXPECT_TRUE(Decide());
    EXPECT_EQ(info.selected_proxy.proxy_idc, row.forced ? 77u : 1u);
    EXPECT_EQ(info.selected_proxy.decision, row.forced ? 8u : 0u);
    EXPECT_EQ(info.acc_reason, row.forced ? 16 : 0);
  }
}

TEST_F(DecisionTest, LaunchTestReplacesAnAutomaticChoiceAmongTheTopThree) {
  ClientRegion<LaunchTestRegion> glt(kLaunchTestRegionName);
  AddGlt(glt.region(), 1001, 2, "198.51.100.22");
  const struct {
    const char* what;
    bool use;
    u32 glt_proxy, decision;
    bool replaced;
  } kRows[] = {
      {"acce", true, 2, 0, true},
      {"force auto", true, 3, 4, true},
      {"the first of the top", true, 1, 0, true},
      {"not used", false, 2, 0, false},
      {"not of the top", true, 4, 0, false},
      {"direct", true, 2, 1, false},
      {"forced by hand", true, 2, 8, false},
  };
  PublishAll();
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.what);
    config.game_launch_test_use = row.use ? 1 : 0;
    glt->records[0].proxy.proxy_idc = row.glt_proxy;
    Entry().ref_default.decision = row.decision;
    Publish();
    Decide();
    EXPECT_STREQ(info.selected_proxy.proxy_addr, row.replaced ? "198.51.100.22" : "198.51.100.1");
    EXPECT_EQ(info.selected_proxy.decision, row.decision) << "the verdict stays the table's";
    EXPECT_EQ(info.glt_route_info.proxy.proxy_idc, row.glt_proxy) << "reported in every case";
  }
  Say("[4][lsp][Route][RefineByGltRouteInfo] glt route proxy idc is not one of the top three proxy "
      "idc. Discard it.");
  Say("[4][lsp][Route][RefineByGltRouteInfo] game launch test route info will not be "
      "used!decision=0, game_launch_test_use=false");
  Say("[0][lsp][Route][LoadGltRouteInfoFromShare] Got a glt route table, game_idc=1001");
}

TEST_F(DecisionTest, WithoutALaunchTestTheTablesDecide) {
  config.game_launch_test_use = 1;
  PublishAll();
  EXPECT_TRUE(Decide());
  EXPECT_EQ(info.selected_proxy.proxy_idc, 1u);
  EXPECT_EQ(info.glt_route_info.game_idc, 0u);
  Say("[5][lsp][Route][LoadGltRouteInfoFromShare] open glt table from shared memory failed,share "
      "mem is not exist!");
  Say("[4][lsp][Route][RefineByGltRouteInfo] load glt route table failed");
}

TEST_F(DecisionTest, SwitchCandidatesAreKeptForTheSession) {
  Entry().switch_groups[1].last_node = 61;
  Entry().switch_groups[1].candidates[0] = Ref(3, DECISION_DIRECT, 61);
  PublishAll();
  EXPECT_TRUE(Decide());
  EXPECT_EQ(cache.game_idc, 1001u);
  EXPECT_EQ(cache.last_node, 61u);
  EXPECT_EQ(cache.proxies[0].proxy_idc, 3u);
  EXPECT_TRUE(
      route.MakeDecision(Ip(kServer), Port(80), SOCK_STREAM, "", &info, nullptr, kSocket, kToken))
      << "TCP keeps none";
}

TEST_F(DecisionTest, NullPlacesAreRefused) {
  PublishAll();
  RouteProxyInfo proxy;
  EXPECT_FALSE(route.GetProxyInfoFromIdc(1001, nullptr, &info, nullptr));
  Say("[4][lsp][Route][GetProxyInfoFromIdc] Invalid route proxy info pointer");
  EXPECT_FALSE(route.GetProxyInfoFromIdc(0, &proxy, &info, nullptr));
  Say("[4][lsp][Route][GetProxyInfoFromIdc] IDC(0) not valid.");
  EXPECT_FALSE(route.GetProxyInfoFromIdc(1002, &proxy, &info, nullptr));
  Say("[0][lsp][Route][GetProxyInfoFromIdc] Get IDC(1002) Route Info");
  Say("[4][lsp][Route][GetProxyInfoFromIdc] IDC(1002) route not found.");
  EXPECT_TRUE(route.GetProxyInfoFromIdc(1001, &proxy, nullptr, nullptr));
  route.RefineProxyInfo(&Entry(), nullptr);
  Say("[4][lsp][Route][RefineProxyInfo] Invalid route proxy info pointer");
  route.RefineByGltRouteInfo(&Entry(), nullptr);
  Say("[4][lsp][Route][RefineByGltRouteInfo] Invalid route proxy info pointer");
  route.FillAccDecisionInfo(&Entry(), &proxy, {}, nullptr);
  Say("[4][lsp][Route][FillAccDecisionInfo] Invalid decision info pointer");
  EXPECT_FALSE(route.launch_test().LoadGltRouteInfoFromShare(1001, nullptr));
  Say("[5][lsp][Route][LoadGltRouteInfoFromShare] Invalid glt route info pointer");
}

// --- GetServerLag ------------------------------------------------------------------------------

TEST_F(DecisionTest, LagOfEachKindOfTarget) {
  PublishAll();
  LoadIps({{1001, Ip(kServer)}, {1002, Ip("203.0.113.2")}});
  LoadPorts({{0, 1001}});
  EXPECT_EQ(route.GetServerLag(Ip("203.0.113.9")), 50u) << "unknown, whatever the ports say";
  Say("[0][lsp][Route][GetServerLag] calculate overall delay\xA3\xBAtarget ip(203.0.113.9),get idc "
      "info failed, will use default delay(50)");
  EXPECT_EQ(route.GetServerLag(Ip("203.0.113.2")), 50u) << "known, without a route";
  Say("[0][lsp][Route][GetServerLag] IDC info founded\xA3\xBAgame server IP(203.0.113.2) "
      "IDC(1002)");
  Say("[0][lsp][Route][GetServerLag] calculate overall delay\xA3\xBAtarget ip(203.0.113.2),get "
      "route info failed, will use default delay(50)");
  const struct {
    u32 decision, section1, section2, lag;
  } kRows[] = {
      {0, 10, 5, 15}, {4, 10, 0, 10}, {8, 0, 5, 5},           {0, 0, 0, 20}, {3, 10, 5, 0},
      {9, 10, 5, 0},  {1, 0, 0, 0},   {0, 0xFFFFFFFF, 1, 20},  // the sum wraps to zero
  };
  for (const auto& row : kRows) {
    Entry().ref_default.decision = row.decision;
    Entry().ref_default.section2_delay = row.section2;
    image.proxies[0].section1_delay = row.section1;
    Publish();
    EXPECT_EQ(route.GetServerLag(Ip(kServer)), row.lag) << row.decision;
  }
}

TEST_F(DecisionTest, LagOfASpurTargetIsThatOfItsRoute) {
  PublishAll();
  LoadSpurs({{1001, Ip("203.0.113.5")}});
  EXPECT_EQ(route.GetServerLag(Ip("203.0.113.5")), 15u);
}

// --- the launch test region --------------------------------------------------------------------

class LaunchTestTest : public test::RoutePolicy {
 protected:
  bool Load(u32 game_idc) { return route.launch_test().LoadGltRouteInfoFromShare(game_idc, &glt); }

  GltRouteInfo glt;
};

TEST_F(LaunchTestTest, FirstRecordIsCopiedCompletelyEachTime) {
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  AddGlt(region.region(), 1001, 2, "198.51.100.2");
  AddGlt(region.region(), 1001, 3, "198.51.100.3");
  for (u32 i = 0; i < 68; ++i) region->records[0].glt_head[i] = static_cast<u8>(i + 1);
  ASSERT_TRUE(Load(1001));
  EXPECT_EQ(std::memcmp(&glt, &region->records[0], sizeof glt), 0);
  EXPECT_EQ(glt.proxy.proxy_idc, 2u);
  region->records[0].proxy.proxy_idc = 9;
  ASSERT_TRUE(Load(1001));
  EXPECT_EQ(glt.proxy.proxy_idc, 9u);
  EXPECT_FALSE(Load(1002));
  EXPECT_TRUE(
      log.Contains("[4][lsp][Route][LoadGltRouteInfoFromShare] No matching game idc from "
                   "glt table, game_idc=1002, valid_count=2\n"));
  EXPECT_EQ(glt.proxy.proxy_idc, 9u) << "a miss writes nothing";
}

TEST_F(LaunchTestTest, RecordsPastTheCountDoNotCount) {
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  AddGlt(region.region(), 1001, 2, "198.51.100.2");
  AddGlt(region.region(), 1002, 3, "198.51.100.3");
  region->valid_count = 1;
  EXPECT_TRUE(Load(1001));
  EXPECT_FALSE(Load(1002));
}

TEST_F(LaunchTestTest, CountPastTheTableReadsTheTable) {
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  region->valid_count = 0xFFFFFFFF;
  region->records[63].game_idc = 63;
  EXPECT_TRUE(Load(63));
  EXPECT_FALSE(Load(64));
}

TEST_F(LaunchTestTest, TextsWithoutAnEndGetOne) {
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  test::Fill(region->records[0], 'x');
  region->valid_count = 1;
  ASSERT_TRUE(Load(0x78787878));
  EXPECT_EQ(std::string(glt.proxy.proxy_addr), std::string(31, 'x'));
  EXPECT_EQ(std::string(glt.proxy.proxy_name), std::string(63, 'x'));
}

TEST_F(LaunchTestTest, MutexIsReleasedOnEveryPath) {
  EXPECT_FALSE(Load(1001)) << "there is no region";
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  AddGlt(region.region(), 1001, 2, "198.51.100.2");
  const auto is_free = [] {
    bool free = false;
    test::RunThread([&free] {
      common::NamedMutex mutex(kLaunchTestMutexName);
      free = mutex.try_lock();
      if (free) mutex.unlock();
    });
    return free;
  };
  EXPECT_TRUE(Load(1001));
  EXPECT_TRUE(is_free());
  EXPECT_FALSE(Load(1002));
  EXPECT_TRUE(is_free());
  region->header.minor_ver = 35;
  EXPECT_FALSE(Load(1001));
  EXPECT_TRUE(is_free());
  EXPECT_TRUE(
      log.Contains("[5][lsp][Route][LoadGltRouteInfoFromShare] attampt to open glt route "
                   "sharing region but failed!\n"));
  region->header.minor_ver = 36;
  EXPECT_TRUE(Load(1001)) << "it is looked at anew";
}

TEST_F(LaunchTestTest, RegionIsOpenedAgainAfterALackOfMemory) {
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  AddGlt(region.region(), 1001, 2, "198.51.100.2");
  {
    const test::OutOfMemory none(1, sizeof(common::Shared_mem_obj));
    EXPECT_FALSE(Load(1001));
    EXPECT_TRUE(test::OutOfMemory::WasFelt());
  }
  EXPECT_TRUE(
      log.Contains("[5][lsp][Route][LoadGltRouteInfoFromShare] open glt table from shared memory "
                   "failed!\n"))
      << log.Text();
  EXPECT_TRUE(Load(1001));
}

TEST_F(LaunchTestTest, ThreadsThatMeetAtTheFirstLookupAllFindTheRecord) {
  common::SetLogThreshold(6);
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  AddGlt(region.region(), 1001, 2, "198.51.100.2");
  for (int round = 0; round < 20; ++round) {
    LaunchTest fresh;
    test::RunThreads(4, [&fresh](int) {
      for (int i = 0; i < 20; ++i) {
        GltRouteInfo found;
        ASSERT_TRUE(fresh.LoadGltRouteInfoFromShare(1001, &found));
        ASSERT_EQ(found.proxy.proxy_idc, 2u);
      }
    });
  }
}

}  // namespace
