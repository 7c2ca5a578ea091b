// Which games are served. Whatever a client program leaves in the region, it must not harm the
// process that reads it. The region has its real name: on one machine these tests run one at a time
// and never beside a running client.
#include "route/acc_config.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "abi/restriction_formats.h"
#include "common/log.h"
#include "common/named_mutex.h"
#include "common/process_info.h"
#include "common/shared_mem_obj.h"
#include "common/text.h"
#include "tests/support/threads.h"
#include "tests/unit/trace_capture.h"

namespace {

using common::GetProcessInfo;
using common::SetFieldText;
using common::u32;
using moru_vyr::lsp::AccConfig;
using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::GetAccConfig;
using moru_vyr::lsp::kRestrictionMutexName;
using moru_vyr::lsp::kRestrictionRegionName;
using moru_vyr::lsp::ReadAccConfig;
using moru_vyr::lsp::ReplaceAccConfig;
using moru_vyr::lsp::RestrictionRegion;

constexpr char kGame[] = "C:\\Games\\Dawn\\dawn.exe";

// The client's side of the region.
class ClientRegion {
 public:
  explicit ClientRegion(u32 mapped_size = sizeof(RestrictionRegion))
      : mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, mapped_size,
                                    kRestrictionRegionName)),
        was_there_(GetLastError() == ERROR_ALREADY_EXISTS),
        view_(static_cast<unsigned char*>(
            MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, mapped_size))) {
    EXPECT_NE(view_, nullptr);
    EXPECT_FALSE(was_there_) << "a client runs on this machine: end it and try again";
    if (mapped_size < sizeof(RestrictionRegion)) return;
    RestrictionRegion region;
    region.header = {sizeof region, common::kSharedMemMajorVersion, common::kSharedMemMinorVersion};
    std::memcpy(view_, &region, sizeof region);
  }
  ~ClientRegion() {
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
  }
  ClientRegion(const ClientRegion&) = delete;
  ClientRegion& operator=(const ClientRegion&) = delete;

  RestrictionRegion& region() { return *reinterpret_cast<RestrictionRegion*>(view_); }

  // Lists one path in the next free place of that slot.
  AccConfigRecord& List(int slot, const char* path, u32 net_mode = 0x18) {
    AccConfigRecord& game = region().games[slot];
    game.valid = 1;
    game.net_mode = net_mode;
    SetFieldText(game.game_paths[game.path_count], path);
    game.path_count = game.path_count + 1;
    return game;
  }

 private:
  HANDLE mapping_;
  bool was_there_;
  unsigned char* view_;
};

class ReadConfig : public testing::Test {
 protected:
  ReadConfig() {
    ReplaceAccConfig(AccConfig{});
    SetFieldText(GetProcessInfo().process_path, kGame);
    SetFieldText(GetProcessInfo().process_name, "dawn.exe");
  }
  ~ReadConfig() override {
    EXPECT_TRUE(MutexIsFree());
    ReplaceAccConfig(AccConfig{});
    GetProcessInfo() = {};
  }

  // A mutex without a handle is made anew at its next use, and free whoever owned it before: this
  // keeps it open.
  const common::NamedMutex keeps_mutex_{kRestrictionMutexName};

  static bool MutexIsFree() {
    bool got = false;
    test::RunThread([&] {
      common::NamedMutex mutex(kRestrictionMutexName);
      got = mutex.try_lock();
      if (got) mutex.unlock();
    });
    return got;
  }

  // The traces without prefix and final newline.
  std::vector<std::string> Traces() const {
    std::vector<std::string> texts;
    for (const std::string& line : trace_.lines())
      texts.push_back(line.substr(10, line.size() - 11));
    return texts;
  }

  static void ExpectUntouched() {
    const AccConfig zero;
    EXPECT_EQ(std::memcmp(GetAccConfig(), &zero, sizeof zero), 0);
  }

  test::TraceCapture trace_;
};

using Texts = std::vector<std::string>;

TEST_F(ReadConfig, ListedGameIsServed) {
  ClientRegion client;
  client.List(0, kGame).game_id = 1234567890123;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 1234567890123u);
  EXPECT_EQ(GetAccConfig()->net_mode, 0x18u);
  EXPECT_EQ(Traces(), (Texts{"process path is C:\\Games\\Dawn\\dawn.exe\n",
                             "cfg game path 1/1:C:\\Games\\Dawn\\dawn.exe\n"}));
}

TEST_F(ReadConfig, LetterCaseDoesNotMatter) {
  ClientRegion client;
  client.List(0, "c:\\gAMES\\DAWN\\dawn.EXE");
  EXPECT_TRUE(ReadAccConfig());
}

