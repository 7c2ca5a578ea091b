// Injected faults, the sudden end of a process, and what a failing scenario prints.
#include "port/shared/faults.h"
#include "port/shared/mappings.h"
#include "port/shared/objects.h"
#include "port/shared/process.h"
#include "tests/scenario/sim_sockets.h"

namespace {
using namespace sim_test;  // NOLINT: the verbs of these tests

using SimFaults = TwoHosts;

SCENARIO_F(SimFaults, TheNthCallOfANameFails) {
  port::FailCall("CreateMutexA", 2, ERROR_ACCESS_DENIED);
  EXPECT_NE(CreateMutexA(nullptr, FALSE, nullptr), nullptr);
  EXPECT_EQ(CreateMutexA(nullptr, FALSE, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
  EXPECT_NE(CreateMutexA(nullptr, FALSE, nullptr), nullptr);
}

SCENARIO_F(SimFaults, AnEntryOfTheBaseProviderFails) {
  port::FailCall("WSPSocket", 1, WSAENOBUFS);
  EXPECT_EQ(Tcp(), INVALID_SOCKET);
  EXPECT_EQ(WSAGetLastError(), WSAENOBUFS);
  EXPECT_NE(Tcp(), INVALID_SOCKET);
}

SCENARIO_F(SimFaults, TheNthSendIsCutShort) {
  const SOCKET listener = ListenAt(80);
  const SOCKET s = Tcp();
  ASSERT_EQ(ConnectTo(s, "127.0.0.1", 80), 0);
  const SOCKET accepted = AcceptFrom(listener);
  world.ShortSend(2, 3);
  EXPECT_EQ(SendText(s, "whole,"), 6);
  EXPECT_EQ(SendText(s, "cut short"), 3);
  EXPECT_EQ(SendText(s, " again"), 6);
  closesocket(s);
  EXPECT_EQ(ReceivedAll(accepted), "whole,cut again");
}

SCENARIO_F(SimFaults, ALostSetEventWakesNoThread) {
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  world.LoseSetEvent(1);
  EXPECT_TRUE(SetEvent(event));
  EXPECT_EQ(WaitForSingleObject(event, 100), WAIT_TIMEOUT);
  EXPECT_TRUE(SetEvent(event));
  EXPECT_EQ(WaitForSingleObject(event, 100), WAIT_OBJECT_0);
}

DWORD WINAPI NoWork(LPVOID) { return 0; }

SCENARIO_F(SimFaults, AThreadCannotStart) {
  world.FailThreadStart(1);
  EXPECT_EQ(CreateThread(nullptr, 0, NoWork, nullptr, 0, nullptr), nullptr);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
  EXPECT_NE(CreateThread(nullptr, 0, NoWork, nullptr, 0, nullptr), nullptr);
}

SCENARIO_F(SimFaults, AStalledThreadDoesNotRun) {
  int ticks = 0;
  const DWORD id = world.Spawn(world.home(), "ticker", [&] {
    while (true) {
      Sleep(10);
      ++ticks;
    }
  });
  RunFor(100ms);
  EXPECT_EQ(ticks, 10);
  world.Stall(id, 500ms);
  RunFor(400ms);
  EXPECT_EQ(ticks, 10);
  RunFor(200ms);
  EXPECT_GT(ticks, 15);
}

SCENARIO_F(SimFaults, AKilledProcessLeavesOnlyBrokenConnectionsAndMutexes) {
  std::string at_client;
  sim::Process& victim = world.AddProcess(server, "victim");
  const HANDLE outside = CreateMutexA(nullptr, FALSE, "shared");
  bool went_on = false;
  world.Spawn(victim, "network", [&] {
    const SOCKET s = AcceptFrom(ListenAt(80));
    Received(s);
    went_on = true;
  });
  world.Spawn(victim, "holder", [&] {
    WaitForSingleObject(OpenMutexA(SYNCHRONIZE, FALSE, "shared"), INFINITE);
    Sleep(INFINITE);
    went_on = true;
  });
  world.SpawnOn(client, "client", [&] {
    Sleep(10);
    const SOCKET s = Tcp();
    ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
    at_client = Received(s);
    EXPECT_EQ(ConnectTo(Tcp(), kServer, 80), WSAECONNREFUSED);
  });
  RunFor(100ms);
  EXPECT_EQ(WaitForSingleObject(outside, 0), WAIT_TIMEOUT);
  world.Kill(victim);
  EXPECT_EQ(WaitForSingleObject(outside, 0), WAIT_ABANDONED);
  EXPECT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(at_client, "error 10054");
  EXPECT_FALSE(went_on);
  EXPECT_EQ(world.ThreadNamed("victim/holder"), 0u);
}

SCENARIO_F(SimFaults, AProcessCanDieWhenItAcquiresTheMutex) {
  sim::Process& victim = world.AddProcess(server, "victim");
  world.KillWhenItHolds(victim, "guard");
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, "guard");  // keeps the name alive
  bool got_through = false;
  world.Spawn(victim, "main", [&] {
    WaitForSingleObject(CreateMutexA(nullptr, FALSE, "guard"), INFINITE);
    got_through = true;
  });
  RunFor(10ms);
  EXPECT_FALSE(victim.alive);
  EXPECT_FALSE(got_through);
  EXPECT_EQ(WaitForSingleObject(mutex, 1000), WAIT_ABANDONED);
}

SCENARIO_F(SimFaults, AProcessThatKillsItselfEndsThere) {
  bool went_on = false;
  sim::Process& victim = world.SpawnOn(server, "victim", [&] {
    world.Kill(*server_process);
    went_on = true;
  });
  server_process = &victim;
  EXPECT_TRUE(world.RunUntilAllEnd());
  EXPECT_FALSE(went_on);
}

SCENARIO_F(SimFaults, AThreadIsTerminatedAnywhere) {
  const HANDLE mutex = CreateMutexA(nullptr, FALSE, "held");
  bool went_on = false;
  const DWORD id = world.Spawn(world.home(), "victim", [&] {
    WaitForSingleObject(mutex, INFINITE);
    Sleep(10);
    went_on = true;
  });
  RunFor(5ms);
  world.Terminate(id);
  EXPECT_FALSE(world.IsRunning(id));
  EXPECT_EQ(WaitForSingleObject(mutex, 0), WAIT_ABANDONED);
  RunFor(1s);
  EXPECT_FALSE(went_on);
  world.Terminate(id);  // has no owner any more
}

// Whether the thread runs already or not.
SCENARIO_F(SimFaults, AnActionRunsAtTheNthCallOfAThread) {
  for (const bool early : {false, true}) {
    int events = 0, seen = -1;
    const auto act = [&] { seen = events; };
    if (early) world.AtCall("home/caller", 3, act);
    HANDLE begin = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    world.Spawn(world.home(), "caller", [&] {
      if (!early) WaitForSingleObject(begin, INFINITE);
      for (int i = 0; i < 5; ++i, ++events)
        CloseHandle(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    });
    RunFor(1ms);
    if (!early) {
      world.AtCall("home/caller", 3, act);
      SetEvent(begin);
      RunFor(1ms);
    }
    EXPECT_EQ(events, 5);
    EXPECT_EQ(seen, 1) << "two calls a round";
  }
}

SCENARIO_F(SimFaults, AThreadAndAProcessEndAtTheNthCall) {
  bool thread_went_on = false, process_went_on = false;
  sim::Process& process = world.AddProcess(server, "process");
  world.AtCall("home/victim", 1, [&] { world.Terminate(world.ThreadNamed("home/victim")); });
  world.AtCall("process/main", 2, [&] { world.Kill(process); });
  world.Spawn(world.home(), "victim", [&] {
    GetLastError();
    CloseHandle(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    thread_went_on = true;
  });
  world.Spawn(process, "other", [] { Sleep(INFINITE); });
  world.Spawn(process, "main", [&] {
    Sleep(1);
    Sleep(1);
    process_went_on = true;
  });
  RunFor(1s);
  EXPECT_FALSE(thread_went_on);
  EXPECT_FALSE(process_went_on);
  EXPECT_FALSE(process.alive);
  EXPECT_EQ(world.ThreadNamed("process/other"), 0u);
}

SCENARIO_F(SimFaults, ClosedSocketHandlesAreReusedOnlyOnRequest) {
  const SOCKET first = Tcp();
  closesocket(first);
  EXPECT_NE(Tcp(), first);
  world.ReuseSocketHandles(true);
  const SOCKET second = Udp();
  closesocket(second);
  EXPECT_EQ(Tcp(), second);
}

// A search opens and closes sockets for hours in one world.
SCENARIO_F(SimFaults, OnlyTheLatestClosedSocketsAreRemembered) {
  constexpr int kMany = 5000;
  const SOCKET first = Udp();
  closesocket(first);
  for (int i = 0; i < kMany; ++i) closesocket(Udp());
  world.ReuseSocketHandles(true);
  for (int i = 0; i <= kMany; ++i) EXPECT_NE(Udp(), first);
}

SCENARIO_F(SimFaults, EachProcessHasItsOwnRecord) {
  sim::Process& game = world.AddProcess(client, "game", L"C:\\games\\play.exe", "play.exe -fast");
  world.Spawn(game, "main", [&] {
    wchar_t path[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, path, MAX_PATH);
    EXPECT_EQ(std::wstring(path), L"C:\\games\\play.exe");
    EXPECT_STREQ(GetCommandLineA(), "play.exe -fast");
    EXPECT_EQ(GetCurrentProcessId(), game.pid);
  });
  ASSERT_TRUE(world.RunUntilAllEnd());
  EXPECT_NE(GetCurrentProcessId(), game.pid);
}

SCENARIO_F(SimFaults, EndOfAProcessClosesItsHandles) {
  sim::Process& game = world.AddProcess(client, "game", L"C:\\games\\play.exe", "play.exe");
  const size_t handles = port::OpenHandles(), views = port::OpenViews();
  world.Spawn(game, "main", [] {
    const HANDLE mapping = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                                              4096, "left_by_the_dead");
    MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    CreateEventA(nullptr, FALSE, FALSE, nullptr);
  });
  ASSERT_TRUE(world.RunUntilAllEnd());
  EXPECT_EQ(port::OpenHandles(), handles + 2);
  EXPECT_EQ(port::OpenViews(), views + 1);
  world.Kill(game);
  EXPECT_EQ(port::OpenHandles(), handles);
  EXPECT_EQ(port::OpenViews(), views);
  EXPECT_EQ(OpenFileMappingA(FILE_MAP_READ, FALSE, "left_by_the_dead"), nullptr);
}

SCENARIO_F(SimFaults, IdleMeansThatNothingIsInFlight) {
  sim::LinkOptions slow = link();
  slow.delay = 300ms;
  Link(slow);
  world.SpawnOn(client, "client", [] {
    const SOCKET s = Udp();
    SendTextTo(s, "x", kServer, 9);
    Sleep(INFINITE);
  });
  EXPECT_TRUE(RunUntilIdle());
  EXPECT_EQ(world.now(), 600ms);  // one way, and the refusal back
}

// --- what a failing scenario prints -----------------------------------------------------------

void FailsOnSeedThree() {
  sim::RunScenario({}, 5, [](sim::World& world) {
    world.Trace("a line of the trace");
    EXPECT_NE(world.seed(), 3u) << "the body's own words";
  });
}

void NeverReturns() {
  sim::RunScenario({}, 1, [](sim::World&) { Sleep(INFINITE); });
}

// What a failing test prints, seen from outside.
std::string OutputOf(void (*test_body)()) {
  const auto run = sim::RunInChild(
      {}, [&](sim::World&) { test_body(); }, sim::GtestVerdict);
  EXPECT_FALSE(run.passed);
  return run.output;
}

TEST(SimHarness, AFailurePrintsSeedTraceAndReplayCommand) {
  uint64_t only = 0;
  if (sim::SeedFromEnvironment(&only)) GTEST_SKIP() << "VYR_SEED asks for one seed";
  const std::string output = OutputOf(FailsOnSeedThree);
  for (const char* part : {"with seed 3", "the body's own words", "a line of the trace",
                           "VYR_SEED=3 ", "--gtest_filter=SimHarness.AFailurePrints"})
    EXPECT_NE(output.find(part), std::string::npos) << part << " is not in\n" << output;
}

TEST(SimHarness, AWorldInADeadlockFailsItsTest) {
  const std::string output = OutputOf(NeverReturns);
  EXPECT_NE(output.find("deadlock: every thread waits for ever"), std::string::npos) << output;
}

TEST(SimHarness, AScenarioStartsWithFreshStatics) {
  static int count = 0;
  for (int i = 0; i < 2; ++i) sim::RunScenario({}, 1, [](sim::World&) { EXPECT_EQ(++count, 1); });
  EXPECT_EQ(count, 0);
}

TEST(SimHarness, ASeedInTheEnvironmentRunsOnlyThatSeed) {
  const char* set = std::getenv("VYR_SEED");
  const std::string before = set ? set : "";
  ::setenv("VYR_SEED", "41", 1);
  int runs = 0;
  testing::internal::CaptureStdout();
  sim::RunScenario({}, 3,
                   [](sim::World& world) { std::printf("<%d>", static_cast<int>(world.seed())); });
  runs = testing::internal::GetCapturedStdout() == "<41>";
  EXPECT_EQ(runs, 1);
  if (set)
    ::setenv("VYR_SEED", before.c_str(), 1);
  else
    ::unsetenv("VYR_SEED");
}

// A unit test has no world of its own: the first call makes one.
TEST(SimHarness, AWindowsCallWithoutAWorldGetsTheDefaultOne) {
  EXPECT_EQ(time(nullptr) / 1'000'000, 1700);
  const DWORD before = GetTickCount();
  Sleep(1000);
  EXPECT_EQ(GetTickCount() - before, 1000u);
}

}  // namespace
