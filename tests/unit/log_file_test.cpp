// When lines reach the disk, when a file starts afresh, when it stops growing; and that a log that
// cannot be written to does not disturb the host.
#include "common/log_file.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/temp_dir.h"
#include "tests/unit/out_of_memory.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace {

using common::LogFile;
using test::FileExists;
using test::FileSize;
using test::ReadFileText;
using test::TempDir;

std::string LineOf(std::size_t size) { return std::string(size - 1, 'x') + "\n"; }

TEST(LogFile, OpenCreatesMissingDirectories) {
  const TempDir dir;
  LogFile log;
  EXPECT_TRUE(log.Open(dir / "a\\b/c\\run.log"));
  EXPECT_TRUE(FileExists(dir / "a\\b\\c\\run.log"));
}

TEST(LogFile, OpenRefusesAnInvalidPath) {
  const TempDir dir;
  LogFile log;
  EXPECT_FALSE(log.Open(""));
  EXPECT_FALSE(log.Open(dir / "\x80.log"));  // no UTF-8
  EXPECT_FALSE(log.Write("line\n", 5));
}

TEST(LogFile, OpenFailsIfTheDirectoryCannotBeCreated) {
  const TempDir dir;
  test::MakeSparseFile(dir / "file", 0);
  LogFile log;
  EXPECT_FALSE(log.Open(dir / "file\\sub\\run.log"));
  EXPECT_FALSE(log.Open(dir / "file\\run.log"));
  EXPECT_FALSE(log.Write("line\n", 5));
  log.Flush();
  EXPECT_TRUE(log.Open(dir / "run.log"));  // a failure settles nothing
}

TEST(LogFile, OpenFailsOnADirectory) {
  const TempDir dir;
  CreateDirectoryW(test::Wide(dir / "run.log").c_str(), nullptr);
  LogFile log;
  EXPECT_FALSE(log.Open(dir / "run.log"));
}

TEST(LogFile, SecondOpenKeepsTheFirstFile) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "first.log"));
  EXPECT_TRUE(log.Open(dir / "second.log"));
  EXPECT_FALSE(FileExists(dir / "second.log"));
}

TEST(LogFile, PathCanHaveCharactersOutsideTheCodePage) {
  const TempDir dir;
  const std::string path = dir / "\xE6\xB8\xB8\xE6\x88\x8F\\\xF0\x9F\x8E\xAE.log";
  LogFile log;
  ASSERT_TRUE(log.Open(path));
  log.Write("line\n", 5);
  log.Flush();
  EXPECT_EQ(ReadFileText(path), "line\n");
}

TEST(LogFile, FileOf20971520BytesIsEmptied) {
  const TempDir dir;
  test::MakeSparseFile(dir / "run.log", 20971520);
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  EXPECT_EQ(FileSize(dir / "run.log"), 0);
  log.Write("line\n", 5);
  log.Flush();
  EXPECT_EQ(ReadFileText(dir / "run.log"), "line\n");
}

TEST(LogFile, FileOf20971519BytesIsAppendedTo) {
  const TempDir dir;
  test::MakeSparseFile(dir / "run.log", 20971519);
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write("line\n", 5);
  log.Flush();
  EXPECT_EQ(FileSize(dir / "run.log"), 20971524);
  EXPECT_EQ(ReadFileText(dir / "run.log", 5), "line\n");
}

TEST(LogFile, LevelIsFourAtFirst) {
  LogFile log;
  EXPECT_EQ(log.GetLevel(), 4);
  log.SetLevel(2);
  EXPECT_EQ(log.GetLevel(), 2);
}

TEST(LogFile, WriteDistinguishesLostLinesFromFilteredOnes) {
  const TempDir dir;
  LogFile log;
  EXPECT_FALSE(log.Write("closed\n", 5));
  ASSERT_TRUE(log.Open(dir / "run.log"));
  EXPECT_TRUE(log.Write("below\n", 3));
  EXPECT_TRUE(log.Write("", 5));
  EXPECT_TRUE(log.Write("kept\n", 4));
  log.Flush();
  EXPECT_EQ(ReadFileText(dir / "run.log"), "kept\n");
}