TEST_F(ReadConfig, OnlyWholePathsMatch) {
  ClientRegion client;
  client.List(0, "C:\\Games\\Dawn\\dawn.ex");
  client.List(0, "C:\\Games\\Dawn\\dawn.exe2");
  client.List(0, "dawn.exe");
  client.List(0, "");
  EXPECT_FALSE(ReadAccConfig());
  ExpectUntouched();
}

TEST_F(ReadConfig, UnlistedProcessTracesEveryPathWithItsOwnName) {
  ClientRegion client;
  client.List(1, "C:\\other.exe");
  client.List(1, "C:\\another.exe");
  client.List(9, "C:\\third.exe");
  EXPECT_FALSE(ReadAccConfig());
  ExpectUntouched();
  EXPECT_EQ(Traces(), (Texts{"process path is C:\\Games\\Dawn\\dawn.exe\n",
                             "cfg game path 1/2:C:\\Games\\Dawn\\dawn.exe\n",
                             "cfg game path 2/2:C:\\Games\\Dawn\\dawn.exe\n",
                             "cfg game path 1/1:C:\\Games\\Dawn\\dawn.exe\n",
                             "ReadAccConfig returns false!\n"}));
}

TEST_F(ReadConfig, FirstRecordInSlotOrderWins) {
  ClientRegion client;
  client.List(7, kGame).game_id = 7;
  client.List(3, kGame).game_id = 3;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 3u);
}

TEST_F(ReadConfig, UnusedSlotIsSkipped) {
  ClientRegion client;
  client.List(0, kGame).valid = 0;
  EXPECT_FALSE(ReadAccConfig());
  client.List(1, kGame).game_id = 2;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 2u);
}

TEST_F(ReadConfig, LastPathOfTheLastSlotMatches) {
  ClientRegion client;
  for (int i = 0; i < 9; ++i) client.List(9, "C:\\other.exe");
  client.List(9, kGame);
  EXPECT_TRUE(ReadAccConfig());
}

TEST_F(ReadConfig, PathsBeyondTheCountAreNotRead) {
  ClientRegion client;
  client.List(0, "C:\\other.exe");
  client.List(0, kGame).path_count = 1;
  EXPECT_FALSE(ReadAccConfig());
}

TEST_F(ReadConfig, AsyTcpBringsTcp) {
  ClientRegion client;
  client.List(0, kGame, 0x20);
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->net_mode, 0x28u);
}

TEST_F(ReadConfig, GameThatIsNotAcceleratedIsReadAndNotServed) {
  ClientRegion client;
  AccConfigRecord& game = client.List(0, kGame, 0);
  game.game_id = 42;
  SetFieldText(game.uin, "10001");
  EXPECT_FALSE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 42u);
  EXPECT_STREQ(GetAccConfig()->uin, "10001");
  EXPECT_EQ(Traces().back(), "Based on server config, the game will not be accelerated:dawn.exe");
  EXPECT_TRUE(ReadAccConfig());  // the configuration is read once
}

TEST_F(ReadConfig, InstalledConfigurationIsNotReadAgain) {
  AccConfigRecord record;
  record.valid = 1;
  ReplaceAccConfig(record);
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_TRUE(Traces().empty());
}

TEST_F(ReadConfig, UnknownProcessPathIsNotServed) {
  ClientRegion client;
  client.List(0, "");
  GetProcessInfo().process_path[0] = '\0';
  EXPECT_FALSE(ReadAccConfig());
  EXPECT_EQ(Traces(), Texts{"process path is empty, read acce info failed!\n"});
}

TEST_F(ReadConfig, MissingRegionStaysMissing) {
  EXPECT_FALSE(ReadAccConfig());
  EXPECT_EQ(Traces(), Texts{"read restriction from shared memory failed, mem_addr=null"});
  EXPECT_FALSE(common::Shared_mem_obj::Exists(kRestrictionRegionName));
}

TEST_F(ReadConfig, RegionOfAnotherVersionCountsAsMissing) {
  ClientRegion client;
  client.List(0, kGame);
  const common::SharedMemHeader right = client.region().header;
  const common::SharedMemHeader wrong[] = {
      {134216, 1, 35}, {134216, 1, 37}, {134216, 2, 36}, {134215, 1, 36}, {0, 0, 0}};
  for (const common::SharedMemHeader& header : wrong) {
    trace_.lines().clear();
    client.region().header = header;
    EXPECT_FALSE(ReadAccConfig());
    EXPECT_EQ(Traces(), Texts{"read restriction from shared memory failed, mem_addr=null"});
    EXPECT_TRUE(MutexIsFree());
    ExpectUntouched();
  }
  client.region().header = right;
  EXPECT_TRUE(ReadAccConfig());
}

