// The loading of the tables with its attempts, and the interval at which a new spur list is loaded.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/handle.h"
#include "tests/support/log_texts.h"
#include "tests/support/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;
using test::ClientRegion;
using test::Ip;

class RouteLoad : public test::RoutePolicy {
 protected:
  void ProvideIpTable() {
    ips = std::make_unique<ClientRegion<IpTableRegion>>(kIpTableRegionName);
    (*ips)->ip_count = 1;
    (*ips)->records[0] = {1001, Ip("203.0.113.1")};
  }
  void Configure(bool wait_route) {
    config.wait_route = wait_route ? 1 : 0;
    ReplaceAccConfig(config);
  }
  int CountOf(const std::string& text) const {
    const std::string all = log.Text();
    int count = 0;
    for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
    return count;
  }

  std::unique_ptr<ClientRegion<IpTableRegion>> ips;
};

TEST_F(RouteLoad, WithoutWaitingThereIsOneAttemptAndNoPause) {
  Configure(false);
  const DWORD before = GetTickCount();
  EXPECT_FALSE(route.Load(50, 60'000));
  EXPECT_LT(GetTickCount() - before, 60'000u);
  EXPECT_TRUE(
      log.Contains("[5][lsp][Route][Load] try to read route failed, wait_route=failed, "
                   "try time=1, try interval_ms=60000 ms, game vip level=0\n"));
}

TEST_F(RouteLoad, WaitingTriesToTheEndForTheIpTableAlone) {
  Configure(true);
  test::RouteClient route_region;
  const DWORD before = GetTickCount();
  EXPECT_FALSE(route.Load(50, 2));
  EXPECT_GE(GetTickCount() - before, 50u) << "fifty pauses, one after the last try too";
  EXPECT_TRUE(
      log.Contains("try to read route failed, wait_route=success, try time=50, try "
                   "interval_ms=2 ms, game vip level=0\n"));
  EXPECT_TRUE(route.route_table().HasRouteTable());
}

TEST_F(RouteLoad, IpTableAloneIsSuccess) {
  config.game_vip_level = 0;
  Configure(true);
  ProvideIpTable();
  EXPECT_TRUE(route.Load(50, 60'000));
  EXPECT_FALSE(route.route_table().HasRouteTable());
  EXPECT_TRUE(
      log.Contains("try to read route success, wait_route=success, try time=1, try "
                   "interval_ms=60000 ms, game vip level=0\n"));
}

TEST_F(RouteLoad, NoTriesMeanNoSuccess) {
  Configure(true);
  ProvideIpTable();
  EXPECT_FALSE(route.Load(0, 1));
  EXPECT_TRUE(log.Contains("try to read route failed, wait_route=success, try time=0, "));
}

TEST_F(RouteLoad, EachAttemptReadsTheBlacklistAndTheSpurListAgain) {
  Configure(true);
  ClientRegion<BlacklistRegion> blacklist(kBlacklistRegionName);
  ClientRegion<SpurRegion> spurs(kSpurRegionName);
  EXPECT_FALSE(route.Load(3, 1));
  EXPECT_EQ(CountOf(test::BlacklistEntries(0)), 3);
  EXPECT_EQ(CountOf(test::SpurEntries(0)), 3);
}

TEST_F(RouteLoad, TablesAreLoadedInTheirOrder) {
  config.port_idc_count = 1;
  config.port_idc_records[0] = {80, 5};
  Configure(false);
  ProvideIpTable();
  test::RouteClient route_region;
  ClientRegion<BlacklistRegion> blacklist(kBlacklistRegionName);
  ClientRegion<SpurRegion> spurs(kSpurRegionName);
  EXPECT_TRUE(route.Load(1, 1));
  const std::string text = log.Text();
  std::size_t last = 0;
  for (const char* const line :
       {"[Route][LoadRoute]", "[LoadBlacklistTableFromMem]", "[LoadSpurIplistTableFromMem]",
        "[Route]LoadPortIdcTable", "[Route][LoadIpTableFromMem]", "[Route][Load] "}) {
    const std::size_t at = text.find(line);
    ASSERT_NE(at, std::string::npos) << line;
    EXPECT_GE(at, last) << line;
    last = at;
  }
}

TEST_F(RouteLoad, GlobalPolicyIsOneObject) { EXPECT_EQ(GetRoute(), GetRoute()); }

// --- the beat --------------------------------------------------------------------------------

class SpurBeat : public RouteLoad {
 protected:
  SpurBeat() : spurs(kSpurRegionName) {
    spurs->spur_count = 1;
    spurs->records[0] = {7301, Ip("203.0.113.1")};
  }
  static std::string EventName() {
    return "spur_iplist_change_notify_" + std::to_string(GetCurrentProcessId());
  }
  // The client opens what the library made.
  static void Signal() {
    const common::UniqueHandle event(OpenEventA(EVENT_MODIFY_STATE, FALSE, EventName().c_str()));
    ASSERT_TRUE(event);
    EXPECT_TRUE(SetEvent(event.get()));
  }
  static bool EventExists() {
    return static_cast<bool>(
        common::UniqueHandle(OpenEventA(EVENT_MODIFY_STATE, FALSE, EventName().c_str())));
  }
  bool Loaded() { return route.spur_list().Find(Ip("203.0.113.1")).has_value(); }

  ClientRegion<SpurRegion> spurs;
};

// The event is never closed: once a policy has made it, its name is taken for the rest of the
// process. So this test comes first, and leaves no event behind.
TEST_F(SpurBeat, EventIsAbandonedAfterFiveFailedCreations) {
  if (EventExists()) GTEST_SKIP() << "another test of this process has made the event";
  {
    // Its name is taken by an object of another kind.
    const common::UniqueHandle other(CreateMutexA(nullptr, FALSE, EventName().c_str()));
    ASSERT_TRUE(other);
    for (int i = 0; i < 5; ++i) route.OnUpdate(30'000);
  }
  route.OnUpdate(30'000);
  EXPECT_FALSE(EventExists()) << "after five failures nobody tries any more";
  const common::UniqueHandle unheard(CreateEventA(nullptr, FALSE, TRUE, EventName().c_str()));
  ASSERT_TRUE(unheard);
  route.OnUpdate(30'000);
  EXPECT_FALSE(Loaded());
  EXPECT_EQ(WaitForSingleObject(unheard.get(), 0), WAIT_OBJECT_0) << "nor waits";
}

TEST_F(SpurBeat, EventThatCannotBeMadeFourTimesIsMadeAtTheFifth) {
  if (EventExists()) GTEST_SKIP() << "another test of this process has made the event";
  {
    const common::UniqueHandle other(CreateMutexA(nullptr, FALSE, EventName().c_str()));
    ASSERT_TRUE(other);
    for (int i = 0; i < 4; ++i) route.OnUpdate(30'000);
  }
  route.OnUpdate(30'000);
  EXPECT_TRUE(EventExists());
}

TEST_F(SpurBeat, ChangeIsPickedUpAtTheNextBeatHoweverOftenItIsSignalled) {
  route.OnUpdate(30'000);  // the first beat makes the event
  ASSERT_TRUE(EventExists());
  route.OnUpdate(29'999);
  Signal();
  EXPECT_FALSE(Loaded()) << "the beat is not there yet";
  route.OnUpdate(1);
  EXPECT_TRUE(Loaded());
  EXPECT_TRUE(log.Contains("[5][lsp][Route]" + test::kSpurListChanged + ", reload it!\n"));

  // Signalled several times, loaded once; without a signal not at all.
  Signal();
  Signal();
  route.OnUpdate(30'000);
  route.OnUpdate(30'000);
  EXPECT_EQ(CountOf(test::kSpurListChanged), 2);

  // Beats are counted in the time that the worker reports, from zero after each.
  Signal();
  route.OnUpdate(45'000);
  EXPECT_EQ(CountOf(test::kSpurListChanged), 3);
  Signal();
  route.OnUpdate(15'000);
  EXPECT_EQ(CountOf(test::kSpurListChanged), 3);
  route.OnUpdate(15'000);
  EXPECT_EQ(CountOf(test::kSpurListChanged), 4);
}

// The first beat finds what was signalled before, if the event is there already.
TEST_F(SpurBeat, FirstBeatComesAfterThirtySeconds) {
  const common::UniqueHandle event(CreateEventA(nullptr, FALSE, TRUE, EventName().c_str()));
  ASSERT_TRUE(SetEvent(event.get()));
  route.OnUpdate(29'999);
  EXPECT_FALSE(Loaded());
  route.OnUpdate(1);
  EXPECT_TRUE(Loaded());
}

TEST_F(SpurBeat, EventIsMadeAtTheFirstBeatAndResetsItself) {
  route.OnUpdate(30'000);
  ASSERT_TRUE(EventExists());
  Signal();
  route.OnUpdate(30'000);
  EXPECT_TRUE(Loaded());
  spurs->records[0] = {7302, Ip("203.0.113.2")};
  route.OnUpdate(30'000);
  EXPECT_FALSE(route.spur_list().Find(Ip("203.0.113.2")).has_value());
  spurs->spur_count = 0;
  Signal();
  route.OnUpdate(30'000);
  EXPECT_TRUE(Loaded()) << "kept: an emptied list stays as it was";
}

}  // namespace
