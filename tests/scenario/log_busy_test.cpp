// A busy logger: a thread is in the middle of a write and holds the lock, like a thread of a game
// that the platform has suspended or killed.
#include <windows.h>

#include <string>

#include "common/log_file.h"
#include "port/sim/scenario.h"
#include "tests/support/temp_dir.h"

namespace {

using common::LogFile;

class BusyLogger : public sim::ScenarioTest {
 protected:
  BusyLogger() { EXPECT_TRUE(log.Open(path)); }

  void SetUp() override {
    writer_ = world.Spawn(world.home(), "writer", [this] {
      const std::string line(1025, 'x');  // each one reaches the disk, under the lock
      while (!stop_) log.Write(line, 5);
    });
    GetStuck();
  }
  void TearDown() override {
    Release();
    ASSERT_TRUE(RunUntil([this] { return !world.IsRunning(writer_); }));
    log.Write("last\n", 5);
  }

  // The writer comes to its end.
  void Release() {
    stop_ = true;
    if (world.IsRunning(writer_)) world.Stall(writer_, 0us);
  }

  test::TempDir dir;
  const std::string path = dir / "run.log";
  LogFile log;

 private:
  // A line that is lost is the proof that the writer was stopped at the right moment.
  void GetStuck() {
    for (int i = 0; i < 1000; ++i) {
      Sleep(0);
      world.Stall(writer_, std::chrono::hours(1));
      if (!log.Write("probe\n", 5)) return;
      world.Stall(writer_, 0us);
    }
    ADD_FAILURE() << "the writer was never stopped in a write";
  }

  bool stop_ = false;
  DWORD writer_ = 0;
};

SCENARIO_F_SEEDS(BusyLogger, CostsALineAHundredTriesAndNoTime, 5) {
  const sim::Duration begin = world.now();
  const uint64_t steps = world.steps();
  EXPECT_FALSE(log.Write("lost\n", 5));
  EXPECT_EQ(world.steps() - steps, 99u) << "a pause between two tries";
  EXPECT_LT(world.now() - begin, 10ms);
}

SCENARIO_F_SEEDS(BusyLogger, HoldsUpNeitherAFlushNorTheEnd, 5) {
  const sim::Duration begin = world.now();
  log.Flush();
  log.Shut();
  EXPECT_LT(world.now() - begin, 10ms);
  EXPECT_FALSE(log.Write("too late\n", 5));
  EXPECT_FALSE(log.Open(path)) << "nor is it waited for to open the file again";
}

// One thread waits for its turn to write, and another closes the log.
SCENARIO_F_SEEDS(BusyLogger, ALineThatCountsAsWrittenIsInTheFile, 30) {
  bool written = false, done = false;
  world.Spawn(world.home(), "late", [&] {
    written = log.Write("late\n", 5);
    done = true;
  });
  Sleep(0);
  Release();
  log.Shut();
  ASSERT_TRUE(RunUntil([&] { return done; }));
  log.Shut();
  if (written) {
    EXPECT_TRUE(test::ReadFileText(path).ends_with("late\n"));
  }
}

SCENARIO_F_SEEDS(BusyLogger, HoldsUpNoOpening, 5) {
  LogFile other;
  EXPECT_TRUE(other.Open(dir / "other.log")) << "each has a lock of its own";
  EXPECT_TRUE(log.Open(path)) << "it is open";
}

}  // namespace
