// The client's configuration file: what it accepts, where the bytes go, and its error messages.
#include "client/check/config_file.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <set>
#include <vector>

#include "client/fields/fields.h"
#include "client/sample/sample.h"
#include "client/suggest.h"

namespace {

using client::ConfigFile;
using client::Field;
using client::Kind;
using client::ParseConfig;
using client::Problem;
using client::Shape;

// Six lines that are right by themselves; what a case adds starts at line 7.
const std::string kGame =
    "[[game]]\n"
    "game_id = 10001\n"
    "game_paths = ['C:\\games\\game.exe']\n"
    "net_mode = ['TCP']\n"
    "log_level = 5\n"
    "log_path = 'C:\\log\\'\n";

std::string Describe(const client::Problems& problems) {
  std::string all;
  for (const Problem& problem : problems) all += ToText("file", problem) + "\n";
  return all;
}

const char* BytesAt(const ConfigFile& file, size_t offset) {
  return reinterpret_cast<const char*>(&file.tables->restriction) + offset;
}

uint64_t NumberAt(const ConfigFile& file, size_t offset, size_t size) {
  uint64_t value = 0;
  std::memcpy(&value, BytesAt(file, offset), size);
  return value;
}

constexpr size_t kFirstGame = 16;
constexpr size_t kGameSize = 13368;

TEST(ClientConfig, TakesTheShortestGame) {
  const ConfigFile file = ParseConfig(kGame);
  EXPECT_EQ(Describe(file.problems), "");
  EXPECT_EQ(file.game_count, 1u);
}

TEST(ClientConfig, WritesTheRegionsHeader) {
  const ConfigFile file = ParseConfig(kGame);
  EXPECT_EQ(NumberAt(file, 0, 4), 134216u);
  EXPECT_EQ(NumberAt(file, 4, 4), 1u);
  EXPECT_EQ(NumberAt(file, 8, 4), 36u);
}

struct Placed {
  const char* line;  // of the game's own table
  size_t offset;     // in the game's record
  size_t size;
  uint64_t value;
};

class ClientConfigNumber : public testing::TestWithParam<Placed> {};

TEST_P(ClientConfigNumber, StandsAtItsOffset) {
  const Placed& placed = GetParam();
  const ConfigFile file = ParseConfig(kGame + placed.line);
  ASSERT_EQ(Describe(file.problems), "");
  EXPECT_EQ(NumberAt(file, kFirstGame + placed.offset, placed.size), placed.value);
}

INSTANTIATE_TEST_SUITE_P(
    Fields, ClientConfigNumber,
    testing::Values(
        Placed{"", 0, 4, 1},  // valid by itself
        Placed{"valid = 0", 0, 4, 0}, Placed{"", 8, 8, 10001}, Placed{"", 16, 4, 0x8},
        Placed{"", 20, 4, 1}, Placed{"excluded_ports = [25, 465]", 2624, 4, 2},
        Placed{"excluded_ports = [25, 465]", 2632, 4, 465}, Placed{"", 2884, 4, 5},
        Placed{"zone_id = 0x123456789a", 3152, 8, 0x123456789a},
        Placed{"zone_id = '18446744073709551615'", 3152, 8, UINT64_MAX},
        Placed{"zone_word = 7", 3160, 4, 7}, Placed{"acc_mode = 2", 3164, 4, 2},
        Placed{"manual_mode = true", 3168, 4, 1},
        Placed{"reserved_words = [1, 2, 3, 4]", 11094, 2, 4},
        Placed{"reserved_word = 10000", 11096, 4, 10000},
        Placed{"game_launch_test_use = 1", 11100, 1, 1}, Placed{"glt_word = 8000", 11104, 4, 8000},
        Placed{"wait_route = true", 11108, 1, 1},
        Placed{"lost_calc_unit_size = 65535", 11112, 4, 65535},
        Placed{"short_cycle = 2", 11116, 1, 2},
        Placed{"data_link_short_cycle_lost = 8", 11117, 1, 8},
        Placed{"data_link_long_cycle_lost = 5", 11118, 1, 5}, Placed{"long_cycle = 6", 11119, 1, 6},
        Placed{"recovery_window_word = 200", 11120, 2, 200},
        Placed{"data_link_short_cycle_pkg = 20", 11122, 2, 20},
        Placed{"data_link_long_cycle_pkg = 30", 11124, 2, 30},
        Placed{"norm_test_interval = 1000", 11128, 4, 1000},
        Placed{"high_freq_test_interval = 200", 11132, 4, 200},
        Placed{"high_freq_test_time = 1001", 11136, 4, 1001},
        Placed{"max_delay_avg = 100", 11140, 2, 100}, Placed{"max_delay_amp = 30", 11142, 2, 30},
        Placed{"max_real_route_lost = 100", 11144, 1, 100},
        Placed{"link_switch_mask = 3", 11145, 1, 3}, Placed{"switch_open = true", 11146, 1, 1},
        Placed{"max_link_except_rep_num = 6", 11148, 2, 6},
        Placed{"ignore_high_freq_test_time = 20", 11150, 2, 20},
        Placed{"max_high_freq_test_count = 3", 11152, 2, 3},
        Placed{"watching_time_span = 30", 11154, 2, 30},
        Placed{"game_link_switch_open = 1", 11285, 1, 1},
        Placed{"link_switch_min_inter = 300", 11286, 2, 300},
        Placed{"max_link_switch_count = 4", 11288, 2, 4},
        Placed{"switching_high_freq_test_interval = 30", 11292, 4, 30},
        Placed{"switching_high_freq_test_time = 1000", 11296, 4, 1000},
        Placed{"switching_max_delay_avg = 80", 11300, 2, 80},
        Placed{"switching_max_delay_amp = 21", 11302, 2, 21},
        Placed{"switching_max_real_route_lost = 4", 11304, 1, 4},
        Placed{"max_valid_test_delay = 999", 11306, 2, 999},
        Placed{"port_idc_records = [{port = 7, idc = 8}]", 11308, 2, 1},
        Placed{"port_idc_records = [{port = 7, idc = 8}]", 11312, 4, 7},
        Placed{"port_idc_records = [{port = 7, idc = 8}]", 11316, 4, 8},
        Placed{"game_vip_level = 3", 13360, 4, 3},
        Placed{"[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_port = 99\nproxy_idc = 5",
               3172 + 40, 2, 99},
        Placed{"[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_port = 99\nproxy_idc = 5",
               3172 + 44, 4, 5},
        Placed{"[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_port = 99\nproxy_idc = 5\n"
               "decision = 'DECISION_FORCE_ACCE_MANUAL'",
               3172 + 148, 4, 8},
        Placed{"[game.reachability]\nproxy_idc = 5\nrecords = [{game_idc = 1, delay = 2}]",
               10056 + 4, 4, 1},
        Placed{"[game.reachability]\nproxy_idc = 5\nrecords = [{game_idc = 1, delay = 2}]",
               10056 + 12, 4, 2},
        Placed{"[[game.manual_routes]]\ngame_idc = 9\nproxies = []\n"
               "[[game.manual_routes]]\ngame_idc = 10\nproxies = []",
               3336 + 336 + 328, 4, 10}));

TEST(ClientConfig, PutsTextsAtTheirOffsets) {
  const ConfigFile file = ParseConfig(
      "route_binary_file_path = 'C:\\route.dat'\nsecond_path = 'second'\n" + kGame +
      "uin = '20001'\nsecond_text = 'text'\nlist_text = '26,2'\n"
      "[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_port = 99\nproxy_idc = 5\n"
      "proxy_name = 'one'\n" +
      "[[game]]\ngame_id = 2\ngame_paths = ['C:\\a.exe', 'C:\\\xC3\xA4.exe']\nnet_mode = 0\n"
      "log_level = 6\nlog_path = 'C:\\b\\'\n");
  ASSERT_EQ(Describe(file.problems), "");
  EXPECT_STREQ(BytesAt(file, 133696), "C:\\route.dat");
  EXPECT_STREQ(BytesAt(file, 133956), "second");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 24), "C:\\games\\game.exe");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 2756), "20001");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 2820), "text");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 2888), "C:\\log\\");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 3172 + 8), "1.2.3.4");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 3172 + 52), "one");
  EXPECT_STREQ(BytesAt(file, kFirstGame + 11156), "26,2");
  EXPECT_STREQ(BytesAt(file, kFirstGame + kGameSize + 24 + 260), "C:\\\xC3\xA4.exe");
}