TEST(LogFile, LinesBelow1024BytesStayInMemory) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write(LineOf(500), 5);
  log.Write(LineOf(524), 5);  // 1024 together, which is not above it
  EXPECT_EQ(FileSize(dir / "run.log"), 0);
  log.Write(LineOf(1), 5);
  EXPECT_EQ(FileSize(dir / "run.log"), 1024);  // the two, not the third
  log.Flush();
  EXPECT_EQ(FileSize(dir / "run.log"), 1025);
}

TEST(LogFile, LineLongerThanTheThresholdWaitsForTheNext) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write(LineOf(5000), 5);
  EXPECT_EQ(FileSize(dir / "run.log"), 0);
  log.Write(LineOf(10), 5);
  EXPECT_EQ(FileSize(dir / "run.log"), 5000);
}

#ifndef _WIN32
TEST(LogFile, TheDiskIsNotAskedToWriteNothing) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  port::CountCalls();
  log.Flush();
  log.Write(LineOf(5000), 5);
  EXPECT_EQ(port::CallCount("WriteFile"), 0u);
  log.Flush();
  log.Flush();
  EXPECT_EQ(port::CallCount("WriteFile"), 1u);
  port::ClearFaults();
}
#endif

TEST(LogFile, DestructorWritesTheLastLines) {
  const TempDir dir;
  {
    LogFile log;
    ASSERT_TRUE(log.Open(dir / "run.log"));
    log.Write("last\n", 5);
  }
  EXPECT_EQ(ReadFileText(dir / "run.log"), "last\n");
}

TEST(LogFile, ShutFileDropsLinesAndMayBeOpenedAgain) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write("one\n", 5);
  log.Shut();
  EXPECT_FALSE(log.Write("two\n", 5));
  log.Flush();
  log.Shut();
  EXPECT_EQ(ReadFileText(dir / "run.log"), "one\n");
  EXPECT_TRUE(log.Open(dir / "run.log"));
  log.Write("three\n", 5);
  log.Shut();
  EXPECT_EQ(ReadFileText(dir / "run.log"), "one\nthree\n");
}

// A game that runs for a week at the most verbose level must not fill the disk. What is logged
// past the limit stays in memory, which is known and accepted.
TEST(LogFile, FileStopsGrowingAtTheLimitOfARun) {
  static_assert(LogFile::kMaxWrittenTotal == 209715200);
  const TempDir dir;
  {
    LogFile log(2000);
    ASSERT_TRUE(log.Open(dir / "run.log"));
    log.Write(LineOf(1000), 5);
    log.Flush();
    log.Write(LineOf(999), 5);
    log.Flush();
    EXPECT_EQ(FileSize(dir / "run.log"), 1999);  // one byte below: still written
    log.Write(LineOf(600), 5);
    log.Flush();
    EXPECT_EQ(FileSize(dir / "run.log"), 2599);  // the limit cuts no line
    for (int i = 0; i < 100; ++i) EXPECT_TRUE(log.Write(LineOf(600), 5));
    log.Flush();
    EXPECT_EQ(FileSize(dir / "run.log"), 2599);
  }
  EXPECT_EQ(FileSize(dir / "run.log"), 2599);  // and the end of the process changes nothing
}

// Kept: lines that can no longer be written stay in memory for the rest of the run.
TEST(LogFile, PastTheLimitTheTextGrowsInMemory) {
  const TempDir dir;
  LogFile log(2000);
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write(LineOf(2000), 5);
  log.Flush();
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(log.Write(LineOf(600), 5));
  const std::string line = LineOf(600);
  int kept = 0;
  {
    const test::OutOfMemory none(1, 4096);  // what is there has room for a few more
    while (kept < 1000 && log.Write(line, 5)) ++kept;
    EXPECT_TRUE(test::OutOfMemory::WasFelt());
  }
  EXPECT_LT(kept, 100) << "the text is not kept";
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(log.Write(line, 5));
  EXPECT_EQ(FileSize(dir / "run.log"), 2000);
}

