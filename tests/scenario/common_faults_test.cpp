// The common layer when platform calls fail: a log that cannot be opened or written, a region that
// cannot be reached. The host must not notice: no crash, no waiting, no lock left behind.
#include <cstdio>
#include <optional>
#include <string>

#include "abi/restriction_formats.h"
#include "common/log_file.h"
#include "common/named_mutex.h"
#include "common/process_info.h"
#include "common/shared_mem_obj.h"
#include "common/text.h"
#include "port/shared/debug_output.h"
#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "route/acc_config.h"
#include "route/init_log.h"
#include "tests/support/temp_dir.h"

namespace {

using common::LogFile;
using moru_vyr::lsp::AccConfig;
using moru_vyr::lsp::GetAccConfig;
using moru_vyr::lsp::kRestrictionMutexName;
using moru_vyr::lsp::kRestrictionRegionName;
using moru_vyr::lsp::ReadAccConfig;
using moru_vyr::lsp::RestrictionRegion;
using test::FileSize;
using test::ReadFileText;

// --- the log -------------------------------------------------------------------------------

// After each failure the file opens again, which it would not if its handle had leaked: the log
// denies write access to others.
SCENARIO(LogFaults, EveryFailureOfOpenLeavesTheLogClosedAndReady) {
  struct {
    const char* call;
    unsigned nth;
  } const rows[] = {{"MultiByteToWideChar", 1},
                    {"MultiByteToWideChar", 2},
                    {"CreateFileW", 1},
                    {"GetFileSizeEx", 1},
                    {"SetEndOfFile", 1}};
  for (const auto& row : rows) {
    const test::TempDir dir;
    test::MakeSparseFile(dir / "run.log", LogFile::kMaxSizeAtOpening);
    LogFile log;
    port::FailCall(row.call, row.nth, ERROR_ACCESS_DENIED);
    EXPECT_FALSE(log.Open(dir / "run.log")) << row.call;
    port::ClearFaults();
    EXPECT_FALSE(log.Write("line\n", 5)) << row.call;
    EXPECT_TRUE(log.Open(dir / "run.log")) << row.call;
    EXPECT_TRUE(log.Write("line\n", 5)) << row.call;
  }
}

SCENARIO(LogFaults, DirectoryThatCannotBeMadeIsAFailedOpen) {
  const test::TempDir dir;
  LogFile log;
  port::FailCall("CreateDirectoryW", 0, ERROR_ACCESS_DENIED);
  EXPECT_FALSE(log.Open(dir / "a\\b\\run.log"));
  port::ClearFaults();
  EXPECT_TRUE(log.Open(dir / "a\\b\\run.log"));
}

SCENARIO(LogFaults, FullDiskLosesTextAndNothingElse) {
  const test::TempDir dir;
  LogFile log;
  ASSERT_TRUE(log.Open(dir / "run.log"));
  EXPECT_TRUE(log.Write("lost\n", 5));
  port::FailCall("WriteFile", 1, 112);
  log.Flush();
  EXPECT_TRUE(log.Write("kept\n", 5));
  log.Flush();
  EXPECT_EQ(ReadFileText(dir / "run.log"), "kept\n");
}

// Code may log between a failed socket call and reading its error.
SCENARIO(LogFaults, LastErrorSurvivesALineThatCannotBeWritten) {
  const test::TempDir dir;
  ASSERT_TRUE(common::GetLogFile().Open(dir / "run.log"));
  port::FailCall("WriteFile", 0, 112);
  const std::string text(1100, 'x');
  for (int i = 0; i < 3; ++i) {
    SetLastError(10035);
    common::LspLog(5, "%s", text.c_str());
    EXPECT_EQ(GetLastError(), 10035u);
    common::CommonLog(5, "tag", "%s", text.c_str());
    EXPECT_EQ(GetLastError(), 10035u);
  }
  EXPECT_GE(port::CallCount("WriteFile"), 5u);
}

SCENARIO(LogFaults, FileThatCannotBeMadeIsTraced) {
  const test::TempDir dir;
  std::string traces;
  port::SetDebugSink([&](const char* text) { traces += text; });
  AccConfig config;
  common::SetFieldText(config.log_path, dir / "logs\\");
  ReplaceAccConfig(config);
  port::FailCall("CreateFileW", 1, ERROR_ACCESS_DENIED);
  moru_vyr::lsp::InitLog();
  port::SetDebugSink(nullptr);
  EXPECT_NE(traces.find("InitLog: no log file, err=5\n"), std::string::npos) << traces;
}

// --- regions -------------------------------------------------------------------------------

std::string RegionName() { return "vyr_scenario_mem"; }
std::string MutexName() { return "vyr_scenario_mutex"; }

bool MutexIsFree(sim::World& world, const std::string& name) {
  bool free = false;
  world.Spawn(world.home(), "asks for the mutex", [&] {
    common::NamedMutex mutex(name);
    free = mutex.try_lock();
    if (free) mutex.unlock();
  });
  world.RunFor(1ms);
  return free;
}

SCENARIO(RegionFaults, ObjectThatCannotBeMadeOpensAsNull) {
  for (const char* call : {"CreateFileMappingA", "MapViewOfFile"}) {
    port::FailCall(call, 1, ERROR_NOT_ENOUGH_MEMORY);
    common::Shared_mem_obj object(RegionName(), 64, MutexName(), false);
    port::ClearFaults();
    EXPECT_EQ(object.Open(common::kOpenForReading, true), nullptr) << call;
    object.Close();
    EXPECT_TRUE(MutexIsFree(world, MutexName())) << call;
    common::Shared_mem_obj next(RegionName(), 64, MutexName(), false);
    EXPECT_NE(next.Open(common::kOpenForReading, true), nullptr) << call;
    next.Close();
  }
}

SCENARIO(RegionFaults, AViewThatFailsOnceIsMappedTheNextTime) {
  common::Shared_mem_obj object(RegionName(), 64, MutexName(), false);
  port::FailCall("MapViewOfFile", 1, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(object.Open(common::kOpenForReading, true), nullptr);
  object.Close();
  EXPECT_NE(object.Open(common::kOpenForReading, true), nullptr);
  object.Close();
  EXPECT_TRUE(MutexIsFree(world, MutexName()));
}

SCENARIO(RegionFaults, WithoutAMutexTheRegionIsUsedUnguarded) {
  port::FailCall("CreateMutexA", 1, ERROR_NOT_ENOUGH_MEMORY);
  common::Shared_mem_obj object(RegionName(), 64, MutexName(), false);
  EXPECT_NE(object.Open(common::kOpenForReading, true), nullptr);
  EXPECT_TRUE(MutexIsFree(world, MutexName()));
  object.Close();
}

// The open fails although the region is there; creating it again must not wipe it.
SCENARIO(RegionFaults, FailedOpenNeverWipesAnothersRecord) {
  common::Shared_mem_obj writer(RegionName(), 64, MutexName(), false);
  static_cast<char*>(writer.Open(common::kOpenForWriting, true))[63] = 'w';
  writer.Close();
  port::FailCall("OpenFileMappingA", 1, ERROR_ACCESS_DENIED);
  common::Shared_mem_obj reader(RegionName(), 64, MutexName(), false);
  const void* const record = reader.Open(common::kOpenForReading, true);
  ASSERT_NE(record, nullptr);
  EXPECT_EQ(static_cast<const char*>(record)[63], 'w');
  reader.Close();
}

class ListedGame : public sim::ScenarioTest {
 public:
  void SetUp() override {
    common::SetFieldText(common::GetProcessInfo().process_path, "C:\\game\\game.exe");
    client_.emplace(kRestrictionRegionName, static_cast<DWORD>(sizeof(RestrictionRegion)),
                    kRestrictionMutexName, false);
    const common::Shared_mem_ptr<RestrictionRegion> view(&*client_, common::kOpenForWriting, true);
    ASSERT_TRUE(view);
    view->games[0].valid = 1;
    view->games[0].net_mode = 0x18;
    view->games[0].path_count = 1;
    common::SetFieldText(view->games[0].game_paths[0], "C:\\game\\game.exe");
    client_->Close();
  }

 protected:
  std::optional<common::Shared_mem_obj> client_;
};

// Every platform call of the reading fails in turn. The process is served if the data could be
// read and not served if it could not; the client's mutex is free either way, and the next
// process finds the region as it was.
SCENARIO_F(ListedGame, ReadingSurvivesEveryFailure) {
  struct {
    const char* call;
    unsigned nth;
    bool served;
  } const rows[] = {
      {"OpenFileMappingA", 1, false},    // nobody has made the region, as far as can be seen
      {"OpenFileMappingA", 2, true},     // opened by making it
      {"CreateMutexA", 1, true},         // unguarded
      {"WaitForSingleObject", 1, true},  // unguarded in the constructor
      {"WaitForSingleObject", 2, true},  // unguarded while it reads
      {"MapViewOfFile", 1, false},      {"UnmapViewOfFile", 1, true},
  };
  for (const auto& row : rows) {
    ReplaceAccConfig(AccConfig{});
    port::FailCall(row.call, row.nth, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(ReadAccConfig(), row.served) << row.call << " " << row.nth;
    EXPECT_GE(port::CallCount(row.call), row.nth) << row.call << " " << row.nth;
    port::ClearFaults();
    EXPECT_EQ(GetAccConfig()->valid != 0, row.served) << row.call << " " << row.nth;
    EXPECT_TRUE(MutexIsFree(world, kRestrictionMutexName)) << row.call << " " << row.nth;
    ReplaceAccConfig(AccConfig{});
    EXPECT_TRUE(ReadAccConfig()) << "after " << row.call << " " << row.nth;
  }
}

// A client program that is ended in the middle of a write must not break the game's start.
SCENARIO_F(ListedGame, ClientThatDiesWithTheMutexDoesNotDelayTheGame) {
  sim::Process& client = world.SpawnOn(world.home().host, "client", [] {
    common::NamedMutex(kRestrictionMutexName).lock();
    Sleep(INFINITE);
  });
  world.RunFor(10ms);
  EXPECT_FALSE(MutexIsFree(world, kRestrictionMutexName));
  world.Kill(client);
  const sim::Duration start = world.now();
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_LT(world.now() - start, 10ms);
  EXPECT_TRUE(MutexIsFree(world, kRestrictionMutexName));
}

// A slow client program is waited for without limit: its data decide.
SCENARIO_F(ListedGame, SlowClientIsWaitedFor) {
  world.SpawnOn(world.home().host, "client", [] {
    common::NamedMutex mutex(kRestrictionMutexName);
    mutex.lock();
    Sleep(60000);
    mutex.unlock();
  });
  world.RunFor(10ms);
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_GE(world.now(), 60s);
}

// Whatever goes wrong in a game cannot change the tables that every process reads.
TEST(RegionFaults, AReadersViewCannotBeWritten) {
  const sim::ChildResult result = sim::RunInChild(
      sim::Options{},
      [](sim::World&) {
        common::Shared_mem_obj region("vyr_read_only", 64, "vyr_read_only_mutex", true);
        auto* const record =
            static_cast<volatile char*>(region.Open(common::kOpenForReading, true));
        std::puts(record[0] != 0 ? "read" : "empty");
        std::fflush(stdout);
        record[0] = 1;
        std::puts("written");
        std::fflush(stdout);
      },
      sim::GtestVerdict);
  EXPECT_FALSE(result.passed);
  EXPECT_NE(result.output.find("read\n"), std::string::npos) << result.output;
  EXPECT_EQ(result.output.find("written"), std::string::npos) << result.output;
}

}  // namespace
