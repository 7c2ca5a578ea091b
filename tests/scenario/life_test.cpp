// The library's life in a process: what a game gets once the worker has ended, by itself,
// terminated or with Winsock, and what the library leaves behind. At stake: no call of the game
// hangs, none of our threads still runs, and what cannot be relayed goes direct.
#include "tests/scenario/life_world.h"

#include "abi/launch_test_formats.h"
#include "common/named_mutex.h"
#include "hooks/hook_entries.h"
#include "hooks/relay_admission.h"
#include "port/shared/faults.h"
#include "port/shared/modules.h"
#include "route/mending.h"
#include "tests/support/report_client.h"

namespace {

using namespace life_test;      // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT: the records
using common::u32;

constexpr wchar_t kLibrary[] = L"C:\\vyr\\vyr_lsp.dll";  // as GameProcess registers it
constexpr u32 kStopMs = 200;                             // a worker's time to end
constexpr u32 kForceMs = 100;                            // and to release a lock

class Life : public LifeWorld {
 protected:
  using LifeWorld::LifeWorld;
  // How long the game's own cleanup takes, without Winsock's part in it.
  static u32 CleansUp() {
    const u32 start = GetTickCount();
    INT error = 0;
    EXPECT_EQ(WSPCleanup(&error), 0);
    return GetTickCount() - start;
  }
};

// --- a worker that ends by itself ---------------------------------------------------------------

TEST(LifeOfTheWorker, AfterItsOwnEndEverythingGoesDirect) {
  for (const DWORD error : {WSANOTINITIALISED, WSAEFAULT, WSAENETDOWN}) {
    SCOPED_TRACE(error);
    sim::RunScenario({}, 1, [error](sim::World&) {
      struct Run : Life {
        void Body(DWORD select_error) {
          ExpectConnects("A");
          const SOCKET flow = Udp();
          EXPECT_EQ(TalksByDatagram(flow), "A");
          const DWORD worker = Worker();
          // The nodes poll as well, and one of them may meet the fault instead.
          for (int i = 0; i < 100 && world.IsRunning(worker); ++i) {
            port::FailCall("WSPSelect", 1, select_error);
            RunFor(20ms);
          }
          port::ClearFaults();
          RunFor(1s);
          EXPECT_FALSE(world.IsRunning(worker));
          EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000)) << "kept";
          EXPECT_FALSE(GetRelayMgr().Serves());
          ExpectConnects("game");
          ExpectTalksByDatagram("game");
          EXPECT_EQ(TalksByDatagram(flow), "game") << "a flow that had begun through the relay";
          closesocket(flow);
          EXPECT_TRUE(ThreadsOfOurs().empty());
          EXPECT_EQ(CleansUp(), 0u);
          ExpectConnects("game");
          ExpectTalksByDatagram("game");
        }
      };
      Run().Body(error);
    });
  }
}

// Requests to it are refused, however it has ended.
SCENARIO_F(Life, NothingIsAskedOfAWorkerThatHasEnded) {
  const SOCKET flow = Udp();
  EXPECT_EQ(TalksByDatagram(flow), "A");
  RelayMgr& relay = GetRelayMgr();
  relay.Stop();
  const size_t sockets = Sockets();
  const size_t handles = port::OpenHandles();
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(relay.CheckAndInit(3000)) << "kept: a start after a stop reports success";
    EXPECT_FALSE(relay.Serves());
    sockaddr_in server = At(kServer, kPort);
    sockaddr* listener = nullptr;
    int size = 0;
    EXPECT_FALSE(relay.RequestTcpRelaySession(5, 6, &server, &listener, &size, 7));
    ProtoRelayOpen answer;
    EXPECT_FALSE(relay.GetCreateResult(1, &answer));
    EXPECT_EQ(TalksByDatagram(flow), "game");
    relay.Stop();
  }
  EXPECT_EQ(Sockets(), sockets) << "a start that nobody polls leaves nothing open";
  EXPECT_EQ(port::OpenHandles(), handles);
  EXPECT_TRUE(ThreadsOfOurs().empty());
}

