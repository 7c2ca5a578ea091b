// From the client's file through the shared region into the library's own reader.
#include <gtest/gtest.h>

#include <cstring>

#include "client/check/config_file.h"
#include "client/sample/sample.h"
#include "client/serve/region_server.h"
//
#include "common/named_mutex.h"
#include "common/process_info.h"
#include "common/shared_mem_obj.h"
#include "route/acc_config.h"
#include "tests/support/threads.h"

namespace {

using client::ParseConfig;
using client::RegionServer;
using moru_vyr::lsp::AccConfig;
using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::GetAccConfig;
using moru_vyr::lsp::kRestrictionMutexName;
using moru_vyr::lsp::kRestrictionRegionName;
using moru_vyr::lsp::ReadAccConfig;
using moru_vyr::lsp::ReplaceAccConfig;
using moru_vyr::lsp::RestrictionRegion;

constexpr unsigned kRegionWaitMs = 1000;

std::string ListedGame(const std::string& path, unsigned game_id) {
  return "[[game]]\ngame_id = " + std::to_string(game_id) + "\ngame_paths = ['" + path +
         "']\nnet_mode = ['ASYTCP']\nlog_level = 6\nlog_path = 'C:\\log\\'\n";
}

class ClientRegion : public testing::Test {
 protected:
  void SetUp() override { Forget(); }
  void TearDown() override { Forget(); }

  // The library reads its configuration once in a process's life; each test is such a life.
  void Forget() {
    ReplaceAccConfig(AccConfig{});
    common::GetProcessInfo() = {};
  }

  void RunAs(const char* path) {
    Forget();
    std::strncpy(common::GetProcessInfo().process_path, path, 259);
  }

  bool Serve(const std::string& text) {
    const client::ConfigFile file = ParseConfig(text);
    EXPECT_FALSE(HasErrors(file.problems));
    const std::string error = server_.Publish(*file.tables, kRegionWaitMs).error;
    EXPECT_EQ(error, "");
    return error.empty();
  }

  RegionServer server_;
};

TEST_F(ClientRegion, AListedGameReadsTheContentOfTheFile) {
  ASSERT_TRUE(Serve("route_binary_file_path = 'C:\\route.dat'\nsecond_path = 'second'\n" +
                    ListedGame("C:\\Games\\Game.exe", 77) +
                    "excluded_ports = [25, 465]\nuin = '20001'\nzone_id = 3\n"));
  RunAs("c:\\games\\game.EXE");
  ASSERT_TRUE(ReadAccConfig());
  const AccConfig& config = *GetAccConfig();
  EXPECT_EQ(config.game_id, 77u);
  EXPECT_EQ(config.net_mode, 0x28u);  // ASYTCP brings TCP with it
  EXPECT_EQ(config.excluded_port_count, 2u);
  EXPECT_EQ(config.excluded_ports[1], 465u);
  EXPECT_EQ(config.zone_id, 3u);
  EXPECT_STREQ(config.uin, "20001");
  EXPECT_STREQ(config.log_path, "C:\\log\\");
  EXPECT_STREQ(config.route_binary_file_path, "C:\\route.dat");
  EXPECT_STREQ(config.second_path, "second");
}

TEST_F(ClientRegion, TheSampleServesItsGame) {
  ASSERT_TRUE(Serve(client::WriteSample({{"C:\\a\\game.exe"}, "C:\\log\\"})));
  RunAs("C:\\a\\game.exe");
  EXPECT_TRUE(ReadAccConfig());
}

TEST_F(ClientRegion, TheReaderTakesTheRecordByteForByte) {
  const client::ConfigFile file =
      ParseConfig(client::WriteSample({{"C:\\a\\game.exe"}, "C:\\log\\"}));
  ASSERT_EQ(server_.Publish(*file.tables, kRegionWaitMs).error, "");
  RunAs("C:\\a\\game.exe");
  ASSERT_TRUE(ReadAccConfig());
  const AccConfigRecord& read = *GetAccConfig();
  EXPECT_EQ(std::memcmp(&read, &file.tables->restriction.games[0], sizeof read), 0);
}

TEST_F(ClientRegion, ANewFileReachesLaterGamesThroughAnOlderMapping) {
  ASSERT_TRUE(Serve(ListedGame("C:\\one.exe", 1)));
  common::Shared_mem_obj older(kRestrictionRegionName, sizeof(RestrictionRegion),
                               kRestrictionMutexName, false);
  ASSERT_TRUE(Serve(ListedGame("C:\\two.exe", 2)));
  common::Shared_mem_ptr<RestrictionRegion> view(&older, common::kOpenForReading, true);
  ASSERT_NE(view.get(), nullptr);
  EXPECT_STREQ(view->games[0].game_paths[0], "C:\\two.exe");
  older.Close();
}

TEST_F(ClientRegion, FewerGamesLeaveNothingOfTheOldOnes) {
  ASSERT_TRUE(Serve(ListedGame("C:\\one.exe", 1) + ListedGame("C:\\two.exe", 2)));
  ASSERT_TRUE(Serve(ListedGame("C:\\one.exe", 1)));
  RunAs("C:\\two.exe");
  EXPECT_FALSE(ReadAccConfig());
}

TEST_F(ClientRegion, AnInvalidRecordIsSkipped) {
  ASSERT_TRUE(Serve(ListedGame("C:\\one.exe", 1) + "valid = 0\n" + ListedGame("C:\\one.exe", 2)));
  RunAs("C:\\one.exe");
  ASSERT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 2u);
}