TEST_F(ReadConfig, RegionOfAnotherSizeCountsAsMissing) {
  {
    const ClientRegion small(4096);
    EXPECT_FALSE(ReadAccConfig());
    EXPECT_TRUE(MutexIsFree());
  }
  EXPECT_EQ(Traces(), Texts{"read restriction from shared memory failed, mem_addr=null"});
  ExpectUntouched();
}

TEST_F(ReadConfig, MutexOfADeadClientDoesNotHang) {
  ClientRegion client;
  client.List(0, kGame);
  common::NamedMutex keeps_it_alive(kRestrictionMutexName);
  test::RunThread([] { common::NamedMutex(kRestrictionMutexName).lock(); });
  EXPECT_TRUE(ReadAccConfig());
}

TEST_F(ReadConfig, GarbagePathCountReadsTenPaths) {
  ClientRegion client;
  AccConfigRecord& game = client.List(0, "C:\\other.exe");
  game.path_count = 0xffffffff;
  // What follows the ten paths could be taken for an eleventh.
  std::memcpy(reinterpret_cast<char*>(&game) + 24 + 10 * 260, kGame, sizeof kGame);
  EXPECT_FALSE(ReadAccConfig());
  const Texts traces = Traces();
  ASSERT_EQ(traces.size(), 12u);
  EXPECT_EQ(traces[10], "cfg game path 10/-1:C:\\Games\\Dawn\\dawn.exe\n");

  SetFieldText(game.game_paths[9], kGame);
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->path_count, 10u);
}

TEST_F(ReadConfig, CountsNeverPassTheirArrays) {
  ClientRegion client;
  AccConfigRecord& game = client.List(0, kGame);
  game.excluded_port_count = 0xffffffff;
  game.reachability.reach_count = 65;
  game.port_idc_count = 257;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->excluded_port_count, 32u);
  EXPECT_EQ(GetAccConfig()->reachability.reach_count, 64u);
  EXPECT_EQ(GetAccConfig()->port_idc_count, 256);
}

TEST_F(ReadConfig, CountsAtTheirBoundsStay) {
  ClientRegion client;
  AccConfigRecord& game = client.List(0, kGame);
  game.excluded_port_count = 32;
  game.reachability.reach_count = 64;
  game.port_idc_count = 256;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->excluded_port_count, 32u);
  EXPECT_EQ(GetAccConfig()->reachability.reach_count, 64u);
  EXPECT_EQ(GetAccConfig()->port_idc_count, 256);
}

TEST_F(ReadConfig, UnterminatedPathMatchesNoProcess) {
  ClientRegion client;
  AccConfigRecord& game = client.List(0, kGame);
  std::memset(game.game_paths[0], 'C', sizeof game.game_paths[0]);
  std::memset(game.game_paths[1], 0, sizeof game.game_paths[1]);
  std::memset(GetProcessInfo().process_path, 'C', 259);
  EXPECT_FALSE(ReadAccConfig());
}

// Every text is full to its last byte; the copy must be safe to print.
TEST_F(ReadConfig, UnterminatedTextsAreCutAtTheirFields) {
  ClientRegion client;
  AccConfigRecord& game = client.region().games[0];
  std::memset(reinterpret_cast<char*>(&game), 'x', sizeof game);
  game.path_count = 1;
  game.net_mode = 0x8;
  SetFieldText(game.game_paths[0], kGame);
  std::memset(client.region().route_binary_file_path, 'r', 260);
  std::memset(client.region().second_path, 's', 260);
  EXPECT_TRUE(ReadAccConfig());
  const AccConfig& config = *GetAccConfig();
  EXPECT_EQ(config.uin, std::string(63, 'x'));
  EXPECT_EQ(config.second_text, std::string(63, 'x'));
  EXPECT_EQ(config.log_path, std::string(259, 'x'));
  EXPECT_EQ(config.list_text, std::string(128, 'x'));
  EXPECT_EQ(config.game_paths[9], std::string(259, 'x'));
  EXPECT_EQ(config.forced_proxy.proxy_addr, std::string(31, 'x'));
  EXPECT_EQ(config.forced_proxy.proxy_name, std::string(63, 'x'));
  for (const auto& route : config.manual_routes) {
    for (const auto& proxy : route.proxies) {
      EXPECT_EQ(proxy.proxy_addr, std::string(31, 'x'));
      EXPECT_EQ(proxy.proxy_name, std::string(63, 'x'));
    }
  }
  EXPECT_EQ(config.route_binary_file_path, std::string(259, 'r'));
  EXPECT_EQ(config.second_path, std::string(259, 's'));
}