TEST(ClientConfig, NetModeIsANumberOrTheNamesOfItsBits) {
  const auto mode = [](const std::string& value) {
    const ConfigFile file = ParseConfig(
        "[[game]]\ngame_id = 1\ngame_paths = []\nlog_level = 0\nlog_path = 'C:\\a\\'\n"
        "net_mode = " +
        value);
    EXPECT_EQ(Describe(file.problems), "") << value;
    return NumberAt(file, kFirstGame + 16, 4);
  };
  EXPECT_EQ(mode("[]"), 0u);
  EXPECT_EQ(mode("0x18"), 0x18u);
  EXPECT_EQ(mode("['TCP']"), 0x8u);
  EXPECT_EQ(mode("['UDP']"), 0x10u);
  EXPECT_EQ(mode("['ASYTCP']"), 0x20u);
  EXPECT_EQ(mode("['REF_BOTH_MODES']"), 0x30000u);
  EXPECT_EQ(mode("['REFUSE_WITHOUT_ACC_MODE']"), 0x2000000u);
  EXPECT_EQ(mode("['TCP', 'UDP', 'ASYTCP']"), 0x38u);
}

TEST(ClientConfig, EveryDecisionHasItsNumber) {
  const std::vector<const char*> names = {
      "DECISION_ACCE",           "DECISION_DIRECT",          "DECISION_NOT_ACCE_SAME_ISP",
      "DECISION_NOT_ACCE",       "DECISION_FORCE_ACCE_AUTO", "DECISION_OVER_MAX_BOTH",
      "DECISION_OVER_MAX_DELAY", "DECISION_OVER_MAX_LOST",   "DECISION_FORCE_ACCE_MANUAL"};
  for (size_t i = 0; i < names.size(); ++i) {
    const ConfigFile file = ParseConfig(
        kGame + "[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_port = 99\nproxy_idc = 5\n" +
        "decision = '" + names[i] + "'\n");
    EXPECT_EQ(Describe(file.problems), "");
    EXPECT_EQ(NumberAt(file, kFirstGame + 3172 + 148, 4), i) << names[i];
  }
}