// --- a worker that is ended by force ------------------------------------------------------------

// The game must be told that its connections are over, since nothing would ever serve them again.
SCENARIO_F(Life, AWorkerEndedByForceTakesItsConnectionsWithIt) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  const SOCKET flow = Udp();
  EXPECT_EQ(TalksByDatagram(flow), "A");
  std::string end = "still waits";
  world.Spawn(world.home(), "reader", [&] {
    std::string got;
    end = CollectAll(s, &got);
  });
  RunFor(10ms);
  world.Stall(Worker(), 10s);
  EXPECT_EQ(CleansUp(), kStopMs);
  RunFor(1s);
  EXPECT_NE(end, "still waits");
  EXPECT_TRUE(ThreadsOfOurs().empty());
  closesocket(s);
  EXPECT_EQ(TalksByDatagram(flow), "game");
  closesocket(flow);
  EXPECT_EQ(Sockets(), 0u);
  ExpectConnects("game");
}

// The end has not been noticed yet. A connected socket could not go elsewhere afterwards.
SCENARIO_F(Life, ADatagramSocketIsNotConnectedToAWorkerThatIsGone) {
  const SOCKET flow = Udp();
  EXPECT_EQ(TalksByDatagram(flow), "A");
  const SOCKET fresh = Udp();
  world.Terminate(Worker());
  for (const SOCKET s : {flow, fresh}) {
    const common::u32 start = GetTickCount();
    EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
    EXPECT_EQ(GetTickCount() - start, 0u);
    sockaddr_in peer = {};
    int size = sizeof peer;
    EXPECT_EQ(getpeername(s, Raw(peer), &size), 0);
    EXPECT_STREQ(inet_ntoa(peer.sin_addr), kServer);
    closesocket(s);
  }
}

// A game that only receives notices the end as well.
SCENARIO_F(Life, AWorkerEndedByAStrangerTakesItsConnectionsWithIt) {
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  std::string end = "still waits";
  world.Spawn(world.home(), "reader", [&] {
    std::string got;
    end = CollectAll(s, &got);
  });
  RunFor(10ms);
  EXPECT_EQ(end, "still waits");
  world.Terminate(Worker());
  RunFor(1s);
  EXPECT_NE(end, "still waits");
  EXPECT_TRUE(ThreadsOfOurs().empty());
  closesocket(s);
  EXPECT_EQ(Sockets(), 0u);
}

// Before the end has been noticed. A stream's relay must be requested before the socket is bound to
// the loopback interface, from which it could reach nothing else; datagrams may be lost for a tenth
// of a second.
SCENARIO_F(Life, WhatBeginsBehindAWorkerThatAStrangerEndedGoesDirect) {
  const SOCKET flow = Udp();
  EXPECT_EQ(TalksByDatagram(flow), "A");
  world.Stall(world.ThreadNamed(kSyncThread), 10s);
  world.Terminate(Worker());
  EXPECT_TRUE(GetRelayMgr().Serves()) << "nobody has looked";
  RunFor(150ms);
  EXPECT_EQ(TalksByDatagram(flow), "game");
  EXPECT_FALSE(GetRelayMgr().Serves());
}
SCENARIO_F(Life, AStreamThatBeginsBehindAWorkerThatAStrangerEndedGoesDirect) {
  ExpectConnects("A");
  world.Stall(world.ThreadNamed(kSyncThread), 10s);
  world.Terminate(Worker());
  EXPECT_TRUE(GetRelayMgr().Serves()) << "nobody has looked";
  ExpectConnects("game");
}

// From the first moment of a stop, though the worker takes its time.
SCENARIO_F(Life, NothingIsAskedOfAWorkerThatIsToEnd) {
  ExpectConnects("A");
  SocketRecord record;
  record.protocol = IPPROTO_TCP;
  for (const int type : {kSocketTypeStream, kSocketTypeDatagram}) {
    record.type = type;
    EXPECT_TRUE(IsAllowedRelay(record)) << type;
  }
  world.Stall(Worker(), 10s);
  world.Spawn(world.home(), "stops", [] { GetRelayMgr().Stop(); });
  RunFor(10ms);
  EXPECT_TRUE(world.IsRunning(Worker()));
  EXPECT_FALSE(GetRelayMgr().Serves());
  for (const int type : {kSocketTypeStream, kSocketTypeDatagram}) {
    record.type = type;
    EXPECT_FALSE(IsAllowedRelay(record)) << type;
  }
}

