// The tables when platform calls fail, and when a client program breaks its rules during a read:
// each failure has its log line, no wait exceeds the limit, no mutex stays taken.
#include <windows.h>

#include <functional>
#include <string>
#include <vector>

#include "common/named_mutex.h"
#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "route/route_file.h"
#include "tests/support/route_fixture.h"
#include "tests/support/temp_dir.h"
#include "tests/support/threads.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: the policy's names
using test::AddGlt;
using test::ClientRegion;
using test::Ip;

constexpr char kFailed[] =
    "[5][lsp][Route][LoadRouteFromBinFile] load_mem_binary_from_file failed:";

// --- the file --------------------------------------------------------------------------------

class RouteFileFaults : public sim::ScenarioTest {
 protected:
  RouteFileFaults() : path(dir / "route.bin") { test::MakeSparseFile(path, sizeof buffer); }
  bool Load() { return LoadRouteFromBinFile(path.c_str(), buffer, sizeof buffer); }

  test::LogCapture log;
  test::TempDir dir;
  const std::string path;
  u8 buffer[100] = {};
};

SCENARIO_F(RouteFileFaults, IsOpenedAtTheFifthAttemptWithPausesBetween) {
  for (unsigned i = 1; i <= 4; ++i) port::FailCall("CreateFileW", i, ERROR_SHARING_VIOLATION);
  const sim::Duration begin = world.now();
  EXPECT_TRUE(Load());
  EXPECT_EQ(port::CallCount("CreateFileW"), 5u);
  EXPECT_EQ(world.now() - begin, 20ms) << "five after each failure";
}

SCENARIO_F(RouteFileFaults, IsAbandonedAfterFiveAttemptsWithTheErrorOfTheLast) {
  for (unsigned i = 1; i <= 4; ++i) port::FailCall("CreateFileW", i, ERROR_SHARING_VIOLATION);
  port::FailCall("CreateFileW", 5, ERROR_ACCESS_DENIED);
  const sim::Duration begin = world.now();
  EXPECT_FALSE(Load());
  EXPECT_EQ(port::CallCount("CreateFileW"), 5u);
  EXPECT_EQ(world.now() - begin, 25ms) << "kept: also after the last";
  EXPECT_TRUE(log.Contains(kFailed + ("file(" + path) + ") CreateFileW failed(error=5)\n"));
}

SCENARIO_F(RouteFileFaults, ThatCannotBeReadLogsTheErrorAndIsClosed) {
  port::FailCall("ReadFile", 1, 1117);
  EXPECT_FALSE(Load());
  EXPECT_TRUE(log.Contains(kFailed + ("file(" + path) + ") ReadFile failed(error=1117)\n"))
      << log.Text();
  EXPECT_TRUE(Load()) << "nobody has it open any more";
}

SCENARIO_F(RouteFileFaults, ThatEndsBeforeItsSizeIsRefusedAndClosed) {
  port::ShortRead(1, 99);
  EXPECT_FALSE(Load());
  EXPECT_TRUE(log.Contains(kFailed + ("file(" + path) + ") read size(99) not file size(100)\n"))
      << log.Text();
  EXPECT_TRUE(Load());
}

SCENARIO_F(RouteFileFaults, ThatCannotBeReadGivesNoTable) {
  AccConfig config;
  common::SetFieldText(config.route_binary_file_path, dir / "table.bin");
  ReplaceAccConfig(config);
  test::MakeSparseFile(dir / "table.bin", sizeof(RouteTableImage));
  RouteTable table;
  for (const auto& fail : std::vector<std::function<void()>>{
           [] { port::FailCall("ReadFile", 1, 1117); }, [] { port::ShortRead(1, 0); }}) {
    fail();
    EXPECT_FALSE(table.LoadRoute());
    EXPECT_FALSE(table.HasRouteTable());
  }
  EXPECT_TRUE(table.LoadRoute());
}

