// A game whose client asks that it starts, ends and meets the relay's limits as without us: a
// client that hangs with a mutex in its hands delays nobody, the last reports are complete, what
// the relay has no place for goes direct, and neither a failed connect nor a full buffer leaves
// trouble behind.
#include <algorithm>
#include <string>
#include <vector>

#include "abi/mending_formats.h"
#include "common/handle.h"
#include "common/named_mutex.h"
#include "common/process_info.h"
#include "port/shared/faults.h"
#include "route/client_wait.h"
#include "route/mending.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/report_client.h"
#include "tests/support/threads.h"
#include "tests/unit/trace_capture.h"

namespace {
using namespace tcp_test;       // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT: the policy's names

// --- starting --------------------------------------------------------------------------------

class MendedWaits : public sim::ScenarioTest {
 protected:
  MendedWaits() {
    common::SetFieldText(common::GetProcessInfo().process_path, "C:\\Games\\dawn.exe");
    AccConfigRecord& config = games->games[1];
    config.valid = 1;
    config.path_count = 1;
    common::SetFieldText(config.game_paths[0], "C:\\Games\\dawn.exe");
    config.net_mode = kNetModeTcp;
    config.game_id = 7;
    mending->games[1].mended = kMendStart;
    ips->ip_count = 1;
    routes.Publish(RouteTableImage{});
  }
  // A client that has it for that long.
  void Holds(const char* name, DWORD ms = INFINITE) {
    world.SpawnOn(client_host, "client", [name, ms] {
      common::NamedMutex mutex(name);
      mutex.lock();
      Sleep(ms);
      mutex.unlock();
    });
    RunFor(1ms);
  }
  // What a start reads of the client, and how long that took.
  sim::Duration Starts() {
    const sim::Duration begin = world.now();
    served = ReadAccConfig();
    if (served) route.Load(50, 100);
    return world.now() - begin;
  }

  bool Relays(const char* ip) {
    return route.NeedRelay(test::Ip(ip), htons(kPort), SOCK_STREAM, 1, 1);
  }