std::string Repeat(const std::string& text, size_t times) {
  std::string all;
  for (size_t i = 0; i < times; ++i) all += text;
  return all;
}

// Games with paths and numbers of their own.
std::string Games(int count) {
  std::string all;
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    all += "[[game]]\ngame_id = " + number + "\ngame_paths = ['C:\\" + number +
           ".exe']\nnet_mode = ['TCP']\nlog_level = 5\nlog_path = 'C:\\log\\'\n";
  }
  return all;
}

// A value that just fits its field, and the same with one more: [0] is taken, [1] is refused.
TEST(ClientConfig, BoundsAreTakenAndOneMoreIsRefused) {
  const auto path = [](size_t size) { return "second_path = '" + std::string(size, 'x') + "'\n"; };
  const auto line = [](const std::string& text) { return kGame + text + "\n"; };
  const auto list = [&line](const std::string& key, const std::string& entry, size_t count) {
    return line(key + " = [" + Repeat(entry + ", ", count) + "]");
  };
  const std::string address = "{proxy_addr = '1.2.3.4', proxy_port = 1, proxy_idc = 1}";
  const std::string pairs[][2] = {
      {path(259) + kGame, path(260) + kGame},
      {line("uin = '" + std::string(63, '1') + "'"), line("uin = '" + std::string(64, '1') + "'")},
      {line("list_text = '" + std::string(128, '1') + "'"),
       line("list_text = '" + std::string(129, '1') + "'")},
      // Bytes count, not letters.
      {line("second_text = '" + Repeat("\xC3\xA4", 31) + "'"),
       line("second_text = '" + Repeat("\xC3\xA4", 32) + "'")},
      {Games(10), Games(11)},
      {list("excluded_ports", "80", 32), list("excluded_ports", "80", 33)},
      {list("reserved_words", "1", 4), list("reserved_words", "1", 5)},
      {list("port_idc_records", "{port = 1, idc = 1}", 256),
       list("port_idc_records", "{port = 1, idc = 1}", 257)},
      {list("manual_routes", "{game_idc = 1, proxies = []}", 20),
       list("manual_routes", "{game_idc = 1, proxies = []}", 21)},
      {line("manual_routes = [{game_idc = 1, proxies = [" + Repeat(address + ", ", 2) + "]}]"),
       line("manual_routes = [{game_idc = 1, proxies = [" + Repeat(address + ", ", 3) + "]}]")},
      {line("reachability = {proxy_idc = 1, records = [" +
            Repeat("{game_idc = 1, delay = 1}, ", 64) + "]}"),
       line("reachability = {proxy_idc = 1, records = [" +
            Repeat("{game_idc = 1, delay = 1}, ", 65) + "]}")},
      {line("max_delay_avg = 65535"), line("max_delay_avg = 65536")},
      {line("acc_mode = 4294967295"), line("acc_mode = 4294967296")},
      {line("short_cycle = 255"), line("short_cycle = 256")},
      {line("lost_calc_unit_size = 65535"), line("lost_calc_unit_size = 65536")},
      {line("max_real_route_lost = 100"), line("max_real_route_lost = 101")},
      {line("game_vip_level = 9"), line("game_vip_level = 10")},
      {line("excluded_ports = [65535, 1]"), line("excluded_ports = [0]")},
      {line("zone_id = 9223372036854775807"), line("zone_id = -1")},
      {line("zone_id = '18446744073709551615'"), line("zone_id = '18446744073709551616'")},
  };
  for (const auto& [taken, refused] : pairs) {
    EXPECT_EQ(Describe(ParseConfig(taken).problems), "");
    EXPECT_TRUE(HasErrors(ParseConfig(refused).problems)) << refused;
  }
}