// --- the thread that reports --------------------------------------------------------------------

// However the worker ends, and wherever it is then.
SCENARIO_F_SEEDS(Life, TheReportingThreadEndsWithTheWorker, 30) {
  ExpectConnects("A");
  RunFor(std::chrono::microseconds(world.random().Below(300'000)));
  ASSERT_EQ(ThreadsOfOurs().size(), 2u);
  const size_t handles = port::OpenHandles();
  switch (world.seed() % 3) {
    case 0:
      world.Stall(Worker(), 10s);
      EXPECT_EQ(CleansUp(), kStopMs);
      break;
    case 1:
      world.Terminate(Worker());
      break;
    default:
      CleansUp();
      break;
  }
  RunFor(1s);
  EXPECT_TRUE(ThreadsOfOurs().empty()) << ThreadsOfOurs().front();
  // Its two events and the handles of both threads; the worker's goes with the cleanup.
  EXPECT_EQ(port::OpenHandles(), handles - (world.seed() % 3 == 1 ? 3 : 4));
}

struct EarlyClient {
  test::ReportClient client;
};
class LifeReported : public EarlyClient, public Life {};

// Reports that are still waiting are written as it ends.
SCENARIO_F(LifeReported, TheReportingThreadLeavesItsLastReportsBehindADeadWorker) {
  world.Stall(world.ThreadNamed(kSyncThread), 1s);
  ExpectConnects("A");
  EXPECT_EQ(test::UsedSlots(client.decisions), 0);
  world.Terminate(Worker());
  RunFor(2s);
  EXPECT_EQ(test::UsedSlots(client.decisions), 1);
  EXPECT_TRUE(ThreadsOfOurs().empty());
}

// --- the client program's mutexes ---------------------------------------------------------------

// A client program that holds the launch test's mutex, and so blocks the worker, which needs a
// node.
class LifeHeld : public Life {
 protected:
  LifeHeld() : Life([](AccConfigRecord* config) { config->game_launch_test_use = 1; }) {
    launch->valid_count = 1;
  }
  sim::Process& Holds(const char* mutex) {
    sim::Process& holder = world.SpawnOn(world.host("home"), "holder", [mutex] {
      (new common::NamedMutex(mutex))->lock();
      Sleep(INFINITE);
    });
    RunFor(1ms);
    return holder;
  }
  test::ClientRegion<LaunchTestRegion> launch{kLaunchTestRegionName};
};

SCENARIO_F(LifeHeld, AWorkerEndedWhileItWaitsForAClientLeavesNoLockBehind) {
  sim::Process& holder = Holds(kLaunchTestMutexName);
  int done = 0;
  for (const char* name : {"first", "second"}) {
    world.Spawn(world.home(), name, [&] {
      const SOCKET s = Joins();  // the second waits for the worker, which waits for the client
      std::string got;
      if (s != INVALID_SOCKET) CollectAll(s, &got);
      closesocket(s);
      ++done;
    });
    RunFor(100ms);
  }
  EXPECT_EQ(done, 0);
  const u32 took = CleansUp();
  EXPECT_GE(took, kStopMs + kForceMs);
  EXPECT_LE(took, kStopMs + kForceMs + 2);
  EXPECT_TRUE(RunUntil([&] { return done == 2; }, 5s)) << world.Report();
  EXPECT_TRUE(Logged("WSPConnect: RequestTcpRelaySession is false")) << "the second's";
  world.Kill(holder);
  bool pinged = false;
  world.Spawn(world.home(), "pinger", [&] {
    const SOCKET s = Ping();
    EXPECT_EQ(ConnectTo(s, kServer, 0), 0);
    SendText(s, "a raw send asks for the delay of the route");
    closesocket(s);
    pinged = true;
  });
  EXPECT_TRUE(RunUntil([&] { return pinged; }, 5s)) << world.Report();
  ExpectConnects("game");
}

// While the client program holds it, threads that do not need it go on, whether the thread that
// needs it is the first to open the region or comes later.
SCENARIO_F(LifeHeld, AThreadThatWaitsForAClientKeepsNoOtherFromTheTables) {
  for (const bool is_open : {false, true}) {
    SCOPED_TRACE(is_open);
    LaunchTest tables;
    GltRouteInfo first;
    if (is_open) tables.LoadGltRouteInfoFromShare(1, &first);
    sim::Process& holder = Holds(kLaunchTestMutexName);
    bool waits = true;
    world.Spawn(world.home(), "waits", [&] {
      GltRouteInfo info;
      tables.LoadGltRouteInfoFromShare(1, &info);
      waits = false;
    });
    RunFor(10ms);
    EXPECT_TRUE(waits);
    bool done = false;
    world.Spawn(world.home(), "loads", [&] {
      LaunchTestRegion table;
      tables.LoadGltTableFromMem(table);
      GltRouteInfo info;
      EXPECT_FALSE(tables.LoadGltRouteInfoFromShare(1, &info));
      done = true;
    });
    EXPECT_TRUE(RunUntil([&] { return done; }, 1s)) << world.Report();
    world.Kill(holder);
    EXPECT_TRUE(RunUntil([&] { return done && !waits; }, 1s)) << world.Report();
  }
}

// Without a mutex the threads of this process still do not use one view at the same time.
SCENARIO_F_SEEDS(LifeHeld, ARegionWithoutAMutexIsReadByOneThreadAtATime, 20) {
  LaunchTest table;
  port::FailCall("CreateMutexA", 0, ERROR_NOT_ENOUGH_MEMORY);
  launch->records[0].game_idc = 5;
  int found = 0;
  for (int i = 0; i < 4; ++i) {
    world.Spawn(world.home(), "", [&] {
      for (int n = 0; n < 20; ++n) {
        GltRouteInfo info;
        if (table.LoadGltRouteInfoFromShare(5, &info)) ++found;
      }
    });
  }
  port::CountCalls();
  RunFor(1s);
  EXPECT_EQ(found, 80);
  EXPECT_EQ(port::CallCount("MapViewOfFile"), 80u) << "each read has a view of its own";
}

SCENARIO_F(Life, AThreadThatWaitsForTheRouteTableKeepsNoOtherFromIt) {
  RouteTable table;
  sim::Process& holder = world.SpawnOn(world.host("home"), "holder", [] {
    (new common::NamedMutex(kRouteMutexName))->lock();
    Sleep(INFINITE);
  });
  RunFor(1ms);
  bool loaded = false;
  world.Spawn(world.home(), "waits", [&] {
    table.LoadRoute();
    loaded = true;
  });
  RunFor(10ms);
  EXPECT_FALSE(loaded);
  RouteTableImage image;
  image.proxy_count = 1;
  table.LoadRouteFromMem(image);  // is there first
  EXPECT_TRUE(table.HasRouteTable());
  EXPECT_NE(table.SelectRouteSet(nullptr), nullptr);
  world.Kill(holder);
  RunFor(1s);
  EXPECT_TRUE(loaded);
  EXPECT_TRUE(table.LoadRoute()) << "what was there first stays";
}

// --- Winsock's own end --------------------------------------------------------------------------

// In every order that the dispatch may use: Winsock's calls still work when it calls WSPCleanup, or
// do not; each entry is started by itself, or the first one for all.
port::DispatchManners SomeManners(uint64_t seed) {
  port::DispatchManners manners;
  manners.ends_before_its_providers = seed % 2 == 0;
  manners.starts_once_per_provider = seed / 2 % 2 == 0;
  manners.text_takes_the_start_lock = true;
  return manners;
}

SCENARIO_F_SEEDS(Life, BothProtocolsAreRelayedHoweverProvidersAreStarted, 4) {
  port::SetDispatchManners(SomeManners(world.seed()));
  ExpectConnects("A");
  ExpectTalksByDatagram("A");
}

// Kept: a process is served until its first cleanup; afterwards nothing of the library runs.
SCENARIO_F_SEEDS(Life, AHundredRoundsOfWinsockLeaveNothingBehind, 4) {
  port::SetDispatchManners(SomeManners(world.seed()));
  StartsWinsock();
  size_t handles = 0;
  for (int round = 1; round <= 100; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const char* const way = round == 1 ? "A" : "game";
    ExpectConnects(way);
    RunFor(1s);
    const SOCKET flow = Udp();
    EXPECT_EQ(TalksByDatagram(flow), way);
    SendTextTo(flow, "is still on its way", kServer, kPort);
    EXPECT_LT(EndsWinsock(), kStopMs) << "the worker had to be ended by force";
    EXPECT_EQ(port::LoadCount(kLibrary), 1);
    EXPECT_EQ(Tcp(), INVALID_SOCKET);
    EXPECT_EQ(WSAGetLastError(), WSANOTINITIALISED);
    EXPECT_TRUE(ThreadsOfOurs().empty());
    EXPECT_EQ(Sockets(), 1u) << "the game's own";
    StartsWinsock();
    closesocket(flow);
    EXPECT_EQ(Sockets(), 0u);
    RunFor(1s);
    EXPECT_TRUE(ThreadsOfOurs().empty());
    if (round == 1) handles = port::OpenHandles();
    EXPECT_EQ(port::OpenHandles(), handles);
  }
  EXPECT_TRUE(NodesAreFree());
}

SCENARIO_F_SEEDS(Life, AMendedProcessIsServedInEveryRound, 4) {
  game.IsMended(moru_vyr::lsp::kMendRestart);
  moru_vyr::lsp::ReadMending(0);
  port::SetDispatchManners(SomeManners(world.seed()));
  StartsWinsock();
  for (int round = 1; round <= 20; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    ExpectConnects("A");
    const SOCKET flow = Udp();
    EXPECT_EQ(TalksByDatagram(flow), "A");
    EXPECT_LT(EndsWinsock(), kStopMs) << "the worker had to be ended by force";
    EXPECT_TRUE(ThreadsOfOurs().empty());
    EXPECT_EQ(Sockets(), 1u) << "the flow's own";
    StartsWinsock();
    closesocket(flow);
  }
  EXPECT_TRUE(NodesAreFree());
}

// Kept: a stream that is open at the end of Winsock stays open and is not served.
SCENARIO_F_SEEDS(Life, AStreamThatIsOpenAtTheFirstCleanupIsAllThatStays, 4) {
  port::SetDispatchManners(SomeManners(world.seed()));
  StartsWinsock();
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_LT(EndsWinsock(), kStopMs);
  EXPECT_EQ(Sockets(), 3u) << "the game's, and the relay's two ends";
  for (int round = 2; round <= 20; ++round) {
    StartsWinsock();
    ExpectConnects("game");
    EndsWinsock();
  }
  EXPECT_EQ(Sockets(), 3u);
  EXPECT_TRUE(ThreadsOfOurs().empty());
}

SCENARIO_F_SEEDS(Life, RoundsAfterAWorkerThatHadToBeEndedLeaveNothingBehind, 4) {
  port::SetDispatchManners(SomeManners(world.seed()));
  StartsWinsock();
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  const SOCKET flow = Udp();
  EXPECT_EQ(TalksByDatagram(flow), "A");
  world.Stall(Worker(), 10s);
  EXPECT_LE(EndsWinsock(), kStopMs + 1);
  EXPECT_EQ(Sockets(), 2u) << "the game's own";
  StartsWinsock();
  closesocket(s);
  closesocket(flow);
  RunFor(1s);
  EXPECT_TRUE(ThreadsOfOurs().empty());
  const size_t handles = port::OpenHandles();
  for (int round = 2; round <= 100; ++round) {
    ExpectConnects("game");
    ExpectTalksByDatagram("game");
    EndsWinsock();
    StartsWinsock();
    EXPECT_EQ(Sockets(), 0u);
    EXPECT_TRUE(ThreadsOfOurs().empty());
    EXPECT_EQ(port::OpenHandles(), handles);
  }
}

// Sockets that were made before the cleanup still use the same entries.
SCENARIO_F(Life, ASocketOfTheFirstRoundCostsTheLaterOnesNothing) {
  StartsWinsock();
  const SOCKET flow = Udp();
  EXPECT_EQ(TalksByDatagram(flow), "A");
  EndsWinsock();
  StartsWinsock();
  EXPECT_EQ(TalksByDatagram(flow), "game");
  const size_t sockets = Sockets(), handles = port::OpenHandles();
  for (int round = 0; round < 20; ++round) {
    CleansUp();
    EXPECT_EQ(TalksByDatagram(flow), "game");
    RunFor(100ms);
  }
  EXPECT_EQ(Sockets(), sockets);
  EXPECT_LE(port::OpenHandles(), handles + 1) << "a thread that has come and gone";
  EXPECT_TRUE(ThreadsOfOurs().empty());
}

// Its session went with the worker of its round. What it connects to or makes later is relayed.
SCENARIO_F_SEEDS(Life, AMendedSocketOfAnEarlierRoundGoesDirect, 2) {
  using namespace moru_vyr::lsp;  // NOLINT: the mendings' names
  game.IsMended(world.seed() == 1 ? kMendRestart : kMendAll);
  ReadMending(0);
  StartsWinsock();
  const SOCKET flow = Udp();
  for (int round = 1; round <= 3; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    EXPECT_EQ(TalksByDatagram(flow), round == 1 ? "A" : "game");
    ExpectTalksByDatagram("A");
    EndsWinsock();
    StartsWinsock();
  }
  closesocket(flow);
}

// --- the module ---------------------------------------------------------------------------------

SCENARIO_F(Life, TheModuleOfAServedProcessStays) {
  StartsWinsock();
  ExpectConnects("A");
  EXPECT_GE(port::LoadCount(kLibrary), 2) << "one a protocol";
  EndsWinsock();
  EXPECT_EQ(port::LoadCount(kLibrary), 1);
}

SCENARIO(LifeUnserved, TheModuleGoesWithEachCleanup) {
  test::GameProcess process;
  process.IsStartedBySockets();
  WSADATA data = {};
  for (int round = 0; round < 20; ++round) {
    EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    closesocket(Tcp());
    closesocket(Udp());
    EXPECT_GT(port::LoadCount(kLibrary), 0);
    EXPECT_EQ(WSACleanup(), 0);
    EXPECT_EQ(port::LoadCount(kLibrary), 0);
  }
  EXPECT_EQ(world.sockets().CountOf(world.home()), 0u);
}

// --- ranges of ports that the system keeps ------------------------------------------------------

// The relay's first two binds are its control port and its listener.
TEST(LifeOfTheWorker, StartsAlthoughSomePortsAreKeptForOthers) {
  for (const unsigned kept : {1u, 2u, 15u}) {
    sim::RunScenario({}, 1, [kept](sim::World&) {
      for (unsigned i = 1; i <= kept; ++i) port::FailCall("bind", i, WSAEACCES);
      EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000));
      EXPECT_EQ(port::CallCount("bind"), kept + 2);
      EXPECT_TRUE(GetRelayMgr().Serves());
    });
  }
}

SCENARIO(LifeOfTheWorker, DoesNotStartWhereNoPortIsFree) {
  port::FailCall("bind", 0, WSAEACCES);
  EXPECT_FALSE(GetRelayMgr().CheckAndInit(3000));
  EXPECT_LE(port::CallCount("bind"), 40u);
}

SCENARIO(LifeOfTheWorker, AnyOtherErrorOfABindStillEndsItsStart) {
  port::FailCall("bind", 1, WSAENETDOWN);
  EXPECT_FALSE(GetRelayMgr().CheckAndInit(3000));
  EXPECT_EQ(port::CallCount("bind"), 1u);
}

}  // namespace