TEST_F(ReadConfig, EveryFieldIsCopiedAndTheReservedWordsAreNot) {
  ClientRegion client;
  AccConfigRecord& game = client.region().games[0];
  unsigned char* const bytes = reinterpret_cast<unsigned char*>(&game);
  for (std::size_t i = 0; i < sizeof game; ++i) bytes[i] = static_cast<unsigned char>(i % 31 + 1);
  game.path_count = 1;
  game.excluded_port_count = 2;
  game.reachability.reach_count = 3;
  game.port_idc_count = 4;
  SetFieldText(game.game_paths[0], kGame);
  SetFieldText(client.region().route_binary_file_path, "C:\\route.bin");
  SetFieldText(client.region().second_path, "C:\\second");

  std::vector<unsigned char> expected(bytes, bytes + sizeof game);
  const auto clear = [&](std::size_t offset, std::size_t size) {
    std::memset(expected.data() + offset, 0, size);
  };
  for (const std::size_t reserved : {4, 3148, 13364}) clear(reserved, 4);
  for (std::size_t i = 1; i < 10; ++i) clear(24 + i * 260 + 259, 1);
  for (const std::size_t last : {2756 + 63, 2820 + 63, 2888 + 259, 11156 + 128}) clear(last, 1);
  for (std::size_t proxy = 0; proxy < 41; ++proxy) {  // the forced one, then the manual ones
    const std::size_t base =
        proxy == 0 ? 3172 : 3336 + (proxy - 1) / 2 * 336 + (proxy - 1) % 2 * 164;
    clear(base + 8 + 31, 1);
    clear(base + 52 + 63, 1);
  }
  u32 net_mode = game.net_mode;
  if ((net_mode & 0x20) != 0) net_mode |= 0x8;
  std::memcpy(expected.data() + 16, &net_mode, sizeof net_mode);

  EXPECT_TRUE(ReadAccConfig());
  const unsigned char* const copied =
      reinterpret_cast<const unsigned char*>(static_cast<const AccConfigRecord*>(GetAccConfig()));
  for (std::size_t i = 0; i < expected.size(); ++i)
    ASSERT_EQ(copied[i], expected[i]) << "at offset " << i;
  EXPECT_STREQ(GetAccConfig()->route_binary_file_path, "C:\\route.bin");
  EXPECT_STREQ(GetAccConfig()->second_path, "C:\\second");
}

TEST_F(ReadConfig, LogThresholdFollowsTheConfiguration) {
  ClientRegion client;
  client.List(0, kGame).log_level = 5;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_FALSE(common::IsLogged(4));
  EXPECT_TRUE(common::IsLogged(5));
}

TEST_F(ReadConfig, LaterChangeOfTheRegionIsNotSeen) {
  ClientRegion client;
  AccConfigRecord& game = client.List(0, kGame);
  EXPECT_TRUE(ReadAccConfig());
  game.net_mode = 0;
  EXPECT_TRUE(ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->net_mode, 0x18u);
}

TEST_F(ReadConfig, ReplacingTheRecordKeepsThePaths) {
  AccConfig config;
  SetFieldText(config.route_binary_file_path, "C:\\route.bin");
  config.game_id = 1;
  ReplaceAccConfig(config);
  AccConfigRecord record;
  record.game_id = 99999;
  record.log_level = 4;
  ReplaceAccConfig(record);
  EXPECT_EQ(GetAccConfig()->game_id, 99999u);
  EXPECT_STREQ(GetAccConfig()->route_binary_file_path, "C:\\route.bin");
  EXPECT_FALSE(common::IsLogged(3));
}

TEST(UnsetSettings, AreFilledAndNoOthers) {
  AccConfigRecord record;
  record.lost_calc_unit_size = 0x10000;  // its low half counts
  record.max_delay_avg = 77;
  moru_vyr::lsp::FillUnsetSettings(&record);
  EXPECT_EQ(u32{record.lost_calc_unit_size}, 200u);
  EXPECT_EQ(record.short_cycle, 3);
  EXPECT_EQ(record.long_cycle, 7);
  EXPECT_EQ(record.data_link_long_cycle_lost, 3);
  EXPECT_EQ(u32{record.max_delay_avg}, 77u);
  EXPECT_EQ(u32{record.max_high_freq_test_count}, 100u);
  EXPECT_EQ(u32{record.switching_high_freq_test_time}, 80u);
  EXPECT_EQ(record.switching_max_real_route_lost, 25);
  EXPECT_EQ(record.link_switch_mask, 0) << "what allows switching is the client's to say";
  EXPECT_EQ(u32{record.max_link_except_rep_num}, 0u);
}

TEST(UnsetSettings, ALongDelayHasALimitToo) {
  AccConfigRecord record;
  moru_vyr::lsp::FillUnsetSettings(&record);
  EXPECT_EQ(u32{record.max_delay_avg}, 200u);
  EXPECT_EQ(u32{record.switching_high_freq_test_interval}, 10u);
}

}  // namespace