TEST(LogFile, PastTheLimitTheTextIsDroppedIfThatIsMended) {
  const TempDir dir;
  LogFile log(2000);
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.SetDropsPastTotal(true);
  log.Write(LineOf(2000), 5);
  log.Flush();
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(log.Write(LineOf(600), 5));
  const std::string line = LineOf(600);
  const test::OutOfMemory none(1, 4096);
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(log.Write(line, 5)) << i;
  EXPECT_EQ(FileSize(dir / "run.log"), 2000);
}

TEST(LogFile, LimitIsReachedByItsLastByte) {
  const TempDir dir;
  LogFile log(2000);
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write(LineOf(2000), 5);
  log.Flush();
  log.Write(LineOf(10), 5);
  log.Flush();
  EXPECT_EQ(FileSize(dir / "run.log"), 2000);
}

TEST(LogFile, LimitCountsThisRunOnly) {
  const TempDir dir;
  test::MakeSparseFile(dir / "run.log", 5000);
  LogFile log(2000);
  ASSERT_TRUE(log.Open(dir / "run.log"));
  log.Write(LineOf(100), 5);
  log.Flush();
  EXPECT_EQ(FileSize(dir / "run.log"), 5100);
}

TEST(LogFile, OthersMayReadAndNotWrite) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  const HANDLE writer = CreateFileW(test::Wide(dir / "run.log").c_str(), GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
  EXPECT_EQ(writer, INVALID_HANDLE_VALUE);
  if (writer != INVALID_HANDLE_VALUE) CloseHandle(writer);
  EXPECT_EQ(FileSize(dir / "run.log"), 0);
}

#ifdef _WIN32
// Holds the log's lock by suspending a thread that writes all the time, at a moment when it has it.
// If a write then fails after its hundred tries, the moment was the right one.
class StuckLogger {
 public:
  explicit StuckLogger(LogFile* log) : log_(log) {
    thread_ = CreateThread(nullptr, 0, &Run, this, 0, nullptr);
  }
  ~StuckLogger() {
    stop_ = true;
    Resume();
    WaitForSingleObject(thread_, INFINITE);
    CloseHandle(thread_);
  }
  bool GetStuck() {
    for (int i = 0; i < 20000; ++i) {
      SuspendThread(thread_);
      stuck_ = true;
      if (!log_->Write("probe\n", 5)) return true;
      Resume();
      Sleep(0);
    }
    return false;
  }
  void Resume() {
    if (stuck_) ResumeThread(thread_);
    stuck_ = false;
  }

 private:
  static DWORD WINAPI Run(LPVOID parameter) {
    StuckLogger& self = *static_cast<StuckLogger*>(parameter);
    const std::string line = LineOf(1025);  // each one writes to the disk, under the lock
    while (!self.stop_) self.log_->Write(line, 5);
    return 0;
  }

  LogFile* const log_;
  std::atomic<bool> stop_{false};
  bool stuck_ = false;
  HANDLE thread_;
};

TEST(LogFile, BusyLoggerCostsALineAndNoTime) {
  EXPECT_EQ(LogFile::kLockTries, 100);
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  StuckLogger logger(&log);
  ASSERT_TRUE(logger.GetStuck());
  const DWORD start = GetTickCount();
  EXPECT_FALSE(log.Write("lost\n", 5));
  log.Flush();
  EXPECT_LT(GetTickCount() - start, 2000u);
  logger.Resume();
}

// At process end the platform kills the other threads wherever they are.
TEST(LogFile, EndOfTheLogDoesNotWaitForAThreadThatHoldsTheLock) {
  const TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  StuckLogger logger(&log);
  ASSERT_TRUE(logger.GetStuck());
  const DWORD start = GetTickCount();
  log.Shut();
  EXPECT_LT(GetTickCount() - start, 2000u);
  EXPECT_FALSE(log.Write("too late\n", 5));
  logger.Resume();
}
#endif

}  // namespace