// A thread that has to wait for the file meets what another has found meanwhile.
class LateRouteFile : public sim::ScenarioTest {
 protected:
  LateRouteFile() {
    AccConfig config;
    common::SetFieldText(config.route_binary_file_path, dir / "table.bin");
    ReplaceAccConfig(config);
    test::MakeSparseFile(dir / "table.bin", sizeof(RouteTableImage));
    port::FailCall("CreateFileW", 1, ERROR_SHARING_VIOLATION);
    world.Spawn(world.home(), "late", [this] {
      found = table.LoadRoute();
      done = true;
    });
    RunFor(1ms);
    EXPECT_FALSE(done);
  }

  test::TempDir dir;
  RouteTable table;
  bool found = false, done = false;
};

SCENARIO_F(LateRouteFile, ThatAnotherThreadHasReadIsInUse) {
  EXPECT_TRUE(table.LoadRoute());
  RunFor(10ms);
  EXPECT_TRUE(done);
  EXPECT_TRUE(found);
}

SCENARIO_F(LateRouteFile, DoesNotReplaceTheRegionThatAnotherThreadHasFound) {
  test::RouteClient client;
  RouteTableImage image;
  test::AddRoute(image.route_sets[0], 1301, test::Ref(0));
  client.Publish(image);
  EXPECT_TRUE(table.LoadRoute());
  RunFor(10ms);
  EXPECT_TRUE(done);
  EXPECT_FALSE(found) << "kept: as for a region that was found before";
  EXPECT_TRUE(table.FindRouteEntry(1301, nullptr).has_value());
}

// --- waiting for the tables --------------------------------------------------------------------

SCENARIO(RouteWaits, FiftyTriesAndFiftyPauses) {
  AccConfig config;
  config.wait_route = 1;
  ReplaceAccConfig(config);
  Route route;
  const sim::Duration begin = world.now();
  EXPECT_FALSE(route.Load(50, 100));
  EXPECT_EQ(world.now() - begin, 5s) << "kept: one after the last try too";
}

SCENARIO(RouteWaits, NoPauseForAGameThatDoesNotWait) {
  ReplaceAccConfig(AccConfig{});
  Route route;
  const sim::Duration begin = world.now();
  EXPECT_FALSE(route.Load(50, 100));
  EXPECT_EQ(world.now() - begin, 0s);
}

// --- a client that writes while the region is read -----------------------------------------------

// Reads a region again and again, while the client program writes at one instruction of the reader,
// until that instruction is the intended one.
class RouteMoment : public sim::ScenarioTest {
 protected:
  enum class Came { kTooEarly, kJust, kTooLate };

  // The client's write at the reader's n-th instruction with the region in view.
  void WritesUnderTheEyesOf(const char* mapping, std::function<void()> write) {
    world.WatchView(nullptr, mapping, [this, write](std::span<const u8>, bool is_new) {
      if (is_new) done_ = 0;
      if (done_++ == moment_) write();
      return done_ <= moment_;  // a large copy has hundreds of thousands of instructions more
    });
  }
  // Halves the reader's instructions until `read`, which undoes the write first, says kJust.
  bool FindTheMoment(const std::function<Came()>& read) {
    unsigned too_early = 0, too_late = kMostInstructions;
    while (too_late - too_early > 1) {
      moment_ = (too_early + too_late) / 2;
      switch (read()) {
        case Came::kJust:
          return true;
        case Came::kTooEarly:
          too_early = moment_;
          break;
        case Came::kTooLate:
          too_late = moment_;
          break;
      }
    }
    return false;
  }
  static bool IsFree(const char* mutex_name) {
    bool free = false;
    test::RunThread([&] {
      common::NamedMutex mutex(mutex_name);
      free = mutex.try_lock();
      if (free) mutex.unlock();
    });
    return free;
  }

 private:
  static constexpr unsigned kMostInstructions = 1 << 15;
  unsigned moment_ = 0;
  unsigned done_ = 0;
};

template <typename Region>
struct Table {
  const char* mapping;
  const char* mutex;
  std::string prefix;  // of its lines
  std::function<void(Route&)> load;
};