  test::ClientRegion<RestrictionRegion> games{kRestrictionRegionName};
  test::ClientRegion<MendingRegion> mending{kMendingRegionName};
  test::ClientRegion<IpTableRegion> ips{kIpTableRegionName};
  test::ClientRegion<BlacklistRegion> blacklist{kBlacklistRegionName};
  test::ClientRegion<SpurRegion> spur{kSpurRegionName};
  test::RouteClient routes;
  sim::Host& client_host = world.AddHost("client", {"192.0.2.9"});
  Route route;
  bool served = false;
};

SCENARIO_F(MendedWaits, AStartIsNotHeldUpByAClientThatHoldsNothing) {
  EXPECT_EQ(Starts(), 0ms);
  EXPECT_TRUE(served);
  EXPECT_TRUE(GetMending().BoundsClientWaits());
}

SCENARIO_F(MendedWaits, WithoutItAStartWaitsForAsLongAsTheClientDoes) {
  mending->games[1].mended = kMendAll & ~kMendStart;
  Holds(kRestrictionMutexName, 3000);
  Holds(kIpTableMutexName, 5000);
  EXPECT_GE(Starts(), 4900ms);
  EXPECT_TRUE(served);
}

// The game's place is known only once the list of games has been read.
SCENARIO_F(MendedWaits, AListOfGamesThatIsHeldCountsAsNone) {
  Holds(kRestrictionMutexName);
  const test::TraceCapture trace;
  EXPECT_EQ(Starts(), 500ms);
  EXPECT_FALSE(served);
  EXPECT_EQ(GetMending().bits(), 0u);
  std::string traced;
  for (const std::string& line : test::TraceCapture::lines()) traced += line;
  EXPECT_NE(traced.find(std::string(kRestrictionMutexName) +
                        " was not free within 500 ms, its region counts as absent"),
            traced.npos)
      << traced;
  EXPECT_NE(traced.find("read restriction from shared memory failed, mem_addr=null"), traced.npos)
      << traced;
}

SCENARIO_F(MendedWaits, AListOfGamesThatIsHeldForAMomentIsWaitedFor) {
  Holds(kRestrictionMutexName, 400);
  EXPECT_GT(Starts(), 300ms);
  EXPECT_TRUE(served);
  EXPECT_EQ(GetMending().bits(), kMendStart);
}

SCENARIO_F(MendedWaits, ATableThatIsHeldCountsAsAbsent) {
  Holds(kIpTableMutexName);
  const test::LogCapture log(4);
  EXPECT_EQ(Starts(), 500ms);
  EXPECT_TRUE(served);
  EXPECT_TRUE(log.Contains("[5][lsp][Route] " + std::string(kIpTableMutexName) +
                           " was not free within 500 ms, its region counts as absent\n"))
      << log.Text();
}

// All of them together: the client hangs, so the half second is waited once.
SCENARIO_F(MendedWaits, AClientThatHoldsEveryTableCostsHalfASecond) {
  for (const char* const name : {kIpTableMutexName, kBlacklistMutexName, kSpurMutexName,
                                 kRouteMutexName, kLaunchTestMutexName})
    Holds(name);
  EXPECT_EQ(Starts(), 500ms);
  EXPECT_TRUE(served);
}

// Each is read at a later question, which waits for none.
SCENARIO_F(MendedWaits, TablesThatWereHeldAreReadOnceTheyAreFree) {
  ips->records[0] = {11, test::Ip(kServer)};
  blacklist->blacklist_count = 1;
  blacklist->records[0].type = kBlacklistTcp;
  blacklist->records[0].ip = test::Ip(kServer);
  Holds(kIpTableMutexName, 2000);
  Holds(kRouteMutexName, 3000);
  Holds(kBlacklistMutexName, 4000);
  EXPECT_EQ(Starts(), 500ms);
  const test::LogCapture log(4);
  const sim::Duration asked = world.now();
  EXPECT_FALSE(Relays(kServer));
  EXPECT_EQ(world.now(), asked);
  RunFor(2s);
  EXPECT_TRUE(Relays(kServer));
  EXPECT_FALSE(route.route_table().HasRouteTable());
  RunFor(1s);
  EXPECT_TRUE(Relays(kServer));
  EXPECT_TRUE(route.route_table().HasRouteTable());
  RunFor(1s);
  EXPECT_FALSE(Relays(kServer)) << "it is on the blacklist";
  for (const char* const name : {kIpTableMutexName, kRouteMutexName, kBlacklistMutexName}) {
    EXPECT_TRUE(log.Contains("[5][lsp][Route] " + std::string(name) +
                             " is free by now, its region is read\n"))
        << log.Text();
  }
}

SCENARIO_F(MendedWaits, AListOfAddedAddressesThatWasHeldIsReadOnceItIsFree) {
  ips->records[0] = {11, test::Ip(kDirect)};
  spur->spur_count = 1;
  spur->records[0].game_idc = 11;
  spur->records[0].ip = test::Ip(kServer);
  Holds(kSpurMutexName, 2000);
  EXPECT_EQ(Starts(), 500ms);
  EXPECT_FALSE(Relays(kServer));
  EXPECT_TRUE(Relays(kDirect));
  RunFor(2s);
  EXPECT_TRUE(Relays(kServer));
}

// A client that hangs for good costs a question nothing.
SCENARIO_F(MendedWaits, ATableThatStaysHeldCostsNothing) {
  Holds(kIpTableMutexName);
  EXPECT_EQ(Starts(), 500ms);
  port::CountCalls();
  const unsigned before = port::CallCount("OpenMutexA");
  const sim::Duration begin = world.now();
  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(Relays(kServer));
  EXPECT_EQ(world.now(), begin);
  EXPECT_EQ(port::CallCount("OpenMutexA"), before + 1);
}

SCENARIO_F(MendedWaits, ATableThatIsHeldIsLookedForFourTimesASecond) {
  Holds(kIpTableMutexName);
  EXPECT_EQ(Starts(), 500ms);
  EXPECT_FALSE(Relays(kServer));
  port::CountCalls();
  RunFor(249ms);
  EXPECT_FALSE(Relays(kServer));
  EXPECT_EQ(port::CallCount("OpenMutexA"), 0u);
  RunFor(1ms);
  EXPECT_FALSE(Relays(kServer));
  EXPECT_EQ(port::CallCount("OpenMutexA"), 1u);
}

// The tables are read by anyone while they are filled, so one thread fills them.
SCENARIO_F(MendedWaits, WhileAThreadReadsWhatWasHeldTheOthersDoNotLook) {
  ips->records[0] = {11, test::Ip(kServer)};
  Holds(kIpTableMutexName, 1000);
  EXPECT_EQ(Starts(), 500ms);
  RunFor(1s);
  DWORD reader = 0;
  bool relays = false;
  world.AtCall("home/reader", 3, [&] { world.Stall(reader, 1s); });
  reader = world.Spawn(world.home(), "reader", [&] { relays = Relays(kServer); });
  RunFor(500ms);
  port::CountCalls();
  EXPECT_FALSE(Relays(kServer)) << "it is not read yet";
  EXPECT_EQ(port::CallCount("OpenMutexA"), 0u);
  RunFor(1s);
  EXPECT_TRUE(relays);
  EXPECT_TRUE(Relays(kServer));
}

// The file's table serves until the region can be read.
SCENARIO_F(MendedWaits, ARegionThatWasHeldReplacesTheFile) {
  auto image = std::make_unique<RouteTableImage>();
  image->header0 = 7;
  routes.Publish(*image);
  Holds(kRouteMutexName, 1000);
  EXPECT_EQ(Starts(), 500ms);
  image->header0 = 6;
  route.route_table().LoadRouteFromMem(*image);
  RouteHeader header = {};
  route.route_table().SelectRouteSet(&header);
  EXPECT_EQ(header[0], 6u);
  RunFor(1s);
  Relays(kServer);
  route.route_table().SelectRouteSet(&header);
  EXPECT_EQ(header[0], 7u);
}

// A game that waits for its tables waits those five seconds, and half a second for the mutex.
SCENARIO_F(MendedWaits, AGameThatWaitsForItsTablesDoesNotWaitForEachMutexAgain) {
  games->games[1].wait_route = 1;
  Holds(kIpTableMutexName);
  EXPECT_EQ(Starts(), 5500ms);
}

// A slow client is not taken for one that hangs for the rest of the game's life.
SCENARIO_F(MendedWaits, TenSecondsAfterAWaitInVainAMutexIsWaitedForAgain) {
  Holds(kIpTableMutexName, 600);
  EXPECT_EQ(Starts(), 500ms);
  RunFor(9s);
  Holds(kIpTableMutexName, 300);
  EXPECT_FALSE(ClientWait(kIpTableMutexName).may_read()) << "tried too late";
  RunFor(2s);
  Holds(kIpTableMutexName, 300);
  EXPECT_TRUE(ClientWait(kIpTableMutexName).may_read());
}

// One that hangs again is seen to hang again.
SCENARIO_F(MendedWaits, ASecondWaitInVainIsFollowedByTriesToo) {
  Holds(kIpTableMutexName, 600);
  EXPECT_EQ(Starts(), 500ms);
  RunFor(11s);
  Holds(kIpTableMutexName);
  const sim::Duration begin = world.now();
  EXPECT_FALSE(ClientWait(kIpTableMutexName).may_read());
  EXPECT_EQ(world.now() - begin, 500ms);
  EXPECT_FALSE(ClientWait(kIpTableMutexName).may_read());
  EXPECT_EQ(world.now() - begin, 500ms);
  RenewClientWaits();
  EXPECT_FALSE(ClientWait(kIpTableMutexName).may_read());
  EXPECT_EQ(world.now() - begin, 1000ms) << "a start waits anew";
}

// The client gets its mutex back.
SCENARIO_F(MendedWaits, AMutexIsHeldWhileItsRegionIsReadAndNoLonger) {
  ASSERT_NE(Starts(), 500ms);
  const common::UniqueHandle mutex(CreateMutexA(nullptr, FALSE, kIpTableMutexName));
  const auto is_free = [&mutex] {
    DWORD waited = WAIT_FAILED;
    test::RunThread([&] {
      waited = WaitForSingleObject(mutex.get(), 0);
      if (waited == WAIT_OBJECT_0) ReleaseMutex(mutex.get());
    });
    return waited == WAIT_OBJECT_0;
  };
  {
    const ClientWait wait(kIpTableMutexName);
    EXPECT_TRUE(wait.may_read());
    EXPECT_FALSE(is_free());
  }
  EXPECT_TRUE(is_free());
}

SCENARIO_F(MendedWaits, WhatIsMendedMayBeHeldToo) {
  Holds(kMendingMutexName);
  Holds(kIpTableMutexName);
  EXPECT_LE(Starts(), 1000ms);
  EXPECT_TRUE(served);
}

// --- the relay -------------------------------------------------------------------------------

struct EarlyReports {
  test::ReportClient client;
  test::ClientRegion<SpurRegion> spur{kSpurRegionName};
  test::ClientRegion<LaunchTestRegion> launch{kLaunchTestRegionName};
};

class MendedStart : public EarlyReports, public TcpWorld {
 protected:
  MendedStart()
      : TcpWorld(
            L"", [](AccConfigRecord* config) { config->game_launch_test_use = 1; }, kMendStart) {}

