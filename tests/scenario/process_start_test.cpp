// What the first start of a process does besides the gate. At stake: the log must be open before
// anything needs it, a game's first socket waits for all of this, and a diagnostic process must not
// use what the client program wrote for somebody else.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "abi/ip_table_formats.h"
#include "abi/restriction_formats.h"
#include "common/log_file.h"
#include "common/process_info.h"
#include "common/text.h"
#include "port/sim/scenario.h"
#include "route/acc_config.h"
#include "route/route.h"
#include "tests/scenario/game_process.h"
#include "tests/support/route_fixture.h"
#include "tests/support/temp_dir.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using test::GameProcess;

// The process's own log file, so far.
std::string LogText() {
  common::GetLogFile().Flush();
  return test::ReadFileText(common::GetProcessInfo().log_file_path);
}

bool Says(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

class ProcessStart : public sim::ScenarioTest {
 protected:
  // How long a start for streams takes.
  sim::Duration Start() {
    const sim::Duration before = world.now();
    EXPECT_EQ(game.Start(IPPROTO_TCP), 0) << game.AllTraces();
    EXPECT_TRUE(game.GotHookedTable()) << game.AllTraces();
    return world.now() - before;
  }
  void PublishAnIpTable() {
    ips = std::make_unique<test::ClientRegion<IpTableRegion>>(kIpTableRegionName);
    (*ips)->ip_count = 1;
    (*ips)->records[0] = {11, test::Ip("198.51.100.10")};
  }
  static bool HasLoadedTables() { return !GetRoute()->ip_table().empty(); }

  std::unique_ptr<test::ClientRegion<IpTableRegion>> ips;  // outlives the game's views
  GameProcess game;
};

SCENARIO_F(ProcessStart, OpensTheLogBeforeItLoadsTheTables) {
  game.ListAsGame();
  PublishAnIpTable();
  Start();
  EXPECT_TRUE(HasLoadedTables());
  const std::string text = LogText();
  const std::size_t first = text.find("Basic info,uin=10001\n");
  const std::size_t loaded = text.find(
      "[5][lsp][Route][Load] try to read route success, wait_route=failed, try time=1, try "
      "interval_ms=100 ms, game vip level=0\n");
  ASSERT_NE(loaded, std::string::npos) << text;
  EXPECT_LT(first, loaded) << text;
}

SCENARIO_F(ProcessStart, WaitsFiveSecondsForMissingTables) {
  game.ListAsGame();
  game.Configures([](AccConfigRecord* config) { config->wait_route = 1; });
  EXPECT_EQ(Start(), 5s);
  EXPECT_TRUE(Says(LogText(),
                   "[Route][Load] try to read route failed, wait_route=success, try time=50, try "
                   "interval_ms=100 ms, "))
      << LogText();
}

SCENARIO_F(ProcessStart, ContinuesWhenTheTablesExist) {
  game.ListAsGame();
  game.Configures([](AccConfigRecord* config) { config->wait_route = 1; });
  world.SpawnOn(world.home().host, "client", [this] {
    Sleep(250);
    PublishAnIpTable();
    Sleep(INFINITE);  // the table stays for as long as the client runs
  });
  EXPECT_EQ(Start(), 300ms) << "at the first try after it";
  EXPECT_TRUE(HasLoadedTables());
}

SCENARIO_F(ProcessStart, OfAGameThatDoesNotWaitTakesNoTime) {
  game.ListAsGame();
  EXPECT_EQ(Start(), 0s);
}

// The platform fills the place for a path that is longer, and its end is ours to see to.
SCENARIO_F(ProcessStart, OfAProgramWithALongPathKnowsAsMuchOfItAsFits) {
  const std::string directory = "C:\\" + std::string(240, 'd') + "\\";
  game.Is(std::wstring(directory.begin(), directory.end()) + std::wstring(40, L'n') + L".exe");
  EXPECT_EQ(game.Start(IPPROTO_TCP), 0) << game.AllTraces();
  const std::string name(259 - directory.size(), 'n');
  EXPECT_EQ(common::GetProcessInfo().process_name, name);
  EXPECT_EQ(common::GetProcessInfo().process_path, directory + name);
}

// --- the two diagnostic programs ----------------------------------------------------------------

SCENARIO_F(ProcessStart, OfSpeedTesterOpensALogAndLoadsNoTables) {
  game.Is(L"D:\\tools\\SpeedTester.exe");
  PublishAnIpTable();
  Start();
  EXPECT_TRUE(Says(LogText(), "Based on server config, the game will not be accelerated:Speed"));
  EXPECT_FALSE(Says(LogText(), "[Route][Load]")) << LogText();
  EXPECT_FALSE(HasLoadedTables());
}

class NetProbeStart : public ProcessStart {
 protected:
  NetProbeStart() { game.Is(L"C:\\tools\\net_probe.exe", "net_probe.exe -test"); }
};

SCENARIO_F(NetProbeStart, LoadsNoTables) {
  PublishAnIpTable();
  Start();
  EXPECT_FALSE(HasLoadedTables());
}

SCENARIO_F(NetProbeStart, KnowsItselfByNameAndPath) {
  Start();
  EXPECT_STREQ(common::GetProcessInfo().process_path, "C:\\tools\\net_probe.exe");
  EXPECT_STREQ(common::GetProcessInfo().process_name, "net_probe.exe");
}

// The client program may list it as a program that is not accelerated: nothing of that record
// remains, and the paths that all programs share stay.
SCENARIO_F(NetProbeStart, ReplacesTheRecordThatTheClientHasOfIt) {
  game.ListAsGame(4, "C:\\logs\\", 0);
  game.Configures([](AccConfigRecord* config) {
    config->zone_id = 3;
    config->excluded_port_count = 1;
    config->excluded_ports[0] = 80;
    config->game_vip_level = 2;
  });
  {
    const HANDLE mapping = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, kRestrictionRegionName);
    auto* const region = static_cast<RestrictionRegion*>(
        MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(RestrictionRegion)));
    common::SetFieldText(region->route_binary_file_path, "C:\\client\\route.bin");
    common::SetFieldText(region->second_path, "C:\\client\\second");
    UnmapViewOfFile(region);
    CloseHandle(mapping);
  }
  Start();
  AccConfig expected;
  expected.game_id = 99999;
  expected.net_mode = 0x30030;
  common::SetFieldText(expected.uin, "1");
  common::SetFieldText(expected.route_binary_file_path, "C:\\client\\route.bin");
  common::SetFieldText(expected.second_path, "C:\\client\\second");
  EXPECT_EQ(std::memcmp(GetAccConfig(), &expected, sizeof expected), 0);
}

SCENARIO_F(ProcessStart, OfAProgramWhoseNameOnlyEndsInNetProbeIsNotServed) {
  game.Is(L"C:\\tools\\my_net_probe.exe", "my_net_probe.exe -test");
  EXPECT_EQ(game.Start(IPPROTO_TCP), 0);
  EXPECT_TRUE(game.GotBaseTable()) << game.AllTraces();
  EXPECT_EQ(GetAccConfig()->net_mode, 0u);
}

}  // namespace
