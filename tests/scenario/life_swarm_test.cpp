// Random worlds in which one of our threads, or the whole process, ends at any of its calls.
// Afterwards no call of the game hangs, none of our threads still runs, and traffic goes direct.
//
// A failure prints its seed and the command that runs it again. VYR_SWARM_SEEDS=5000 asks for more
// seeds than the usual run takes.
#include "common/named_mutex.h"
#include "tests/scenario/life_world.h"
#include "tests/scenario/swarm.h"
#include "tests/support/report_client.h"

namespace {

using namespace life_test;      // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT: the records
using swarm_test::Swarm;
using swarm_test::SwarmSeeds;

constexpr const ReportChannel* kChannels[] = {
    &kDecisionChannel,          &kCommunicationChannel,   &kLogPathChannel,       &kLoadedChannel,
    &kNegotiationResultChannel, &kRealNegotiationChannel, &kRecoverySwitchChannel};

// Small numbers are as likely as large ones.
unsigned AnyCall(sim::Random& random) {
  const uint64_t most = uint64_t{1} << random.Below(14);
  return static_cast<unsigned>(1 + random.Below(most));
}

// Set before the game makes its first socket: its threads are ended from their first call on.
struct EarlyEnd {
  EarlyEnd() {
    sim::World& world = sim::TheWorld();
    const uint64_t who = world.random().Below(5);
    if (who != 0) End(world, kWorker);          // 1 to 4: the worker, …
    if (who % 2 == 0) End(world, kSyncThread);  // 0, 2 and 4: … the reporting thread, or both
    worker_is_ended = who != 0;
  }
  static void End(sim::World& world, const char* thread) {
    EndAtCall(world, thread, AnyCall(world.random()));
  }
  // The next call outside the dispatch: a thread that ended there would keep the dispatch's lock
  // for ever.
  static void EndAtCall(sim::World& world, const char* thread, unsigned nth) {
    world.AtCall(thread, nth, [&world, thread] {
      if (port::IsInsideDispatch()) return EndAtCall(world, thread, 1);
      world.Terminate(world.ThreadNamed(thread));
    });
  }
  bool worker_is_ended = false;
  test::ReportClient client;
};

class LifeSwarm : public EarlyEnd, public Swarm<LifeWorld> {
 protected:
  LifeSwarm() {
    common::SetLogThreshold(Chance(50) ? 9 : 0);
    port::DispatchManners manners;
    manners.ends_before_its_providers = Chance(50);
    manners.starts_once_per_provider = Chance(50);
    manners.text_takes_the_start_lock = Chance(50);
    port::SetDispatchManners(manners);
    world.ReuseSocketHandles(Chance(50));
  }

  // A client program that takes its mutexes, and now and then holds one for a while.
  void StartClient() {
    world.SpawnOn(world.host("home"), "client", [this] {
      for (;;) {
        common::NamedMutex mutex(Any(kChannels)->mutex_name);
        mutex.lock();
        if (Chance(10)) Sleep(static_cast<DWORD>(Below(2000)));
        mutex.unlock();
        Sleep(static_cast<DWORD>(Below(50)));
      }
    });
  }
  void StartPlayer(int number) {
    ++playing_;
    world.Spawn(world.home(), "player" + std::to_string(number), [this] {
      for (int i = 0; i < 12; ++i) {
        Sleep(static_cast<DWORD>(Below(300)));
        if (Chance(50)) {
          PlayStream();
        } else {
          PlayDatagrams();
        }
      }
      --playing_;
    });
  }
  // Whatever fails, each call comes back.
  void PlayStream() {
    const SOCKET s = Tcp();
    if (s == INVALID_SOCKET) return;
    if (ConnectTo(s, Chance(70) ? kServer : kDirect, kPort) == 0) {
      for (uint64_t i = Below(4); i > 0; --i) Talks(s, Pattern(1 + Below(5000)));
      if (Chance(20)) Sleep(static_cast<DWORD>(Below(1000)));
    }
    closesocket(s);
  }
  void PlayDatagrams() {
    const SOCKET s = Udp();
    if (s == INVALID_SOCKET) return;
    for (uint64_t i = 1 + Below(6); i > 0; --i) {
      const char* const to = Chance(70) ? kServer : kUnlisted;
      SendTextTo(s, Pattern(1 + Below(1000)), to, kPort);
      if (!ReadableWithin(s, 200)) continue;
      char bytes[2048];
      recv(s, bytes, sizeof bytes, 0);
    }
    closesocket(s);
  }

