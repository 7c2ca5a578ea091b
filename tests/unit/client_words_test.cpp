// What the client says of a file that is wrong: in the file's own words, and each mistake once.
#include <gtest/gtest.h>

#include <fstream>

#include "client/check/config_file.h"
#include "client/files.h"
#include "tests/unit/real_dir.h"

namespace {

std::string Told(const std::string& text) {
  std::string all;
  for (const client::Problem& problem : client::ParseConfig(text).problems) {
    all += client::ToText("file", problem) + "\n";
  }
  return all;
}

struct Saying {
  const char* text;
  const char* told;  // behind "file:"
};

class ClientWords : public testing::TestWithParam<Saying> {};

TEST_P(ClientWords, AreThoseOfTheFile) {
  EXPECT_EQ(Told(GetParam().text), std::string("file:") + GetParam().told + "\n");
}

INSTANTIATE_TEST_SUITE_P(
    Syntax, ClientWords,
    testing::Values(
        Saying{"[[game]]\ngame_paths = [\"C:\\games\\a.exe\"]\n",
               "2: in double quotes a backslash begins an escape: write a path in single quotes, "
               "'C:\\games\\a.exe'"},
        Saying{"[[game]]\ngame_paths = ['C:\\a.exe', \"C:\\Users\\b.exe\"]\n",
               "2: in double quotes a backslash begins an escape: write a path in single quotes, "
               "'C:\\Users\\b.exe'"},
        Saying{"[[game]]\nlog_path = \"C:\\temp\\\"\n",
               "2: in double quotes a backslash begins an escape: write a path in single quotes, "
               "'C:\\temp\\'"},
        Saying{"[[game]]\nlog_path = 'C:\\log\\\nnet_mode = 0\n",
               "2: the text that begins with 'C:\\log\\ has no closing ' in its line"},
        Saying{"[[game]]\ngame_paths = ['C:\\a.exe', 'C:\\b.exe]\n",
               "2: the text that begins with 'C:\\b.exe] has no closing ' in its line"},
        Saying{"[[game]]\r\nuin = \"12\r\nnet_mode = 0\r\n",
               "2: the text that begins with \"12 has no closing \" in its line"},
        Saying{"[[game]\ngame_id = 1\n", "1: the line begins with a [ that is not closed"},
        Saying{"[[game]]\ngame_id =\n", "2: 'game_id =' has no value"},
        Saying{"[[game]]\ngame_id 1\n", "2: 'game_id 1' has no '=' behind the key"},
        Saying{"[[game]]\nnet_mode = TCP # both\n",
               "2: 'TCP' is no value: texts stand in single quotes"},
        Saying{"[[game]]\nexcluded_ports = [1, 2", "2: a list has no closing ]"},
        Saying{"[[game]]\ngame_id = 1\ngame_id = 2\n",
               "3: the key 'game_id' stands in this table already"},
        Saying{"[[game]]\ngame_id = 1\n[game]\nuin = '1'\n",
               "3: [game] stands in the file already; a further entry of a list is written with "
               "two brackets, [[ ]]"},
        Saying{"[game]\ngame_id = 1\n",
               "1: key 'game': is a list: begin each of its entries with [[game]], with two "
               "brackets"},
        Saying{"game = { game_id = 1 }\n",
               "1: key 'game': is a list: put brackets around its tables, [{ ... }]"}));

const std::string kTellableGame =
    "[[game]]\ngame_id = 1\nnet_mode = 0\nlog_level = 5\nlog_path = 'C:\\log\\'\n";

TEST(ClientWords, AListInAGameIsNamedAsItIsWritten) {
  EXPECT_EQ(Told(kTellableGame + "game_paths = []\n[game.manual_routes]\ngame_idc = 1\n"),
            "file:7: key 'game[0].manual_routes': is a list: begin each of its entries with "
            "[[game.manual_routes]], with two brackets\n");
}

TEST(ClientWords, AControlCharacterInAPathIsExplained) {
  const auto told = [](const std::string& paths) {
    return Told(kTellableGame + "game_paths = [" + paths + "]\n");
  };
  const std::string key = "file:6: key 'game[0].game_paths[0]': holds ";
  const std::string advice = ": write a path in single quotes, like 'C:\\games\\game.exe'\n";
  EXPECT_EQ(told("\"C:\\temp.exe\""), key + "a TAB, which \\t is in double quotes" + advice);
  EXPECT_EQ(told("\"C:\\new.exe\""), key + "a line's end, which \\n is in double quotes" + advice);
  EXPECT_EQ(told("\"C:\\bin.exe\""), key + "a backspace, which \\b is in double quotes" + advice);
  EXPECT_EQ(told("\"C:\\u0001.exe\""), key + "a control character" + advice);
  EXPECT_EQ(told("'C:\\temp.exe'"), "");
  EXPECT_EQ(told("\"C:\\\\temp.exe\""), "");
}

TEST(ClientWords, TabsBetweenWordsAreAllowed) { EXPECT_EQ(Told("\tgame\t=\t[]\n"), ""); }

TEST(ClientWords, Utf16IsRecognised) {
  const std::string wide("[\0[\0g\0", 6);
  for (const std::string& text : {"\xff\xfe" + wide, std::string("\xfe\xff\0[\0[", 6), wide}) {
    EXPECT_EQ(Told(text).rfind("file: is UTF-16, and not UTF-8: save it as UTF-8", 0), 0u)
        << Told(text);
  }
  EXPECT_EQ(Told("\xef\xbb\xbfgame = []\n"), "") << "a mark of UTF-8 is no mistake";
}

const std::string kTellableNode =
    "proxy_name = 'one'\nproxy_addr = '1.2.3.4'\nproxy_port = 1\nproxy_idc = 1\n";
const std::string kTellableIdc =
    "[[idc]]\nname = 'east'\ngame_idc = 1001\naddresses = ['198.51.100.10']\n";
const std::string kTellableRoute = "[[route]]\ngame_idc = 'east'\nref_default = { node = 'one' }\n";

TEST(ClientWords, AMistypedKeyIsOneMistake) {
  const auto told = [](const std::string& what, const std::string& written) {
    std::string text = "game = []\n[[node]]\n" + kTellableNode + kTellableIdc + kTellableRoute;
    EXPECT_EQ(Told(text), "");
    return Told(text.replace(text.find(what), what.size(), written));
  };
  EXPECT_EQ(told("proxy_name", "proxy_nam"),
            "file:3: key 'node[0].proxy_nam': is unknown; did you mean 'proxy_name'?\n");
  EXPECT_EQ(told("proxy_addr", "proxy_adr"),
            "file:4: key 'node[0].proxy_adr': is unknown; did you mean 'proxy_addr'?\n");
  EXPECT_EQ(told("[[node]]", "[[nodes]]"),
            "file:2: key 'nodes': is unknown; did you mean 'node'?\n");
  EXPECT_EQ(told("[[idc]]", "[[idcs]]"), "file:7: key 'idcs': is unknown; did you mean 'idc'?\n");
  EXPECT_EQ(told("ref_default", "ref_defalt"),
            "file:13: key 'route[0].ref_defalt': is unknown; did you mean 'ref_default'?\n");
  EXPECT_EQ(told("{ node", "{ nod"),
            "file:13: key 'route[0].ref_default.nod': is unknown; did you mean 'node'?\n");
}

TEST(ClientWords, AMistypedTableStillShowsItsOwnMistakes) {
  EXPECT_EQ(Told("game = []\n[[nodes]]\nproxy_name = 'one'\nproxy_addr = '1.2.3'\nproxy_port = 1\n"
                 "proxy_idc = 1\n"),
            "file:2: key 'nodes': is unknown; did you mean 'node'?\n"
            "file:4: key 'node[0].proxy_addr': '1.2.3' is no dotted IPv4 address\n");
}

TEST(ClientWords, AnUnknownNameIsOneMistakeWithAllItsLines) {
  const std::string text = "game = []\n[[node]]\n" + kTellableNode + kTellableIdc +
                           "[[route]]\ngame_idc = 'east'\nref_default = { node = 'oen' }\n"
                           "top_refs = [{ node = 'oen' },\n{ node = 'two' },\n{ node = 'oen' }]\n";
  EXPECT_EQ(
      Told(text),
      "file:13: key 'route[0].ref_default.node': no [[node]] has the name 'oen'; did you mean "
      "'one'? (also in line 14, 16)\n"
      "file:15: key 'route[0].top_refs[1].node': no [[node]] has the name 'two'\n");
}

TEST(ClientFiles, TellWhyNothingIsRead) {
  const test::RealDir dir;
  EXPECT_EQ(client::ReadWhole(dir.File("none")).problem, "does not exist");
  EXPECT_EQ(client::ReadWhole(dir.File(".")).problem, "is a directory, not a file");
  std::ofstream(dir.File("file")) << "text";
  EXPECT_EQ(client::ReadWhole(dir.File("file")).text, "text");
  EXPECT_EQ(client::ReadWhole(dir.File("file")).problem, "");
}

TEST(ClientFiles, HaveNamesInUtf8AndAreReplacedAsAWhole) {
  const test::RealDir dir;
  const std::string name = dir.File("\xC3\xA4\xE4\xB8\xAD.toml");
  EXPECT_EQ(client::WriteWhole(name, "first"), "");
  EXPECT_EQ(client::WriteWhole(name, "second"), "");
  EXPECT_EQ(client::ReadWhole(name).text, "second");
  EXPECT_FALSE(std::filesystem::exists(client::PathOf(name + ".new")));
  EXPECT_EQ(client::WriteWhole(dir.File("."), ""), "is a directory, not a file");
  EXPECT_EQ(client::WriteWhole(dir.File("none/file"), ""), "cannot be written: no such folder");
}

}  // namespace
