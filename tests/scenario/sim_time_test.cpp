// The clock: it stands still while any thread can run, and then jumps.
#include "port/sim/scenario.h"

namespace {

sim::Options TickBeforeWrap() {
  sim::Options options;
  options.tick_start = 0xffffffffu - 99;
  return options;
}

SCENARIO(SimTime, SleepTakesExactlyItsTimeAndNoRealTime) {
  const DWORD before = GetTickCount();
  Sleep(3'600'000);
  EXPECT_EQ(GetTickCount() - before, 3'600'000u);
}

SCENARIO_OPTIONS(SimTime, TheTickCountWrapsLikeAnyOther, TickBeforeWrap()) {
  EXPECT_EQ(GetTickCount(), 0xffffffffu - 99);
  Sleep(150);
  EXPECT_EQ(GetTickCount(), 50u);
}

SCENARIO(SimTime, TheDateStartsFixedAndMovesWithTheClock) {
  EXPECT_EQ(time(nullptr), 1'700'000'000);
  SYSTEMTIME now = {};
  GetLocalTime(&now);
  EXPECT_EQ(now.wYear, 2023);
  EXPECT_EQ(now.wMonth, 11);
  EXPECT_EQ(now.wDay, 14);
  EXPECT_EQ(now.wHour, 22);
  EXPECT_EQ(now.wMinute, 13);
  EXPECT_EQ(now.wSecond, 20);
  FILETIME start = {}, later = {};
  GetSystemTimeAsFileTime(&start);
  Sleep(1500);
  GetSystemTimeAsFileTime(&later);
  EXPECT_EQ(later.dwLowDateTime - start.dwLowDateTime, 15'000'000u);
  EXPECT_EQ(time(nullptr), 1'700'000'001);
  GetLocalTime(&now);
  EXPECT_EQ(now.wMilliseconds, 500);
}

// As on a machine that saves power. What a thread waits for is still noticed at once.
SCENARIO(SimTime, CoarseTimersEndAtMultiplesAndSignalsAtOnce) {
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  Sleep(30);
  world.SetTimerGrain(250ms);
  Sleep(1);
  EXPECT_EQ(world.now(), 250ms);
  Sleep(250);
  EXPECT_EQ(world.now(), 500ms);
  EXPECT_EQ(WaitForSingleObject(event, 260), WAIT_TIMEOUT);
  EXPECT_EQ(world.now(), 1000ms);
  world.After(30ms,
              [this, event] { world.Spawn(world.home(), "signal", [event] { SetEvent(event); }); });
  EXPECT_EQ(WaitForSingleObject(event, 260), WAIT_OBJECT_0);
  EXPECT_EQ(world.now(), 1030ms);
  world.SetTimerGrain(1us);
  Sleep(1);
  EXPECT_EQ(world.now(), 1031ms);
}

SCENARIO(SimTime, SleepersWakeInTheOrderOfTheirDeadlines) {
  std::string order;
  for (const int ms : {30, 10, 20})
    world.Spawn(world.home(), std::to_string(ms), [&order, ms] {
      Sleep(static_cast<DWORD>(ms));
      order += std::to_string(ms) + " ";
    });
  world.RunFor(25ms);
  EXPECT_EQ(order, "10 20 ");
  world.RunFor(5ms);  // what is due at the end of the time is done
  EXPECT_EQ(order, "10 20 30 ");
}

SCENARIO(SimTime, AnEventThatIsNotSetTimesOutExactly) {
  const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  const DWORD before = GetTickCount();
  EXPECT_EQ(WaitForSingleObject(event, 500), WAIT_TIMEOUT);
  EXPECT_EQ(GetTickCount() - before, 500u);
}

SCENARIO(SimTime, AThreadThatOnlyReadsTheClockSeesItAdvance) {
  const DWORD before = GetTickCount();
  while (GetTickCount() - before < 20) {
  }
  EXPECT_GE(world.now(), 20ms);
}

SCENARIO(SimTime, AfterRunsAnActionAtItsTime) {
  DWORD at = 0;
  world.After(123ms, [&] { at = GetTickCount(); });
  const DWORD before = GetTickCount();
  EXPECT_TRUE(RunUntil([&] { return at != 0; }, 1s));
  EXPECT_EQ(at - before, 123u);
  EXPECT_FALSE(RunUntil([] { return false; }, 1s));
  EXPECT_EQ(world.now(), 1123ms);
}

TEST(SimTime, RandomNumbersComeFromTheSeed) {
  const auto draw = [](uint64_t seed) {
    sim::Options options;
    options.seed = seed;
    return sim::RunInChild(
               options,
               [](sim::World&) {
                 unsigned value = 0;
                 EXPECT_EQ(rand_s(&value), 0);
                 std::printf("%u", value);
               },
               sim::GtestVerdict)
        .output;
  };
  EXPECT_EQ(draw(5), draw(5));
  EXPECT_NE(draw(5), draw(6));
}

}  // namespace