TEST_F(ClientRegion, EndsWithItsServer) {
  {
    RegionServer server;
    ASSERT_EQ(
        server.Publish(*ParseConfig(ListedGame("C:\\one.exe", 1)).tables, kRegionWaitMs).error, "");
    EXPECT_TRUE(common::Shared_mem_obj::Exists(kRestrictionRegionName));
  }
  EXPECT_FALSE(common::Shared_mem_obj::Exists(kRestrictionRegionName));
}

TEST_F(ClientRegion, AMutexThatIsNeverReleasedIsAnErrorAndNoHang) {
  common::NamedMutex held(kRestrictionMutexName);
  held.lock();
  std::string error;
  test::RunThread([&] {
    RegionServer server;
    error = server.Publish(*ParseConfig(ListedGame("C:\\one.exe", 1)).tables, 50).error;
  });
  held.unlock();
  EXPECT_NE(error.find(kRestrictionMutexName), std::string::npos) << error;
}

TEST_F(ClientRegion, AMutexOfADeadProcessIsTakenAndReleased) {
  common::NamedMutex mutex(kRestrictionMutexName);
  test::RunThread([&] { mutex.lock(); });  // ends with it
  ASSERT_TRUE(Serve(ListedGame("C:\\one.exe", 1)));
  bool free = false;
  test::RunThread([&] {
    free = mutex.try_lock();
    if (free) mutex.unlock();
  });
  EXPECT_TRUE(free);
}

TEST_F(ClientRegion, ARegionOfAnotherVersionIsRefusedAndNotChanged) {
  common::Shared_mem_obj other(kRestrictionRegionName, sizeof(RestrictionRegion),
                               kRestrictionMutexName, false);
  auto* const region = static_cast<RestrictionRegion*>(other.Open(common::kOpenForWriting, false));
  ASSERT_NE(region, nullptr);
  region->header.minor_ver = 37;
  other.Close();
  EXPECT_NE(server_.Publish(*ParseConfig(ListedGame("C:\\one.exe", 1)).tables, kRegionWaitMs).error,
            "");
  const auto* const after =
      static_cast<const RestrictionRegion*>(other.Open(common::kOpenForReading, false));
  ASSERT_NE(after, nullptr);
  EXPECT_EQ(after->header.minor_ver, 37u);
  EXPECT_EQ(after->games[0].valid, 0u);
  other.Close();
}

}  // namespace