// A size that changes between the check of the header and the look at the type.
template <typename Region>
void ExpectNoAddress(const Table<Region>& table, ClientRegion<Region>& region,
                     const std::function<bool(const std::function<int()>&)>& find) {
  const common::NamedMutex clients_own(table.mutex);  // a mutex that we kept would stay taken
  std::string seen;
  EXPECT_TRUE(find([&] {
    const test::LogCapture log(4);
    region->header.shared_mem_size = sizeof(Region);
    Route route;
    table.load(route);
    seen = log.Text();
    if (seen.find(table.prefix + "mem_addr.get()=null\n") != std::string::npos) return 0;
    return seen.find(table.prefix + "mem_addr=null\n") != std::string::npos ? -1 : 1;
  })) << table.mapping;
  EXPECT_NE(seen.find("template type size(" + std::to_string(sizeof(Region)) + ") not match."),
            std::string::npos)
      << seen;
}

class RegionThatChangesItsSize : public RouteMoment {
 protected:
  template <typename Region>
  void HasNoAddress(const Table<Region>& table) {
    ClientRegion<Region> region(table.mapping);
    WritesUnderTheEyesOf(table.mapping,
                         [&region] { region->header.shared_mem_size = sizeof(Region) + 1; });
    ExpectNoAddress<Region>(table, region, [this](const std::function<int()>& read) {
      return FindTheMoment([&read] {
        const int came = read();
        return came == 0 ? Came::kJust : came < 0 ? Came::kTooEarly : Came::kTooLate;
      });
    });
    EXPECT_TRUE(IsFree(table.mutex));
  }
};

SCENARIO_F(RegionThatChangesItsSize, IsNoIpTable) {
  HasNoAddress<IpTableRegion>(
      {kIpTableRegionName, kIpTableMutexName,
       "[5][lsp][Route][LoadIpTable] read route table from shared memory failed, ",
       [](Route& route) { route.ip_table().LoadIpTable(); }});
}

SCENARIO_F(RegionThatChangesItsSize, IsNoBlacklist) {
  HasNoAddress<BlacklistRegion>(
      {kBlacklistRegionName, kBlacklistMutexName,
       "[5][lsp]LoadBlacklistTable read route table from shared memory failed, ",
       [](Route& route) { route.blacklist().LoadBlacklistTable(); }});
}

SCENARIO_F(RegionThatChangesItsSize, IsNoSpurList) {
  HasNoAddress<SpurRegion>(
      {kSpurRegionName, kSpurMutexName,
       "[5][lsp]LoadSpurIplistTable read route table from shared memory failed, ",
       [](Route& route) { route.spur_list().LoadSpurIplistTable(); }});
}

// A record that becomes another's between the search and the copy: what a caller gets is what it
// asked for, or it would take the record for another data centre's.
SCENARIO_F(RouteMoment, ARecordThatChangesItsKeyIsReturnedUnderTheKeyThatWasAskedFor) {
  constexpr u32 kAsked = 1001, kOther = 2002;
  const test::LogCapture log(6);
  ClientRegion<LaunchTestRegion> region(kLaunchTestRegionName);
  AddGlt(region.region(), kAsked, 2, "198.51.100.2");
  WritesUnderTheEyesOf(kLaunchTestRegionName, [&region] {
    region->records[0].game_idc = kOther;
    region->records[0].glt_head[0] = 1;
  });
  LaunchTest launch_test;
  GltRouteInfo found;
  ASSERT_TRUE(FindTheMoment([&] {
    region->records[0].game_idc = kAsked;
    region->records[0].glt_head[0] = 0;
    found = {};
    if (!launch_test.LoadGltRouteInfoFromShare(kAsked, &found)) return Came::kTooEarly;
    return found.glt_head[0] != 0 ? Came::kJust : Came::kTooLate;
  }));
  EXPECT_EQ(found.game_idc, kAsked);
}

}  // namespace