  void ClientHolds(const char* name, DWORD ms = INFINITE) {
    world.SpawnOn(client_host, "client", [name, ms] {
      common::NamedMutex mutex(name);
      mutex.lock();
      Sleep(ms);
      mutex.unlock();
    });
    RunFor(1ms);
  }
  // How long an echo takes.
  sim::Duration EchoTime(SOCKET s) {
    const sim::Duration begin = world.now();
    EXPECT_EQ(Talks(s, "hello"), "hello");
    return world.now() - begin;
  }

  sim::Host& client_host = world.AddHost("client", {"192.0.2.9"});
};

SCENARIO_F(MendedStart, AClientThatHangsDelaysNoConnection) {
  const SOCKET before = Joins();
  EXPECT_EQ(Talks(before, "hello"), "hello");
  const sim::Duration usual = EchoTime(before);
  ClientHolds(kLaunchTestMutexName);
  ClientHolds(kSpurMutexName);
  for (int i = 0; i < 5; ++i) {
    const SOCKET s = Joins();
    EXPECT_LE(EchoTime(s), 1s);
    EXPECT_LE(EchoTime(before), usual + 100ms);
    closesocket(s);
  }
  closesocket(before);
}

SCENARIO_F(MendedStart, ACleanupReportsTheEndOfWhatIsOpen) {
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  const SOCKET first = Joins(), second = Joins(kForced);
  EXPECT_EQ(Talks(first, "one"), "one");
  EXPECT_EQ(Talks(second, "another"), "another");
  ClientHolds(kCommunicationChannel.mutex_name, 1000);
  EXPECT_EQ(WSACleanup(), 0);
  std::vector<u32> sent;
  for (const CommInfoRecord& record : client.traffic->slots)
    if (record.used != 0 && record.ended != 0) sent.push_back(record.total_sent_bytes);
  std::sort(sent.begin(), sent.end());
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_LT(sent[0], sent[1]);
  EXPECT_EQ(UsedSlots(client.negotiations), 2);
}

// Winsock makes no more sockets by then, so a connection whose time is up would lose its node for
// another way that it cannot take.
SCENARIO_F(MendedStart, ANodeMayAnswerLateWhileACleanupWaits) {
  serve = [this](SOCKET t, Call* call) {
    if (call == &calls.front()) Sleep(6500);  // what it is owed keeps the cleanup waiting
    call->end = CollectAll(t, &call->got);
  };
  WSADATA data = {};
  ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  const SOCKET first = Joins();
  RunFor(100ms);
  a.AnswersAfter(5500);
  RunFor(100ms);
  SendText(Joins(), "late");
  RunFor(4s);
  SendAll(first, Pattern(1'000'000));
  EXPECT_EQ(WSACleanup(), 0);
  RunFor(1s);
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(LastCall().from, "A");
  EXPECT_EQ(LastCall().got, "late");
}

// A hundred connections are two hundred sockets of the relay's.
SCENARIO_F(MendedStart, WhatThereIsNoPlaceForGoesDirect) {
  std::vector<SOCKET> sockets;
  int by_node = 0;
  for (int i = 0; i < 100; ++i) {
    sockets.push_back(Joins());
    ASSERT_EQ(Talks(sockets.back(), "hello"), "hello") << i;
    by_node += LastCall().from == "A" ? 1 : 0;
  }
  EXPECT_GE(by_node, 50);
  EXPECT_LE(by_node, 63);
  EXPECT_EQ(LastCall().from, "game");
  for (const SOCKET s : sockets) EXPECT_EQ(Talks(s, "still here"), "still here");
  for (const SOCKET s : sockets) closesocket(s);
  RunFor(1s);
  ExpectServesAgain();
  EXPECT_EQ(LastCall().from, "A");
}

SCENARIO_F(MendedStart, APortWhoseConnectFailedLeadsToItsNextServer) {
  for (const bool closes : {true, false}) {
    SCOPED_TRACE(closes);
    SOCKET s = Tcp();
    ASSERT_EQ(BindTo(s, "0.0.0.0", 5000 + closes), 0);
    port::FailCall("WSPConnect", 1, WSAENOBUFS);
    EXPECT_EQ(ConnectTo(s, kForced, kPort), WSAENOBUFS);
    port::ClearFaults();
    if (closes) {
      closesocket(s);
      s = Tcp();
      ASSERT_EQ(BindTo(s, "0.0.0.0", 5000 + closes), 0);
    }
    ASSERT_EQ(ConnectTo(s, kDirect, kPort), 0);
    EXPECT_EQ(Talks(s, "hello"), "hello");
    EXPECT_EQ(LastCall().from, "game") << "not through the node, as the first server's would";
    closesocket(s);
  }
}

// A second connect while the first one is under way fails, and changes nothing.
SCENARIO_F(MendedStart, ASecondConnectOfASocketLeavesTheFirstAlone) {
  const SOCKET s = Tcp();
  NonBlocking(s);
  EXPECT_EQ(ConnectTo(s, kDirect, kPort), WSAEWOULDBLOCK);
  EXPECT_NE(ConnectTo(s, kServer, kPort), 0);
  RunFor(1s);
  EXPECT_NE(ConnectTo(s, kServer, kPort), 0);
  SendText(s, "hello");
  ASSERT_TRUE(RunUntil([this] { return !calls.empty() && LastCall().got == "hello"; }, 10s));
  EXPECT_EQ(LastCall().from, "game");
  closesocket(s);
  RunFor(1s);
  ExpectServesAgain();
}

SCENARIO_F(MendedStart, AFullBufferCostsNothingWhileItIsFull) {
  const std::string all = Pattern(4'000'000);
  bool reads = false;
  serve = [&](SOCKET t, Call* call) {
    while (!reads) Sleep(50);
    SendAll(t, all);
    call->end = CollectAll(t, &call->got);
  };
  const SOCKET s = Joins(kDirect);
  size_t sent = 0;
  GameThread([&] { sent = SendAll(s, all); });
  RunFor(1s);
  port::CountCalls();
  unsigned before = port::CallCount("select");
  RunFor(1s);
  EXPECT_LE(port::CallCount("select") - before, kQuietSelects);
  EXPECT_EQ(sent, 0u);
  reads = true;
  RunFor(3s);  // now the game is the one that does not read
  before = port::CallCount("select");
  RunFor(1s);
  EXPECT_LE(port::CallCount("select") - before, kQuietSelects);
  std::string got, end;
  EXPECT_TRUE(Collect(s, all.size(), &got, &end)) << end;
  EXPECT_TRUE(got == all) << got.size();
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(sent, all.size());
  closesocket(s);
  ASSERT_TRUE(RunUntil([&] { return LastCall().over(); }));
  EXPECT_TRUE(LastCall().got == all) << LastCall().got.size();
}

// Nobody reads, and the game leaves.
SCENARIO_F(MendedStart, AGameThatLeavesAFullBufferIsForgottenWithItsServer) {
  bool reads = false;
  serve = [&](SOCKET t, Call* call) {
    while (!reads) Sleep(50);
    ResetOnClose(t);
    call->end = "reset";
  };
  const SOCKET s = Joins(kDirect);
  GameThread([&] { SendAll(s, Pattern(4'000'000)); });
  RunFor(1s);
  closesocket(s);
  RunFor(1s);
  reads = true;
  ASSERT_TRUE(RunToTheEnd());
  RunFor(1s);
  EXPECT_TRUE(Logged("[TCP]CloseObsoleteSession"));
  ExpectServesAgain();
}

}  // namespace
