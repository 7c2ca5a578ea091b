// The tables of the client's file: where their bytes go, and what is refused.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "client/check/config_file.h"
#include "client/dump/region_reader.h"
#include "client/sample/sample.h"
#include "tests/unit/real_dir.h"

namespace {

using client::ConfigFile;
using client::ParseConfig;
using client::Problem;
using client::RegionId;
using client::Regions;

// Fifteen lines that are right by themselves; what a case adds starts at line 16.
const std::string kBase =
    "game = []\n"
    "[[node]]\n"
    "proxy_name = 'one'\n"
    "proxy_addr = '198.51.100.20'\n"
    "proxy_port = 9000\n"
    "proxy_idc = 5\n"
    "[[node]]\n"
    "proxy_name = 'two'\n"
    "proxy_addr = '198.51.100.21'\n"
    "proxy_port = 9001\n"
    "proxy_idc = 6\n"
    "[[idc]]\n"
    "game_idc = 1001\n"
    "name = 'east'\n"
    "addresses = ['198.51.100.10', '198.51.100.11']\n";

std::string ProblemsOf(const client::Problems& problems) {
  std::string all;
  for (const Problem& problem : problems) all += ToText("file", problem) + "\n";
  return all;
}

struct Stored {
  const char* text;
  RegionId region;
  size_t offset;
  std::vector<unsigned char> bytes;
};

class ClientTablesBytes : public testing::TestWithParam<Stored> {};

TEST_P(ClientTablesBytes, StandAtTheirOffset) {
  const Stored& placed = GetParam();
  const ConfigFile file = ParseConfig(kBase + placed.text);
  ASSERT_EQ(ProblemsOf(file.problems), "");
  const auto* const region =
      reinterpret_cast<const unsigned char*>(RegionOf(*file.tables, Regions()[placed.region]));
  const std::vector<unsigned char> found(region + placed.offset,
                                         region + placed.offset + placed.bytes.size());
  EXPECT_EQ(found, placed.bytes);
}

// The route region begins with twelve bytes of header.
constexpr size_t kImage = 12;
constexpr size_t kSet2 = kImage + 22324;
constexpr size_t kNodes = kImage + 44668;
constexpr size_t kFirstRoute = kImage + 4;
constexpr char kRoute[] =
    "[[route]]\n"
    "game_idc = 'east'\n"
    "entry_name = 'E'\n"
    "entry_word0 = 1\nentry_word1 = 2\nentry_word3 = 3\nentry_word4 = 4\nentry_word21 = 21\n"
    "direct_delay = 300\ndirect_lost = 7\n"
    "top_refs = [{ node = 'two' }, { node = 0 }, { node = 5, section2_lost = 9 }]\n"
    "ref_both_modes = { node = 'two', section2_delay = 258 }\n"
    "ref_default = { node = 'one', decision = 'DECISION_OVER_MAX_LOST', last_node = 'two' }\n"
    "switch_groups = [{ last_node = 'two', candidates = [{ node = 'one' }, { node = 'two' }] },\n"
    "  { last_node = 77, candidates = [{ node = 'two', section2_delay = 3 }] }]\n";
constexpr char kMeasured[] =
    "[[launch_test]]\ngame_idc = 'east'\nglt_head = '0aff'\n"
    "proxy = { node = 'two', section2_delay = 3 }\n";

INSTANTIATE_TEST_SUITE_P(
    Headers, ClientTablesBytes,
    testing::Values(Stored{"", client::kRoute, 0, {0x90, 0x00, 0x01, 0, 1, 0, 0, 0, 36, 0, 0, 0}},
                    Stored{"", client::kIpTable, 0, {0x14, 0x00, 0x0a, 0, 1, 0, 0, 0, 36, 0, 0, 0}},
                    Stored{"", client::kBlacklist, 0, {0x18, 0x60, 0, 0, 1, 0, 0, 0, 36, 0, 0, 0}},
                    Stored{"", client::kSpur, 0, {0x10, 0x40, 0, 0, 1, 0, 0, 0, 36, 0, 0, 0}},
                    Stored{
                        "", client::kLaunchTest, 0, {0x10, 0x3b, 0, 0, 1, 0, 0, 0, 36, 0, 0, 0}}));

INSTANTIATE_TEST_SUITE_P(
    Routes, ClientTablesBytes,
    testing::Values(
        Stored{"", client::kRoute, kImage + 44664, {2, 0, 0, 0}},
        Stored{"", client::kRoute, kNodes + 8, {'1', '9', '8', '.', '5', '1'}},
        Stored{"", client::kRoute, kNodes + 40, {0x28, 0x23, 0, 0, 5, 0, 0, 0}},
        Stored{"", client::kRoute, kNodes + 140 + 52, {'t', 'w', 'o', 0}},
        Stored{kRoute, client::kRoute, kImage, {1, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute, {1, 0, 0, 0, 2, 0, 0, 0, 0xe9, 3,   0,
                                                     0, 3, 0, 0, 0, 4, 0, 0, 0,    'E', 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 84, {21, 0, 0, 0, 0x2c, 1, 0, 0, 7, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 96, {6, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 136, {5, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 156, {6, 0, 0, 0, 2, 1, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 176, {5, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                                                           0, 0, 7, 0, 0, 0, 6, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 196, {6, 0, 0, 0, 5, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 196 + 24, {6, 0, 0, 0}},
        Stored{kRoute, client::kRoute, kFirstRoute + 240, {77, 0, 0, 0, 6, 0, 0, 0, 3, 0, 0, 0}},
        Stored{"[[route_mode2]]\ngame_idc = 1001\nref_default = { node = 6 }",
               client::kRoute,
               kSet2,
               {1, 0, 0, 0}},
        Stored{"[[route_mode2]]\ngame_idc = 1001\nref_default = { node = 6 }",
               client::kRoute,
               kSet2 + 4 + 176,
               {6, 0, 0, 0}}));

INSTANTIATE_TEST_SUITE_P(
    Lists, ClientTablesBytes,
    testing::Values(
        Stored{"", client::kIpTable, 12, {2,   0,  0,    0, 0xe9, 3, 0,   0,  198, 51,
                                          100, 10, 0xe9, 3, 0,    0, 198, 51, 100, 11}},
        Stored{"[[spur]]\ngame_idc = 'east'\naddresses = ['1.2.3.4']",
               client::kSpur,
               12,
               {1, 0, 0, 0, 0xe9, 3, 0, 0, 1, 2, 3, 4}},
        Stored{
            "[[blacklist]]\ntype = 'UDP'\nip = '1.2.3.4'\nport = 258\ngame_id = 9",
            client::kBlacklist,
            16,
            {1, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 2, 1, 0, 0, 2, 0, 0, 0}},
        Stored{kMeasured, client::kLaunchTest, 12, {1, 0, 0, 0, 0xe9, 3, 0, 0, 0x0a, 0xff, 0, 0}},
        Stored{kMeasured, client::kLaunchTest, 16 + 72 + 8, {'1', '9', '8', '.', '5', '1'}},
        Stored{kMeasured, client::kLaunchTest, 16 + 72 + 40, {0x29, 0x23, 0, 0, 6, 0, 0, 0}},
        Stored{kMeasured, client::kLaunchTest, 16 + 72 + 152, {3, 0, 0, 0}}));

TEST(ClientTables, HeaderWordsAndTheIpTablesWordHaveTheirPlaces) {
  const ConfigFile file =
      ParseConfig("header0 = 1\nheader1 = 2\nheader2 = 3\nheader3 = 4\niptable_word = 5\n" + kBase);
  ASSERT_EQ(ProblemsOf(file.problems), "");
  const uint32_t words[] = {1, 2, 3, 4, 2};  // the last is the number of nodes
  const std::byte* const route = RegionOf(*file.tables, Regions()[client::kRoute]);
  EXPECT_EQ(std::memcmp(route + kImage + 44648, words, sizeof words), 0);
  const std::byte* const ips = RegionOf(*file.tables, Regions()[client::kIpTable]);
  const uint32_t word = 5;
  EXPECT_EQ(std::memcmp(ips + 655376, &word, sizeof word), 0);
}

// What a node says goes into each proxy that names it, and a key beside it wins.
TEST(ClientTables, AProxyMayBeTakenFromANode) {
  const ConfigFile file = ParseConfig(
      kBase +
      "[[node]]\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 7\n"
      "proxy_name = 'three'\nsection1_delay = 12\nversion = 9\nflag = 8\n"
      "[[launch_test]]\ngame_idc = 1\nproxy = { node = 'three', proxy_port = 2, version = 3 }\n");
  EXPECT_EQ(ProblemsOf(file.problems), "");
  const auto& proxy = file.tables->launch_test.records[0].proxy;
  EXPECT_STREQ(proxy.proxy_addr, "1.2.3.4");
  EXPECT_STREQ(proxy.proxy_name, "three");
  EXPECT_EQ(proxy.proxy_port, 2u);
  EXPECT_EQ(proxy.proxy_idc, 7u);
  EXPECT_EQ(proxy.section1_delay, 12u);
  EXPECT_EQ(proxy.flag, 8u);
  EXPECT_EQ(proxy.version, 3u);
}

struct Refused {
  const char* text;  // behind the fifteen lines
  const char* report;
};

class ClientTablesRefusal : public testing::TestWithParam<Refused> {};

TEST_P(ClientTablesRefusal, NamesFileLineAndKey) {
  const ConfigFile file = ParseConfig(kBase + GetParam().text);
  EXPECT_EQ(ProblemsOf(file.problems), std::string("file:") + GetParam().report + "\n");
  EXPECT_TRUE(HasErrors(file.problems));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ClientTablesRefusal,
    testing::Values(
        Refused{"[[route]]\ngame_idc = 'east'\nref_default = { node = 'tow' }",
                "18: key 'route[0].ref_default.node': no [[node]] has the name 'tow'; did you mean "
                "'two'?"},
        Refused{"[[route]]\ngame_idc = 'east'\nref_default = { node = 'unheard of' }",
                "18: key 'route[0].ref_default.node': no [[node]] has the name 'unheard of'"},
        Refused{"[[route]]\ngame_idc = 'east'\nref_default = { node = 9 }",
                "18: key 'route[0].ref_default.node': 9 is the proxy_idc of no [[node]]"},
        Refused{"[[route]]\ngame_idc = 'east'\nref_default = { node = 0 }",
                "18: key 'route[0].ref_default.node': must be a node even where the verdict is "
                "against it: without one the verdict is lost and reads as DECISION_ACCE towards no "
                "address"},
        Refused{"[[route]]\ngame_idc = 'east'\n", "16: key 'route[0].ref_default': is missing"},
        Refused{"[[route]]\ngame_idc = 'east'\nref_default = { decision = 1 }",
                "18: key 'route[0].ref_default.node': is missing"},
        Refused{
            "[[route]]\ngame_idc = 'eats'\nref_default = { node = 5 }",
            "17: key 'route[0].game_idc': no [[idc]] has the name 'eats'; did you mean 'east'?"},
        Refused{"[[route]]\ngame_idc = 0\nref_default = { node = 5 }",
                "17: key 'route[0].game_idc': 0 is out of range, which is 1 to 4294967295"},
        Refused{"[[route]]\ngame_idc = 1001\nref_default = { node = 5, decision = 'DIRECT' }",
                "18: key 'route[0].ref_default.decision': 'DIRECT' is unknown; the names are "
                "DECISION_ACCE, DECISION_DIRECT, DECISION_NOT_ACCE_SAME_ISP, DECISION_NOT_ACCE, "
                "DECISION_FORCE_ACCE_AUTO, DECISION_OVER_MAX_BOTH, DECISION_OVER_MAX_DELAY, "
                "DECISION_OVER_MAX_LOST, DECISION_FORCE_ACCE_MANUAL"},
        Refused{"[[route]]\ngame_idc = 1001\nref_default = { node = 5 }\n"
                "[[route]]\ngame_idc = 'east'\nref_default = { node = 6 }",
                "20: key 'route[1].game_idc': is that of route[0] too, in line 16"},
        Refused{"[[route]]\ngame_idc = 1001\nref_default = { node = 5 }\n"
                "top_refs = [{ node = 5 }, { node = 5 }, { node = 5 }, { node = 5 }]",
                "19: key 'route[0].top_refs': takes at most 3 entries, found 4"},
        Refused{"[[route]]\ngame_idc = 1001\nref_default = { node = 5 }\nswitch_groups = [\n"
                "{ last_node = 5, candidates = [] },\n{ last_node = 'one', candidates = [] }]",
                "21: key 'route[0].switch_groups[1].last_node': is that of "
                "route[0].switch_groups[0] too, in line 20"},
        Refused{"[[route]]\ngame_idc = 1001\nref_default = { node = 5, last_node = 'nobody' }",
                "18: key 'route[0].ref_default.last_node': no [[node]] has the name 'nobody'"},
        Refused{"[[node]]\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 5",
                "19: key 'node[2].proxy_idc': is that of node[0] too, in line 2"},
        Refused{"[[node]]\nproxy_name = 'two'\nproxy_addr = '1.2.3.4'\nproxy_port = 1\n"
                "proxy_idc = 8",
                "17: key 'node[2].proxy_name': is that of node[1] too, in line 7"},
        Refused{"[[node]]\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 0",
                "19: key 'node[2].proxy_idc': 0 is out of range, which is 1 to 4294967295"},
        Refused{"[[node]]\nproxy_addr = '1.2.3'\nproxy_port = 1\nproxy_idc = 8",
                "17: key 'node[2].proxy_addr': '1.2.3' is no dotted IPv4 address"},
        Refused{"[[idc]]\ngame_idc = 1001\naddresses = []",
                "17: key 'idc[1].game_idc': is that of idc[0] too, in line 12"},
        Refused{"[[idc]]\ngame_idc = 1002\nname = 'east'\naddresses = []",
                "18: key 'idc[1].name': is that of idc[0] too, in line 12"},
        Refused{"[[idc]]\ngame_idc = 1302\nvip_level = 2\naddresses = []",
                "18: key 'idc[1].vip_level': the hundreds digit of game_idc 1302 is 3"},
        Refused{"[[idc]]\ngame_idc = 1002\naddresses = [\n'1.2.3.4',\n'198.51.100.10']",
                "20: key 'idc[1].addresses[1]': '198.51.100.10' stands in line 15 already"},
        Refused{"[[idc]]\ngame_idc = 1002\naddresses = ['host']",
                "18: key 'idc[1].addresses[0]': 'host' is no dotted IPv4 address"},
        Refused{"[[idc]]\ngame_idc = 1002\naddresses = [1]",
                "18: key 'idc[1].addresses[0]': wants a text, found a whole number"},
        Refused{"[[idc]]\ngame_idc = 1002\naddresses = 'x'",
                "18: key 'idc[1].addresses': wants a list, found a text"},
        Refused{"[[idc]]\ngame_idc = 1002", "16: key 'idc[1].addresses': is missing"},
        Refused{"[spur]\ngame_idc = 1002",
                "16: key 'spur': is a list: begin each of its entries with [[spur]], with two "
                "brackets"},
        Refused{"[[spur]]\ngame_idc = 'west'\naddresses = []",
                "17: key 'spur[0].game_idc': no [[idc]] has the name 'west'"},
        Refused{"[[spur]]\ngame_idc = 1\nvip_level = 0\naddresses = []",
                "18: key 'spur[0].vip_level': is unknown here"},
        Refused{"[[spur]]\ngame_idc = 1\naddresses = ['1.2.3.4', '1.2.3.4']",
                "18: key 'spur[0].addresses[1]': '1.2.3.4' stands in line 18 already"},
        Refused{"[[blacklist]]\nip = '1.2.3.4'", "16: key 'blacklist[0].type': is missing"},
        Refused{"[[blacklist]]\ntype = 3\nport = 1",
                "17: key 'blacklist[0].type': 3 is out of range, which is 1 to 2"},
        Refused{"[[blacklist]]\ntype = 'ICMP'\nport = 1",
                "17: key 'blacklist[0].type': 'ICMP' is unknown; the names are TCP, UDP"},
        Refused{"[[blacklist]]\ntype = 1\nip = '1.2.3.04'",
                "18: key 'blacklist[0].ip': '1.2.3.04' is no dotted IPv4 address"},
        Refused{"[[blacklist]]\ntype = 1\nport = 65536",
                "18: key 'blacklist[0].port': 65536 is out of range, which is 0 to 65535"},
        Refused{"[[launch_test]]\ngame_idc = 1\nglt_head = '0'\nproxy = { node = 'one' }",
                "18: key 'launch_test[0].glt_head': '0' is no text of hexadecimal digits, two for "
                "each byte"},
        Refused{"[[launch_test]]\ngame_idc = 1\nproxy = { node = 'oen' }",
                "18: key 'launch_test[0].proxy.node': no [[node]] has the name 'oen'; did you mean "
                "'one'?"},
        Refused{"[[launch_test]]\ngame_idc = 1\nproxy = { node = 5 }",
                "18: key 'launch_test[0].proxy.node': wants a text, found a whole number"},
        Refused{"[[nodes]]\n", "16: key 'nodes': is unknown; did you mean 'node'?"},
        Refused{"[proxy_count]\n", "16: key 'proxy_count': is counted from 'node'; leave it out"}));

TEST(ClientTables, MissingBothModesIsRefusedOnlyWhereAGameUsesIt) {
  const std::string route = "[[route]]\ngame_idc = 1001\nref_default = { node = 5 }\n";
  const auto game = [](const std::string& mode) {
    return "[[game]]\ngame_id = 1\ngame_paths = []\nlog_level = 0\nlog_path = 'C:\\a\\'\n"
           "net_mode = [" +
           mode + "]\n";
  };
  const std::string base = kBase.substr(kBase.find('\n') + 1);
  EXPECT_EQ(ProblemsOf(ParseConfig(base + route + game("'TCP'")).problems), "");
  EXPECT_EQ(ProblemsOf(ParseConfig(base + route + game("'REF_BOTH_MODES'")).problems),
            "file:15: key 'route[0].ref_both_modes': must be a node: a game's net_mode has "
            "REF_BOTH_MODES, and without one this reads as DECISION_ACCE towards no address\n");
}

TEST(ClientTables, TheSameAddressMayServeSeveralLevels) {
  const ConfigFile file =
      ParseConfig(kBase + "[[idc]]\ngame_idc = 1101\naddresses = ['198.51.100.10']");
  EXPECT_EQ(ProblemsOf(file.problems), "");
  EXPECT_EQ(file.tables->iptable.ip_count, 3u);
}

TEST(ClientTables, WarnsAboutEntriesWithoutEffect) {
  const Refused doubts[] = {
      {"[[route]]\ngame_idc = 7\nref_default = { node = 5 }",
       "17: warning: key 'route[0].game_idc': no address and no port leads to 7, so this route is "
       "never used"},
      {"[[blacklist]]\ntype = 'TCP'",
       "17: warning: key 'blacklist[0]': names no game, no address and no port: such a record "
       "matches nothing"},
      {"[[route]]\ngame_idc = 1001\nref_default = { node = 5 }\n"
       "switch_groups = [{ last_node = 65536, candidates = [] }]",
       "19: warning: key 'route[0].switch_groups[0]': its last_node is above 65535 and cannot be "
       "asked for"},
  };
  for (const Refused& doubt : doubts) {
    const ConfigFile file = ParseConfig(kBase + doubt.text);
    EXPECT_EQ(ProblemsOf(file.problems), std::string("file:") + doubt.report + "\n");
    EXPECT_FALSE(HasErrors(file.problems));
  }
}

std::string Repeat(const std::string& text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) {
    std::string one = text;
    for (size_t at = one.find('#'); at != std::string::npos; at = one.find('#', at)) {
      one.replace(at, 1, std::to_string(i + 1));
    }
    all += one;
  }
  return all;
}

// [0] fills the table to its last place, [1] has one more.
TEST(ClientTables, AreAcceptedUpToTheirLimits) {
  const std::string node = "[[node]]\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 9#\n";
  const std::string route = "[[route]]\ngame_idc = 9#\nref_default = { node = 5 }\n";
  const std::string route2 = "[[route_mode2]]\ngame_idc = 9#\nref_default = { node = 5 }\n";
  const std::string entry = "[[blacklist]]\ntype = 1\nport = #\n";
  const std::string measured = "[[launch_test]]\ngame_idc = #\nproxy = { node = 'one' }\n";
  const auto spur = [](int count) {
    std::string list = "[[spur]]\ngame_idc = 1\naddresses = [\n";
    for (int i = 0; i < count; ++i) {
      list += "'9.9." + std::to_string(i / 256) + "." + std::to_string(i % 256) + "',\n";
    }
    return list + "]\n";
  };
  const std::pair<std::string, std::string> pairs[] = {
      {Repeat(node, 148), Repeat(node, 149)},       {Repeat(route, 60), Repeat(route, 61)},
      {Repeat(route2, 60), Repeat(route2, 61)},     {Repeat(entry, 1024), Repeat(entry, 1025)},
      {Repeat(measured, 64), Repeat(measured, 65)}, {spur(2048), spur(2049)},
  };
  for (const auto& [taken, refused] : pairs) {
    EXPECT_FALSE(HasErrors(ParseConfig(kBase + taken).problems)) << taken.substr(0, 40);
    EXPECT_TRUE(HasErrors(ParseConfig(kBase + refused).problems)) << refused.substr(0, 40);
  }
}

TEST(ClientTables, TheIpTableTakesEightyTwoThousandAddressesAndNoMore) {
  const auto file_with = [](unsigned count) {
    std::string text = "game = []\n[[idc]]\ngame_idc = 1001\naddresses = [\n";
    for (unsigned i = 0; i < count; ++i) {
      text += "'8." + std::to_string(i >> 16) + "." + std::to_string(i >> 8 & 255) + "." +
              std::to_string(i & 255) + "',\n";
    }
    return ParseConfig(text + "]\n");
  };
  const ConfigFile full = file_with(81920);
  EXPECT_EQ(ProblemsOf(full.problems), "");
  EXPECT_EQ(full.tables->iptable.ip_count, 81920u);
  EXPECT_EQ(ProblemsOf(file_with(81921).problems),
            "file:81925: key 'idc[0].addresses[81920]': is one address more than the 81920 that "
            "there is room for\n");
}

TEST(ClientRouteFile, IsTheImageAndNothingElse) {
  const test::RealDir dir;
  const std::string path = dir.File("route.dat");
  const ConfigFile file = ParseConfig(client::WriteSample({}));
  ASSERT_EQ(client::WriteRouteFile(path, *file.tables), "");
  ASSERT_EQ(client::WriteRouteFile(path, *file.tables), "");  // over an older one
  std::ifstream stream(path, std::ios::binary);
  const std::string bytes(std::istreambuf_iterator<char>(stream), {});
  ASSERT_EQ(bytes.size(), 65668u);
  EXPECT_EQ(std::memcmp(bytes.data(), &file.tables->route.image, bytes.size()), 0);
  const auto read = client::NewTables();
  EXPECT_EQ(client::ReadRouteFile(path, read.get()), "");
  EXPECT_EQ(std::memcmp(&read->route, &file.tables->route, sizeof read->route), 0);
}

TEST(ClientRouteFile, OfAnotherSizeIsRefused) {
  const test::RealDir dir;
  for (const size_t size : {size_t{0}, size_t{65667}, size_t{65669}}) {
    const std::string path = dir.File("route.dat");
    std::ofstream(path, std::ios::binary) << std::string(size, 'x');
    EXPECT_EQ(client::ReadRouteFile(path, client::NewTables().get()),
              "has " + std::to_string(size) + " bytes, a route table has 65668");
  }
  EXPECT_EQ(client::ReadRouteFile(dir.File("none"), client::NewTables().get()), "does not exist");
}

}  // namespace