TEST(ClientConfig, TenGamePathsFitAndElevenDoNot) {
  const auto with_paths = [](size_t count) {
    std::string paths;
    for (size_t i = 0; i < count; ++i) paths += "'C:\\" + std::to_string(i) + ".exe', ";
    return ParseConfig(
        "[[game]]\ngame_id = 1\nnet_mode = 0\nlog_level = 0\nlog_path = 'C:\\a\\'\n" +
        ("game_paths = [" + paths) + "]\n");
  };
  EXPECT_EQ(Describe(with_paths(10).problems), "");
  EXPECT_EQ(NumberAt(with_paths(10), kFirstGame + 20, 4), 10u);
  EXPECT_EQ(Describe(with_paths(11).problems),
            "file:6: key 'game[0].game_paths': takes at most 10 entries, found 11\n");
}

struct Refusal {
  const char* text;  // behind the six lines of a right game
  const char* report;
};

TEST(ClientConfig, WarnsOfPathsAndNumbersThatTwoGamesHave) {
  const std::string second =
      "[[game]]\ngame_id = 10001\ngame_paths = ['C:\\b.exe', 'c:\\GAMES\\game.exe', 'C:\\B.exe']\n"
      "net_mode = 0\nlog_level = 5\nlog_path = 'C:\\log\\'\n";
  const ConfigFile file = ParseConfig(kGame + second);
  EXPECT_EQ(
      Describe(file.problems),
      "file:8: warning: key 'game[1].game_id': is that of game[0] too: no report tells the "
      "two apart\n"
      "file:9: warning: key 'game[1].game_paths[1]': 'c:\\GAMES\\game.exe' is a path of game[0] "
      "already, whose settings count for it\n"
      "file:9: warning: key 'game[1].game_paths[2]': 'C:\\B.exe' is a path of game[1] "
      "already\n");
  EXPECT_EQ(Describe(ParseConfig(kGame + "valid = 0\n" + second).problems),
            "file:10: warning: key 'game[1].game_paths[2]': 'C:\\B.exe' is a path of game[1] "
            "already\n")
      << "a record that is left out takes nothing";
}

class ClientConfigRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(ClientConfigRefusal, NamesFileLineAndKey) {
  const ConfigFile file = ParseConfig(kGame + GetParam().text);
  EXPECT_EQ(Describe(file.problems), std::string("file:") + GetParam().report + "\n");
  EXPECT_TRUE(HasErrors(file.problems));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ClientConfigRefusal,
    testing::Values(
        Refusal{"excluded_port = [1]",
                "7: key 'game[0].excluded_port': is unknown; did you mean 'excluded_ports'?"},
        Refusal{"Zone_ID = 1", "7: key 'game[0].Zone_ID': is unknown; did you mean 'zone_id'?"},
        Refusal{"whatever_else = 1", "7: key 'game[0].whatever_else': is unknown here"},
        Refusal{"path_count = 1",
                "7: key 'game[0].path_count': is counted from 'game_paths'; leave it out"},
        Refusal{"second_path = ''",
                "7: key 'game[0].second_path': is unknown here; it belongs at the top of the file, "
                "before the first table"},
        Refusal{"\n[[games]]\n", "8: key 'games': is unknown; did you mean 'game'?"},
        Refusal{"zone_id = 'a'",
                "7: key 'game[0].zone_id': 'a' is no whole number from 0 to 18446744073709551615"},
        Refusal{"zone_word = 'a'",
                "7: key 'game[0].zone_word': wants a whole number, found a text"},
        Refusal{"zone_word = 1.5",
                "7: key 'game[0].zone_word': wants a whole number, found a number with a fraction"},
        Refusal{"zone_word = true",
                "7: key 'game[0].zone_word': wants a whole number, found true or false"},
        Refusal{"zone_word = 2020-01-01",
                "7: key 'game[0].zone_word': wants a whole number, found a date or time"},
        Refusal{"wait_route = 'yes'",
                "7: key 'game[0].wait_route': wants true, false or a whole number, found a text"},
        Refusal{"uin = 1", "7: key 'game[0].uin': wants a text, found a whole number"},
        Refusal{"excluded_ports = 80",
                "7: key 'game[0].excluded_ports': wants a list, found a whole number"},
        Refusal{"excluded_ports = [\n80,\n'x']",
                "9: key 'game[0].excluded_ports[1]': wants a whole number, found a text"},
        Refusal{"forced_proxy = 1",
                "7: key 'game[0].forced_proxy': wants a table, found a whole number"},
        Refusal{"acc_mode = -1",
                "7: key 'game[0].acc_mode': -1 is out of range, which is 0 to 4294967295"},
        Refusal{"excluded_ports = [65536]",
                "7: key 'game[0].excluded_ports[0]': 65536 is out of range, which is 1 to 65535"},
        Refusal{"uin = '12x'", "7: key 'game[0].uin': '12x' has other signs than digits"},
        Refusal{"list_text = '1,,2'",
                "7: key 'game[0].list_text': '1,,2' is no list of numbers like '26,2'"},
        Refusal{"second_text = \"a\\u0000b\"",
                "7: key 'game[0].second_text': holds a NUL, behind which nothing is read"},
        Refusal{"second_text = '1234567890123456789012345678901234567890123456789012345678901234'",
                "7: key 'game[0].second_text': takes at most 64 bytes of UTF-8 with the NUL behind "
                "them, found 65"},
        Refusal{"[game.forced_proxy]\nproxy_addr = '1.2.3.256'\nproxy_port = 1\nproxy_idc = 1",
                "8: key 'game[0].forced_proxy.proxy_addr': '1.2.3.256' is no dotted IPv4 address"},
        Refusal{"[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_idc = 1",
                "7: key 'game[0].forced_proxy.proxy_port': is missing"},
        Refusal{
            "[game.forced_proxy]\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 1\n"
            "decision = 'DECISION_ACCEL'",
            "11: key 'game[0].forced_proxy.decision': 'DECISION_ACCEL' is unknown; did you mean "
            "'DECISION_ACCE'?"},
        Refusal{"[game.reachability]\nproxy_idc = 1\n[[game.reachability.records]]\ngame_idc = 1",
                "9: key 'game[0].reachability.records[0].delay': is missing"},
        Refusal{"[[game]]\ngame_id = 1\nnet_mode = 'TCP'\ngame_paths = []\nlog_level = 0\n"
                "log_path = 'C:\\a\\'",
                "9: key 'game[1].net_mode': wants a list of names or a whole number, found a text"},
        Refusal{"[[game]]\ngame_id = 1\nnet_mode = ['ICMP']\ngame_paths = []\nlog_level = 0\n"
                "log_path = 'C:\\a\\'",
                "9: key 'game[1].net_mode': 'ICMP' is unknown; the names are TCP, UDP, ASYTCP, "
                "REF_BOTH_MODES, REFUSE_WITHOUT_ACC_MODE"},
        Refusal{"[[game]]\ngame_id = 1\nnet_mode = [8]\ngame_paths = []\nlog_level = 0\n"
                "log_path = 'C:\\a\\'",
                "9: key 'game[1].net_mode': wants a list of names, found a whole number"},
        Refusal{"[[game]]\ngame_id = 1\nnet_mode = 0\ngame_paths = ['']\nlog_level = 0\n"
                "log_path = 'C:\\a\\'",
                "10: key 'game[1].game_paths[0]': is empty"}));