  int playing_ = 0;
};

SCENARIO_F_SEEDS(LifeSwarm, WhateverIsEndedNoCallHangsAndTrafficGoesDirect, SwarmSeeds(60)) {
  StartsWinsock();
  StartClient();
  for (int i = 0; i < 4; ++i) StartPlayer(i);
  RunFor(Ms(6000));
  const bool ended = worker_is_ended && Worker() != 0 && !world.IsRunning(Worker());
  if (ended) {
    RunFor(3s);  // a client may keep the reporting thread for two
    ExpectConnects("game");
    ExpectTalksByDatagram("game");
  }
  // 200 ms for the worker, 100 for its locks, 100 for its end.
  EXPECT_LE(EndsWinsock(), 410u);
  if (Chance(70)) StartsWinsock();
  EXPECT_TRUE(RunUntil([this] { return playing_ == 0; }, 2min)) << world.Report();
  RunFor(5s);
  EXPECT_TRUE(ThreadsOfOurs().empty()) << ThreadsOfOurs().front() << "\n" << world.Report();
  StartsWinsock();
  ExpectConnects("game");
  ExpectTalksByDatagram("game");
}

// --- the whole process --------------------------------------------------------------------------

// The game's side, in a process that may end at any moment.
class VictimGame : public TcpWorld {
 public:
  using TcpWorld::NodesAreFree;
  void Plays() {
    for (int i = 0; i < 30; ++i) {
      const SOCKET s = Joins();
      if (s != INVALID_SOCKET) Talks(s, "hello");
      closesocket(s);
      Sleep(20);
    }
  }
};

class LifeOfAProcess : public sim::ScenarioTest {
 protected:
  // Whether another process gets the mutex.
  bool IsFree(const char* mutex_name) {
    bool taken = false;
    world.SpawnOn(world.host("home"), "client", [mutex_name, &taken] {
      common::NamedMutex mutex(mutex_name);
      const common::NamedMutexGuard guard(&mutex, false);
      taken = true;
    });
    return RunUntil([&taken] { return taken; }, 1s);
  }
  test::ReportClient client;
};

// Other processes find every mutex free, and the nodes notice the end.
SCENARIO_F_SEEDS(LifeOfAProcess, ItsEndReleasesEveryMutex, SwarmSeeds(60)) {
  sim::Process& process = world.AddProcess(world.host("home"), "victim");
  const char* const threads[] = {"victim/main", "victim/thread1", "victim/thread2"};
  VictimGame* game = nullptr;
  bool plays = false;
  world.Spawn(process, "main", [&] {
    static auto& kept = *new std::unique_ptr<VictimGame>;  // its nodes live on
    kept = std::make_unique<VictimGame>();
    game = kept.get();
    plays = true;
    game->Plays();
  });
  ASSERT_TRUE(RunUntil([&] { return plays; })) << world.Report();
  world.AtCall(threads[world.random().Below(3)], AnyCall(world.random()),
               [&] { world.Kill(process); });
  RunFor(10s);
  world.Kill(process);
  for (const ReportChannel* channel : kChannels) {
    EXPECT_TRUE(IsFree(channel->mutex_name)) << channel->mutex_name;
  }
  EXPECT_TRUE(RunUntil([&] { return game->NodesAreFree(); }, 60s));
}

}  // namespace
