// The scheduler: one thread at a time, in an order that the seed decides and repeats.
#include <set>

#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "port/sim/seeds.h"

namespace {

struct Race {
  HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  CRITICAL_SECTION section;
  std::string order;
  Race() { InitializeCriticalSection(&section); }
};

DWORD WINAPI Start(LPVOID body) {
  (*static_cast<std::function<void()>*>(body))();
  return 7;
}

// Three threads that each write their letter five times.
std::string OrderOfThreads(sim::World& world) {
  Race race;
  for (const char letter : {'a', 'b', 'c'})
    world.Spawn(world.home(), std::string(1, letter), [&race, letter] {
      for (int i = 0; i < 5; ++i) {
        EnterCriticalSection(&race.section);
        race.order += letter;
        LeaveCriticalSection(&race.section);
      }
    });
  EXPECT_TRUE(world.RunUntilAllEnd());
  return race.order;
}

sim::ChildResult RunRace(uint64_t seed) {
  sim::Options options;
  options.seed = seed;
  return sim::RunInChild(
      options, [](sim::World& world) { std::fputs(OrderOfThreads(world).c_str(), stdout); },
      sim::GtestVerdict);
}

TEST(SimScheduler, TheSameSeedGivesTheSameRun) {
  for (uint64_t seed = 1; seed <= 5; ++seed) {
    const auto first = RunRace(seed), second = RunRace(seed);
    ASSERT_TRUE(first.passed) << first.output;
    EXPECT_EQ(first.output, second.output);
    EXPECT_EQ(first.trace_hash, second.trace_hash);
    EXPECT_GT(first.trace_lines, 0u);
  }
}

TEST(SimScheduler, DifferentSeedsGiveDifferentOrders) {
  std::set<std::string> orders;
  std::set<uint64_t> hashes;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    const auto run = RunRace(seed);
    EXPECT_EQ(run.output.size(), 15u) << run.output;
    orders.insert(run.output);
  }
  EXPECT_GE(orders.size(), 10u);
}

// The window between a look and a change is found by some seed, though it is never open for
// long: this is what the preemption points are for.
TEST(SimScheduler, SomeSeedFindsALostUpdate) {
  int lost = 0;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    sim::Options options;
    options.seed = seed;
    const auto run = sim::RunInChild(
        options,
        [](sim::World& world) {
          int count = 0;
          for (const char* name : {"a", "b"})
            world.Spawn(world.home(), name, [&count] {
              for (int i = 0; i < 10; ++i) {
                const int seen = count;
                Sleep(0);
                count = seen + 1;
              }
            });
          world.RunUntilAllEnd();
          EXPECT_EQ(count, 20);
        },
        sim::GtestVerdict);
    lost += !run.passed;
  }
  EXPECT_GT(lost, 0);
}

SCENARIO(SimScheduler, ACriticalSectionExcludesOthersAndIsRecursive) {
  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  int inside = 0, most = 0;
  for (int i = 0; i < 4; ++i)
    world.Spawn(world.home(), "worker" + std::to_string(i), [&] {
      for (int n = 0; n < 20; ++n) {
        EnterCriticalSection(&section);
        EnterCriticalSection(&section);
        most = std::max(most, ++inside);
        Sleep(0);
        --inside;
        LeaveCriticalSection(&section);
        EXPECT_TRUE(TryEnterCriticalSection(&section));
        LeaveCriticalSection(&section);
        LeaveCriticalSection(&section);
      }
    });
  ASSERT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(most, 1);
  DeleteCriticalSection(&section);
}

SCENARIO(SimScheduler, ThreadsHaveHandlesIdsAndExitCodes) {
  std::function<void()> body = [] { Sleep(50); };
  DWORD id = 0, code = 0;
  const HANDLE thread = CreateThread(nullptr, 0, Start, &body, 0, &id);
  ASSERT_NE(thread, nullptr);
  EXPECT_NE(id, GetCurrentThreadId());
  ASSERT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, STILL_ACTIVE);
  EXPECT_EQ(WaitForSingleObject(thread, 49), WAIT_TIMEOUT);
  EXPECT_EQ(WaitForSingleObject(thread, 2), WAIT_OBJECT_0);
  ASSERT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 7u);
  EXPECT_TRUE(CloseHandle(thread));
}