TEST(ClientConfig, AddressesAreFourPlainNumbers) {
  for (const char* address :
       {"", "1.2.3", "1.2.3.4.5", "1.2.3.4 ", " 1.2.3.4", "1.2.3.x", "1..3.4", "1.2.3.4.",
        "256.1.1.1", "01.2.3.4", "-1.2.3.4", "+1.2.3.4", "0x1.2.3.4", "host", "1.2.3.4294967297"}) {
    const ConfigFile file = ParseConfig(
        kGame + "forced_proxy = {proxy_port = 1, proxy_idc = 1, proxy_addr = '" + address + "'}");
    EXPECT_EQ(file.problems.size(), 1u) << address;
  }
  for (const char* address : {"0.0.0.0", "255.255.255.255", "10.0.200.99"}) {
    const ConfigFile file = ParseConfig(
        kGame + "forced_proxy = {proxy_port = 1, proxy_idc = 1, proxy_addr = '" + address + "'}");
    EXPECT_EQ(Describe(file.problems), "") << address;
  }
}

TEST(ClientConfig, MissingKeysAreNamedWithTheLineOfTheirTable) {
  EXPECT_EQ(Describe(ParseConfig("\n[[game]]\n").problems),
            "file:2: key 'game[0].game_id': is missing\n"
            "file:2: key 'game[0].game_paths': is missing\n"
            "file:2: key 'game[0].net_mode': is missing\n"
            "file:2: key 'game[0].log_level': is missing\n"
            "file:2: key 'game[0].log_path': is missing\n");
  EXPECT_TRUE(HasErrors(ParseConfig("").problems));
  EXPECT_EQ(Describe(ParseConfig("game = []").problems), "");
}

TEST(ClientConfig, ReportsEveryMistakeAtOnceInTheOrderOfTheFile) {
  const ConfigFile file = ParseConfig("secnd_path = ''\n" + kGame +
                                      "uin = 5\nexcluded_ports = [0, 99999]\nzone_idd = 1\n");
  std::vector<unsigned> lines;
  for (const Problem& problem : file.problems) lines.push_back(problem.line);
  EXPECT_EQ(lines, (std::vector<unsigned>{1, 8, 9, 9, 10}));
}

