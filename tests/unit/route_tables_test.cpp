// The IP table, the spur list, the blacklist and the port map: which records of their regions
// count.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "common/named_mutex.h"
#include "tests/support/log_texts.h"
#include "tests/support/route_fixture.h"
#include "tests/support/threads.h"
#include "tests/unit/out_of_memory.h"

namespace {

using namespace moru_vyr::lsp;
using test::ClientRegion;
using test::Ip;
using test::Port;

class RouteTables : public test::RoutePolicy {
 protected:
  // Whether another thread can have the mutex: nobody holds it any more.
  static bool IsFree(const char* mutex_name) {
    bool free = false;
    test::RunThread([&] {
      common::NamedMutex mutex(mutex_name);
      free = mutex.try_lock();
      if (free) mutex.unlock();
    });
    return free;
  }

  // The client's own handles: the last one takes a mutex with it, and a new one is always free.
  const common::NamedMutex ip_mutex{kIpTableMutexName};
  const common::NamedMutex spur_mutex{kSpurMutexName};
  const common::NamedMutex blacklist_mutex{kBlacklistMutexName};
};

// --- IP table --------------------------------------------------------------------------------

TEST_F(RouteTables, IpTableTakesTheRecordsOfTheUsersLevelOnly) {
  config.game_vip_level = 3;
  ReplaceAccConfig(config);
  LoadIps({{7301, Ip("203.0.113.1")},
           {7201, Ip("203.0.113.2")},
           {1302, Ip("203.0.113.3")},
           {300, Ip("203.0.113.4")},
           {3000, Ip("203.0.113.5")},
           {12, Ip("203.0.113.6")}});
  EXPECT_EQ(route.ip_table().size(), 3u);
  EXPECT_EQ(*route.ip_table().Find(Ip("203.0.113.1")), 7301u);
  EXPECT_EQ(*route.ip_table().Find(Ip("203.0.113.3")), 1302u);
  EXPECT_EQ(*route.ip_table().Find(Ip("203.0.113.4")), 300u);
  EXPECT_TRUE(log.Contains("[0][lsp][Route][LoadIpTableFromMem] begin!\n"));
  EXPECT_TRUE(log.Contains("[5][lsp][Route][LoadIpTableFromMem] success ip count(3), level=3!\n"));
}

TEST_F(RouteTables, IpTableOfEachLevelIsTheDigitBeforeTheLastTwo) {
  for (u32 level = 0; level < 10; ++level) {
    config.game_vip_level = level;
    ReplaceAccConfig(config);
    LoadIps({{level * 100 + 1, Ip("203.0.113.1")},
             {(level + 1) % 10 * 100 + 1, Ip("203.0.113.2")},
             {90000 + level * 100 + 99, Ip("203.0.113.3")}});
    EXPECT_EQ(route.ip_table().size(), 2u) << level;
    EXPECT_EQ(route.ip_table().Find(Ip("203.0.113.2")), nullptr) << level;
  }
}

TEST_F(RouteTables, SameIpOnSeveralLevelsIsFoundOnTheUsersLevel) {
  config.game_vip_level = 1;
  ReplaceAccConfig(config);
  LoadIps({{5001, Ip("203.0.113.1")}, {5101, Ip("203.0.113.1")}, {5201, Ip("203.0.113.1")}});
  EXPECT_EQ(*route.ip_table().Find(Ip("203.0.113.1")), 5101u);
}

TEST_F(RouteTables, LaterIpRecordWins) {
  LoadIps({{1001, Ip("203.0.113.1")}, {1002, Ip("203.0.113.1")}});
  EXPECT_EQ(*route.ip_table().Find(Ip("203.0.113.1")), 1002u);
  EXPECT_TRUE(log.Contains("success ip count(1), level=0!"));
}

TEST_F(RouteTables, IpCountPastTheTableReadsTheTable) {
  auto region = std::make_unique<IpTableRegion>();
  for (u32 i = 0; i < kMaxIpRecords; ++i) region->records[i] = {1001, i + 1};
  region->iptable_word = 1001;  // what a further record would begin with
  for (const u32 count : {kMaxIpRecords + 1, 0xFFFFFFFFu}) {
    region->ip_count = count;
    route.ip_table().LoadIpTableFromMem(*region);
    EXPECT_EQ(route.ip_table().size(), kMaxIpRecords);
  }
}

TEST_F(RouteTables, IpTableRegionIsReadOnceAndLetGo) {
  EXPECT_FALSE(route.ip_table().was_held()) << "nobody has looked yet";
  EXPECT_FALSE(route.ip_table().LoadIpTable()) << "there is no region";
  EXPECT_EQ(log.Text(), "") << "a missing region is no event";
  ClientRegion<IpTableRegion> region(kIpTableRegionName);
  EXPECT_FALSE(route.ip_table().LoadIpTable()) << "an empty one does not count";
  region->ip_count = 1;
  region->records[0] = {1001, Ip("203.0.113.1")};
  EXPECT_TRUE(route.ip_table().LoadIpTable());
  EXPECT_TRUE(IsFree(kIpTableMutexName));
  region->records[0] = {1002, Ip("203.0.113.2")};
  EXPECT_TRUE(route.ip_table().LoadIpTable());
  EXPECT_EQ(route.ip_table().Find(Ip("203.0.113.2")), nullptr) << "kept: it is loaded once";
}

TEST_F(RouteTables, IpTableRegionOfAnotherVersionReadsAsAbsent) {
  ClientRegion<IpTableRegion> region(kIpTableRegionName);
  region->ip_count = 1;
  region->records[0] = {1001, Ip("203.0.113.1")};
  const struct {
    common::SharedMemHeader header;
  } kRows[] = {{{655380, 1, 35}}, {{655380, 2, 36}}, {{655379, 1, 36}}, {{0, 0, 0}}};
  for (const auto& row : kRows) {
    region->header = row.header;
    EXPECT_FALSE(route.ip_table().LoadIpTable());
    EXPECT_TRUE(IsFree(kIpTableMutexName));
  }
  EXPECT_TRUE(log.Contains(
      "[4][Shared_mem_obj]Shared_mem_obj(vyr_iptable_share_mem,size=655380) open "
      "failed,structure not match, shared_mem_size=655380, major_ver=1, minor_ver=35\n"));
  EXPECT_TRUE(log.Contains("[5][lsp]" + test::kNoIpTable));
  region->header = {655380, 1, 36};
  EXPECT_TRUE(route.ip_table().LoadIpTable()) << "a later try takes it";
}

TEST_F(RouteTables, RegionThatIsTooSmallReadsAsAbsent) {
  ClientRegion<IpTableRegion> ips(kIpTableRegionName, 4096);
  ClientRegion<SpurRegion> spurs(kSpurRegionName, 4096);
  ClientRegion<BlacklistRegion> blacklist(kBlacklistRegionName, 4096);
  EXPECT_FALSE(route.ip_table().LoadIpTable());
  route.spur_list().LoadSpurIplistTable();
  route.blacklist().LoadBlacklistTable();
  EXPECT_TRUE(log.Contains(test::kNoIpTable));
  EXPECT_TRUE(
      log.Contains("[5][lsp]LoadSpurIplistTable read route table from shared memory "
                   "failed, mem_addr=null\n"));
  EXPECT_TRUE(
      log.Contains("[5][lsp]LoadBlacklistTable read route table from shared memory "
                   "failed, mem_addr=null\n"));
  EXPECT_TRUE(IsFree(kIpTableMutexName));
  EXPECT_TRUE(IsFree(kSpurMutexName));
  EXPECT_TRUE(IsFree(kBlacklistMutexName));
}

// A table that there is no memory for stays as it was, and says so.
TEST_F(RouteTables, RegionThatNobodyHasMemoryForIsNotRead) {
  ClientRegion<IpTableRegion> ips(kIpTableRegionName);
  ClientRegion<SpurRegion> spurs(kSpurRegionName);
  ClientRegion<BlacklistRegion> blacklist(kBlacklistRegionName);
  LoadBlacklist({{5, Ip("203.0.113.1"), 80, 1, {}}});
  LoadSpurs({{7301, Ip("203.0.113.1")}});
  {
    const test::OutOfMemory none(1, sizeof(SpurRegion));  // the smallest of the copies
    EXPECT_FALSE(route.ip_table().LoadIpTable());
    route.spur_list().LoadSpurIplistTable();
    route.blacklist().LoadBlacklistTable();
  }
  for (const char* const line :
       {"[4][lsp][Route][LoadIpTable] read iptable from shared memory failed, iptable_pointer "
        "alloc failed with null\n",
        "[4][lsp]LoadSpurIplistTable read iptable from shared memory failed, iptable_pointer "
        "alloc failed with null\n",
        "[4][lsp]LoadBlacklistTable read iptable from shared memory failed, iptable_pointer "
        "alloc failed with null\n"})
    EXPECT_TRUE(log.Contains(line)) << line << log.Text();
  EXPECT_TRUE(route.spur_list().Find(Ip("203.0.113.1")).has_value());
  EXPECT_EQ(route.blacklist().size(), 1u);
  EXPECT_TRUE(IsFree(kIpTableMutexName));
  EXPECT_TRUE(IsFree(kSpurMutexName));
  EXPECT_TRUE(IsFree(kBlacklistMutexName));
}

// --- spur list -------------------------------------------------------------------------------

TEST_F(RouteTables, SpurListTakesEveryLevelAndTheLaterRecord) {
  config.game_vip_level = 5;
  ReplaceAccConfig(config);
  LoadSpurs({{7301, Ip("203.0.113.1")}, {12, Ip("203.0.113.2")}, {13, Ip("203.0.113.2")}});
  EXPECT_EQ(route.spur_list().Find(Ip("203.0.113.1")), 7301u);
  EXPECT_EQ(route.spur_list().Find(Ip("203.0.113.2")), 13u);
  EXPECT_FALSE(route.spur_list().Find(Ip("203.0.113.3")).has_value());
  EXPECT_TRUE(log.Contains("[0][lsp][LoadSpurIplistTableFromMem] game_idc=7301, ip=" +
                           std::to_string(Ip("203.0.113.1")) + "(203.0.113.1)\n"));
  EXPECT_TRUE(log.Contains("[5][lsp][LoadSpurIplistTableFromMem] " + test::SpurEntries(2) + "\n"));
}

TEST_F(RouteTables, EmptySpurListNeverReplacesTheOld) {
  LoadSpurs({{7301, Ip("203.0.113.1")}});
  LoadSpurs({});
  EXPECT_TRUE(log.Contains(test::SpurEntries(0)));
  EXPECT_EQ(route.spur_list().Find(Ip("203.0.113.1")), 7301u);
  LoadSpurs({{7302, Ip("203.0.113.2")}});
  EXPECT_FALSE(route.spur_list().Find(Ip("203.0.113.1")).has_value());
  EXPECT_EQ(route.spur_list().Find(Ip("203.0.113.2")), 7302u);
}

TEST_F(RouteTables, SpurCountPastTheTableReadsTheTable) {
  auto region = std::make_unique<SpurRegion>();
  for (u32 i = 0; i < kMaxSpurRecords; ++i) region->records[i] = {7, i + 1};
  region->spur_count = kMaxSpurRecords + 1;
  route.spur_list().LoadSpurIplistTableFromMem(*region);
  EXPECT_TRUE(log.Contains(test::SpurEntries(2048)));
}

TEST_F(RouteTables, SpurRegionIsReadAtEachLoad) {
  ClientRegion<SpurRegion> region(kSpurRegionName);
  region->spur_count = 1;
  region->records[0] = {7301, Ip("203.0.113.1")};
  route.spur_list().LoadSpurIplistTable();
  region->records[0] = {7302, Ip("203.0.113.2")};
  route.spur_list().LoadSpurIplistTable();
  EXPECT_EQ(route.spur_list().Find(Ip("203.0.113.2")), 7302u);
  region->header.minor_ver = 37;
  region->records[0] = {7303, Ip("203.0.113.3")};
  route.spur_list().LoadSpurIplistTable();
  EXPECT_EQ(route.spur_list().Find(Ip("203.0.113.2")), 7302u)
      << "what cannot be read changes nothing";
  EXPECT_TRUE(IsFree(kSpurMutexName));
}

TEST_F(RouteTables, SpurListIsReplacedWhileItIsRead) {
  common::SetLogThreshold(6);
  auto odd = std::make_unique<SpurRegion>();
  auto even = std::make_unique<SpurRegion>();
  for (u32 i = 0; i < 1000; ++i) {
    odd->records[i] = {1, i};
    even->records[i] = {2, i};
  }
  odd->spur_count = even->spur_count = 1000;
  route.spur_list().LoadSpurIplistTableFromMem(*odd);
  test::RunThreads(4, [&](int thread) {
    for (u32 i = 0; i < 200; ++i) {
      if (thread == 0) {
        route.spur_list().LoadSpurIplistTableFromMem(i % 2 != 0 ? *odd : *even);
        continue;
      }
      for (u32 ip = 0; ip < 100; ++ip) {
        const auto idc = route.spur_list().Find(ip);
        ASSERT_TRUE(idc == 1u || idc == 2u);
      }
    }
  });
}

// --- blacklist -------------------------------------------------------------------------------

TEST_F(RouteTables, BlacklistKeepsTcpAndUdpRecordsOnly) {
  LoadBlacklist({{5, Ip("203.0.113.1"), 80, 1, {}},
                 {5, Ip("203.0.113.1"), 80, 3, {}},
                 {5, Ip("203.0.113.1"), 80, 0, {}},
                 {0, Ip("203.0.113.2"), 0, 2, {}}});
  EXPECT_EQ(route.blacklist().size(), 2u);
  EXPECT_TRUE(log.Contains(
      "[0][lsp][LoadBlacklistTableFromMem] game_id=5, ip=" + std::to_string(Ip("203.0.113.1")) +
      "(203.0.113.1), port=80, type=TCP\n"));
  EXPECT_TRUE(log.Contains("(203.0.113.2), port=0, type=UDP\n"));
  EXPECT_TRUE(log.Contains("[5][lsp][Route][LoadBlacklistTableFromMem] " +
                           test::BlacklistEntries(2) + "\n"));
  EXPECT_FALSE(route.blacklist().IsInAccBlacklist(5, Ip("203.0.113.1"), Port(80), 3))
      << "a dropped record never matches";
}

TEST_F(RouteTables, BlacklistFieldsMatchOrAreWildcards) {
  constexpr u64 kGame = 0x100000005;
  const u32 ip = Ip("203.0.113.1");
  const struct {
    const char* what;
    BlacklistRecord record;
    bool matches;  // game kGame, 203.0.113.1:80 over TCP
  } kRows[] = {
      {"all given", {kGame, ip, 80, 1, {}}, true},
      {"any game", {0, ip, 80, 1, {}}, true},
      {"any address", {kGame, 0, 80, 1, {}}, true},
      {"any port", {kGame, ip, 0, 1, {}}, true},
      {"the game alone", {kGame, 0, 0, 1, {}}, true},
      {"the address alone", {0, ip, 0, 1, {}}, true},
      {"the port alone", {0, 0, 80, 1, {}}, true},
      {"nothing but a type", {0, 0, 0, 1, {}}, false},
      {"another game", {5, ip, 80, 1, {}}, false},
      {"another address", {kGame, ip + 1, 80, 1, {}}, false},
      {"another port", {kGame, ip, 81, 1, {}}, false},
      {"the port's bytes reversed", {kGame, ip, 20480, 1, {}}, false},
      {"a port beyond 16 bits", {kGame, ip, 65616, 1, {}}, false},
      {"the other type", {kGame, ip, 80, 2, {}}, false},
      {"the other type, all else open", {kGame, 0, 0, 2, {}}, false},
  };
  for (const auto& row : kRows) {
    LoadBlacklist({row.record});
    EXPECT_EQ(route.blacklist().IsInAccBlacklist(kGame, ip, Port(80), SOCK_STREAM), row.matches)
        << row.what;
  }
}

TEST_F(RouteTables, BlacklistSearchContinuesAfterARecordThatDoesNotMatch) {
  LoadBlacklist({{0, 0, 0, 1, {}}, {9, 0, 0, 1, {}}, {0, 0, 80, 2, {}}, {0, 0, 80, 1, {}}});
  EXPECT_TRUE(route.blacklist().IsInAccBlacklist(5, Ip("203.0.113.1"), Port(80), SOCK_STREAM));
}

TEST_F(RouteTables, BlacklistCountPastTheTableReadsTheTable) {
  struct Table {
    BlacklistRegion region;
    BlacklistRecord behind = {1, 0, 0, 1, {}};
  };
  const auto table = std::make_unique<Table>();
  table->region.blacklist_count = 0xFFFFFFFF;
  for (auto& record : table->region.records) record = {1, 0, 0, 1, {}};
  route.blacklist().LoadBlacklistTableFromMem(table->region);
  EXPECT_EQ(route.blacklist().size(), kMaxBlacklistRecords);
}

TEST_F(RouteTables, BlacklistRegionIsReadAtEachLoadAndMayTurnEmpty) {
  ClientRegion<BlacklistRegion> region(kBlacklistRegionName);
  region->blacklist_count = 2;
  region->records[0] = {1, 0, 0, 1, {}};
  region->records[1] = {2, 0, 0, 2, {}};
  route.blacklist().LoadBlacklistTable();
  EXPECT_EQ(route.blacklist().size(), 2u);
  region->header.minor_ver = 35;
  route.blacklist().LoadBlacklistTable();
  EXPECT_EQ(route.blacklist().size(), 2u) << "what cannot be read changes nothing";
  region->header.minor_ver = 36;
  region->blacklist_count = 0;
  route.blacklist().LoadBlacklistTable();
  EXPECT_EQ(route.blacklist().size(), 0u);
  EXPECT_TRUE(IsFree(kBlacklistMutexName));
}

// --- port map --------------------------------------------------------------------------------

TEST_F(RouteTables, PortMapSkipsRecordsWithoutADataCentre) {
  LoadPorts({{80, 11}, {80, 0}, {443, 12}, {80, 13}});
  EXPECT_EQ(route.port_map().size(), 2u);
  EXPECT_EQ(*route.port_map().Find(80), 13u);
  EXPECT_EQ(*route.port_map().Find(443), 12u);
  EXPECT_EQ(*route.port_map().First(), 13u) << "the lowest port's";
  EXPECT_EQ(route.port_map().Find(81), nullptr);
  EXPECT_EQ(route.port_map().all_port_idc(), 0u);
  EXPECT_TRUE(log.Contains("[5][lsp][Route]LoadPortIdcTable, invalid port idc record, pass\n"));
  EXPECT_TRUE(log.Contains("[4][lsp][Route]LoadPortIdcTable, port=443, idc=12\n"));
}

TEST_F(RouteTables, PortZeroDiscardsRecordsBeforeItAndHidesThoseAfterIt) {
  LoadPorts({{80, 1}, {81, 2}, {82, 3}, {0, 7}, {83, 4}, {0, 9}});
  EXPECT_EQ(route.port_map().size(), 0u);
  EXPECT_EQ(route.port_map().First(), nullptr);
  EXPECT_EQ(route.port_map().all_port_idc(), 7u);
  EXPECT_TRUE(log.Contains("[4][lsp][Route]LoadPortIdcTable, all port go to idc=7\n"));
  EXPECT_FALSE(log.Contains("port=83"));
}

TEST_F(RouteTables, PortZeroWithoutDataCentreIsInvalidLikeAnyOther) {
  LoadPorts({{80, 1}, {0, 0}, {81, 2}});
  EXPECT_EQ(route.port_map().size(), 2u);
  EXPECT_EQ(route.port_map().all_port_idc(), 0u);
}

TEST_F(RouteTables, NothingTakesTheDataCentreOfAllPortsBack) {
  LoadPorts({{0, 7}});
  LoadPorts({{80, 1}});
  EXPECT_EQ(route.port_map().all_port_idc(), 7u);
  EXPECT_EQ(*route.port_map().Find(80), 1u);
}

TEST_F(RouteTables, PortMapForgetsThePortsOfTheListBefore) {
  LoadPorts({{80, 1}, {81, 2}});
  LoadPorts({{81, 3}});
  EXPECT_EQ(route.port_map().size(), 1u);
  EXPECT_EQ(route.port_map().Find(80), nullptr);
  EXPECT_EQ(*route.port_map().Find(81), 3u);
}

TEST_F(RouteTables, PortCountPastTheTableReadsTheTable) {
  for (u32 i = 0; i < kMaxPortIdcRecords; ++i) config.port_idc_records[i] = {i + 1, 5};
  config.port_idc_count = 0xFFFF;
  ReplaceAccConfig(config);
  route.port_map().LoadPortIdcTable();
  EXPECT_EQ(route.port_map().size(), kMaxPortIdcRecords);
}

}  // namespace