SCENARIO(SimScheduler, ATerminatedThreadUnwindsNothingAndKeepsItsLocks) {
  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  bool unwound = false;
  struct Guard {
    bool* flag;
    ~Guard() { *flag = true; }
  };
  std::function<void()> body = [&] {
    Guard guard{&unwound};
    EnterCriticalSection(&section);
    Sleep(INFINITE);
  };
  const HANDLE thread = CreateThread(nullptr, 0, Start, &body, 0, nullptr);
  world.RunFor(10ms);
  ASSERT_TRUE(TerminateThread(thread, 3));
  DWORD code = 0;
  EXPECT_EQ(WaitForSingleObject(thread, INFINITE), WAIT_OBJECT_0);
  ASSERT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 3u);
  EXPECT_FALSE(unwound);
  EXPECT_FALSE(TryEnterCriticalSection(&section));
}

SCENARIO(SimScheduler, AMutexOfADeadThreadGoesToTheNextAsAbandoned) {
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, "held");
  world.Spawn(world.home(), "holder", [&] { WaitForSingleObject(mutex, INFINITE); });
  world.RunFor(1ms);
  EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_ABANDONED);
  EXPECT_EQ(WaitForSingleObject(mutex, INFINITE), WAIT_OBJECT_0);
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_TRUE(ReleaseMutex(mutex));
  EXPECT_FALSE(ReleaseMutex(mutex));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_OWNER));
}

SCENARIO(SimScheduler, AnAutoResetEventWakesOneWaiter) {
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  int awake = 0;
  for (int i = 0; i < 3; ++i)
    world.Spawn(world.home(), "waiter" + std::to_string(i), [&] {
      if (WaitForSingleObject(event, 1000) == WAIT_OBJECT_0) ++awake;
    });
  world.RunFor(10ms);
  EXPECT_TRUE(SetEvent(event));
  EXPECT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(awake, 1);
}

// Bounded by the harness in real time: a scheduler that grows slow with threads would not end.
SCENARIO(SimScheduler, TwoHundredThreadsTakeTurns) {
  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  int count = 0;
  for (int i = 0; i < 200; ++i)
    world.Spawn(world.home(), "worker" + std::to_string(i), [&] {
      for (int n = 0; n < 20; ++n) {
        EnterCriticalSection(&section);
        ++count;
        LeaveCriticalSection(&section);
        if (n % 10 == 0) Sleep(1);
      }
    });
  ASSERT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(count, 4000);
}

// --- how worlds end ---------------------------------------------------------------------------