TEST(ClientConfig, WhatIsNoTomlEndsAtItsFirstMistake) {
  const ConfigFile file = ParseConfig("[[game]]\ngame_id = \n");
  ASSERT_EQ(file.problems.size(), 1u);
  EXPECT_EQ(file.problems[0].line, 2u);
  EXPECT_TRUE(HasErrors(file.problems));
  EXPECT_TRUE(HasErrors(ParseConfig(kGame + "game_id = 1\n").problems));   // a key given twice
  EXPECT_TRUE(HasErrors(ParseConfig(kGame + "uin = '\xff'\n").problems));  // no UTF-8
}

TEST(ClientConfig, LettersBeyondAsciiAreMistakesInKeysAndAreTakenInComments) {
  for (const char* const letter : {"\u00E9", "\u03A7", "\u1615", "\u3042", "\uFE70"}) {
    const ConfigFile file = ParseConfig(kGame + "net" + letter + "mode = 1\n");
    ASSERT_EQ(file.problems.size(), 1u) << letter;
    EXPECT_TRUE(HasErrors(file.problems)) << letter;
    const std::string comment = std::string("# ") + letter + "\n";
    EXPECT_FALSE(HasErrors(ParseConfig(kGame + comment).problems)) << letter;
  }
}

struct Doubt {
  const char* paths;
  const char* log_path;
  const char* reason;
};

TEST(ClientConfig, WarnsOfPathsThatDoNothingUsefulAndTakesThem) {
  const Doubt doubts[] = {
      {"'C:\\games\\'", "C:\\a\\", "names a folder, and not a program, so it never matches"},
      {"'game.exe'", "C:\\a\\", "is no full path like C:\\games\\game.exe, so it never matches"},
      {"'C:/a.exe'", "C:\\a\\",
       "has a '/': a process's path has backslashes only, so this never matches"},
      {"'C:\\games\\*.exe'", "C:\\a\\",
       "has a wildcard: paths are compared whole, so this never matches"},
      {"'C:\\games\\?.exe'", "C:\\a\\",
       "has a wildcard: paths are compared whole, so this never matches"},
      {"'C:\\a.exe'", "C:\\a*\\",
       "holds a sign that no folder's name can have, so no log is written"},
      {"'C:\\a.exe'", "C:\\a", "does not end in a backslash: the log files go to the folder above"},
  };
  for (const Doubt& doubt : doubts) {
    const ConfigFile file = ParseConfig(
        std::string("[[game]]\ngame_id = 1\nnet_mode = 0\nlog_level = 0\nlog_path = '") +
        doubt.log_path + "'\ngame_paths = [" + doubt.paths + "]\n");
    ASSERT_EQ(file.problems.size(), 1u);
    EXPECT_EQ(file.problems[0].reason, doubt.reason);
    EXPECT_FALSE(HasErrors(file.problems));
  }
}

TEST(ClientSample, IsTakenWithoutAWord) {
  const ConfigFile file = ParseConfig(client::WriteSample({}));
  EXPECT_EQ(Describe(file.problems), "");
  EXPECT_EQ(file.game_count, 1u);
}

void ForEachField(const Shape& shape, std::set<const Shape*>* seen,
                  const std::function<void(const Shape&, const Field&)>& visit) {
  if (!seen->insert(&shape).second) return;
  for (const Field& field : shape.fields) {
    visit(shape, field);
    if (field.shape != nullptr) ForEachField(*field.shape, seen, visit);
  }
}

TEST(ClientSample, HoldsOrExplainsEveryKeyOfTheFieldTable) {
  const std::string sample = client::WriteSample({});
  size_t keys = 0;
  std::set<const Shape*> seen;
  ForEachField(client::FileShape(), &seen, [&](const Shape& shape, const Field& field) {
    const std::string key = field.key;
    const bool there = sample.find("\n" + key + " = ") != std::string::npos ||
                       sample.find(" " + key + ": ") != std::string::npos ||
                       sample.find("[" + key + "]") != std::string::npos ||
                       sample.find("." + key + "]") != std::string::npos ||
                       sample.find(key + " = 'NAME'") != std::string::npos;
    EXPECT_TRUE(there) << shape.name << "." << key;
    ++keys;
  });
  EXPECT_GT(keys, 130u);
}

TEST(ClientSample, PutsABackslashBehindTheLogDirectoryWhereItLacksOne) {
  for (const char* folder : {"D:\\logs", "D:\\logs\\"}) {
    const ConfigFile file = ParseConfig(client::WriteSample({{"C:\\a.exe"}, folder}));
    EXPECT_EQ(Describe(file.problems), "");
    EXPECT_STREQ(BytesAt(file, kFirstGame + 2888), "D:\\logs\\");
  }
}

// Level 0 would write a line for each datagram of whoever only wants to begin.
TEST(ClientSample, LogsEventsAndNotEachCall) {
  EXPECT_EQ(NumberAt(ParseConfig(client::WriteSample({})), kFirstGame + 2884, 4), 4u);
}

TEST(ClientSample, TakesPathsWithAnySign) {
  const std::string odd = "C:\\it's \"here\"\\\xE4\xB8\xAD.exe";
  const ConfigFile file = ParseConfig(client::WriteSample({{odd}, "D:\\l'og\\"}));
  ASSERT_EQ(Describe(file.problems), "");
  EXPECT_EQ(BytesAt(file, kFirstGame + 24), odd);
  EXPECT_STREQ(BytesAt(file, kFirstGame + 2888), "D:\\l'og\\");
}

TEST(ClientFields, LieInTheirRecordsWithoutOverlap) {
  std::set<const Shape*> seen;
  const std::function<void(const Shape&)> check = [&](const Shape& shape) {
    if (!seen.insert(&shape).second) return;
    std::vector<int> owner(shape.size, -1);
    const auto claim = [&](size_t offset, size_t size, int index) {
      for (size_t i = offset; i < offset + size; ++i) {
        ASSERT_LT(i, shape.size) << shape.fields[static_cast<size_t>(index)].key;
        EXPECT_EQ(owner[i], -1) << shape.fields[static_cast<size_t>(index)].key;
        owner[i] = index;
      }
    };
    for (size_t i = 0; i < shape.fields.size(); ++i) {
      const Field& field = shape.fields[i];
      const size_t entries = field.capacity == 0 ? 1 : field.capacity;
      if (field.kind == Kind::kFromNode || field.kind == Kind::kAddresses) continue;  // no place
      if (field.beside != nullptr) continue;  // in another record
      claim(field.offset, field.size * entries, static_cast<int>(i));
      claim(field.count_offset, field.count_size, static_cast<int>(i));
      EXPECT_STRNE(field.doc, "") << field.key;
      if (field.shape != nullptr) {
        // A group of addresses becomes records of another kind.
        if (field.kind == Kind::kRecord) {
          EXPECT_EQ(field.shape->size, field.size) << field.key;
        }
        check(*field.shape);
      }
    }
  };
  check(client::FileShape());
  EXPECT_EQ(seen.size(), 15u);
}

// What no key reaches is reserved: of 13368 bytes the record keeps 4 + 4 + 3 + 3 + 2 + 1 + 2 +
// 1 + 2 + 4 to itself.
TEST(ClientFields, CoverAllOfAGameButItsReservedBytes) {
  const Shape& game = *client::FileShape().Find("game")->shape;
  size_t covered = 0;
  for (const Field& field : game.fields) {
    if (field.beside != nullptr) continue;
    covered += field.size * (field.capacity == 0 ? 1 : field.capacity) + field.count_size;
  }
  EXPECT_EQ(game.size, kGameSize);
  EXPECT_EQ(game.size - covered, 26u);
}

TEST(ClientSuggest, ProposesOnlyWhatIsNear) {
  const std::vector<std::string_view> keys = {"zone_id", "zone_word", "uin"};
  EXPECT_EQ(client::Suggest("zone_i", keys), "zone_id");
  EXPECT_EQ(client::Suggest("ZONE_WORD", keys), "zone_word");
  EXPECT_EQ(client::Suggest("zoneword", keys), "zone_word");
  EXPECT_EQ(client::Suggest("uni", keys), "uin");
  EXPECT_EQ(client::Suggest("something", keys), "");
}

}  // namespace