TEST(SimScheduler, ADeadlockEndsTheWorldAndReportsEachWait) {
  const auto run = sim::RunInChild(
      {},
      [](sim::World& world) {
        static HANDLE first = CreateMutexA(nullptr, FALSE, "first");
        static HANDLE second = CreateMutexA(nullptr, FALSE, "second");
        const auto take = [](HANDLE a, HANDLE b) {
          WaitForSingleObject(a, INFINITE);
          Sleep(10);
          WaitForSingleObject(b, INFINITE);
        };
        world.Spawn(world.home(), "left", [take] { take(first, second); });
        world.Spawn(world.home(), "right", [take] { take(second, first); });
        WaitForSingleObject(CreateEventA(nullptr, TRUE, FALSE, "never"), INFINITE);
      },
      sim::GtestVerdict);
  EXPECT_EQ(run.exit_code, sim::kWorldFailed);
  EXPECT_NE(run.output.find("deadlock"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("home/left: waits for mutex \"second\", held by home/right"),
            std::string::npos)
      << run.output;
  EXPECT_NE(run.output.find("home/director: waits for event \"never\""), std::string::npos)
      << run.output;
}

TEST(SimScheduler, AThreadThatSpinsForEverEndsTheWorld) {
  sim::Options options;
  options.max_steps = 50'000;
  const auto run = sim::RunInChild(
      options,
      [](sim::World&) {
        for (volatile bool goes_on = true; goes_on;) Sleep(0);
      },
      sim::GtestVerdict);
  EXPECT_EQ(run.exit_code, sim::kWorldFailed);
  EXPECT_NE(run.output.find("steps"), std::string::npos) << run.output;
}

TEST(SimScheduler, AWorldThatGrowsTooOldEnds) {
  sim::Options options;
  options.max_time = 1h;
  const auto run = sim::RunInChild(
      options,
      [](sim::World&) {
        for (volatile bool goes_on = true; goes_on;) Sleep(60'000);
      },
      sim::GtestVerdict);
  EXPECT_EQ(run.exit_code, sim::kWorldFailed);
  EXPECT_NE(run.output.find("older than its limit"), std::string::npos) << run.output;
}

// Twenty per cent is 0.2: a link with a loss of 20 would lose everything.
TEST(SimScheduler, ALinkThatIsToLoseMoreThanAllEndsTheWorld) {
  for (const double loss : {20.0, 1.01, -0.1}) {
    const auto run = sim::RunInChild(
        {},
        [loss](sim::World& world) {
          world.SetLink(world.home().host, world.AddHost("far", {"198.51.100.10"}), {.loss = loss});
        },
        sim::GtestVerdict);
    EXPECT_EQ(run.exit_code, sim::kWorldFailed);
    EXPECT_NE(run.output.find("it must be 0 to 1"), std::string::npos) << run.output;
  }
}

TEST(SimScheduler, ABodyThatLoopsWithoutACallIsEndedInRealTime) {
  const auto run = sim::RunInChild(
      {},
      [](sim::World&) {
        for (volatile int i = 0; i >= 0;) i = 0;
      },
      sim::GtestVerdict, std::chrono::seconds(1));
  EXPECT_TRUE(run.timed_out);
  EXPECT_FALSE(run.passed);
}

TEST(SimScheduler, ACrashIsAFailureThatNamesTheSignalAndKeepsTheTrace) {
  const auto run = sim::RunInChild(
      {},
      [](sim::World& world) {
        world.Trace("just before");
        ::raise(SIGKILL);
      },
      sim::GtestVerdict);
  EXPECT_FALSE(run.passed);
  EXPECT_EQ(run.signal, SIGKILL);
  EXPECT_NE(run.last_lines.find("just before"), std::string::npos);
}

TEST(SimScheduler, AFailedExpectationInAnyThreadFailsTheChild) {
  const auto run = sim::RunInChild(
      {},
      [](sim::World& world) {
        world.Spawn(world.home(), "other", [] { EXPECT_EQ(1, 2); });
        world.RunUntilAllEnd();
      },
      sim::GtestVerdict);
  EXPECT_FALSE(run.passed);
  EXPECT_EQ(run.exit_code, 1);
}

TEST(SimScheduler, AFailurePrintsTheCommandThatReplaysIt) {
  const std::string command = sim::ReplayCommand("Suite.Name", 123);
  EXPECT_EQ(command.rfind("VYR_SEED=123 /", 0), 0u) << command;
  EXPECT_NE(command.find(" --gtest_filter=Suite.Name"), std::string::npos) << command;
}

// A hundred seeds are a hundred worlds, not one sequence of random numbers shifted by one for each.
TEST(SimSeeds, NeighboursDrawDifferentNumbers) {
  constexpr uint64_t kSeeds = 100, kThrows = 1000;
  std::set<uint64_t> throws;
  for (uint64_t seed = 0; seed < kSeeds; ++seed) {
    sim::Random random(sim::Scattered(seed));
    for (uint64_t i = 0; i < kThrows; ++i) throws.insert(random.Next());
  }
  EXPECT_EQ(throws.size(), kSeeds * kThrows);
}

}  // namespace
