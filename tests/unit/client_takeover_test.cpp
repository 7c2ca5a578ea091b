// How an edit of the file that is being served takes effect.
#include "client/serve/takeover.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "client/check/config_file.h"
#include "client/dump/region_reader.h"
#include "client/serve/file_watcher.h"
#include "client/serve/only_server.h"
#include "route/acc_config.h"
#include "route/route.h"
#include "tests/unit/real_dir.h"

namespace {

using client::ReadRegions;
using client::Takeover;
using client::TakeoverReport;
using namespace moru_vyr::lsp;

constexpr unsigned kTakeoverWaitMs = 1000;

const std::string kText =
    "[[game]]\ngame_id = 1\ngame_paths = []\nnet_mode = ['TCP']\nlog_level = 6\n"
    "log_path = 'C:\\a\\'\nacc_mode = 1\ngame_launch_test_use = 1\n";

std::string Nodes(const std::string& first) {
  return "[[node]]\nproxy_name = 'one'\nproxy_addr = '" + first +
         "'\nproxy_port = 1\nproxy_idc = 1\n"
         "[[idc]]\ngame_idc = 1001\naddresses = ['198.51.100.10']\n"
         "[[route]]\ngame_idc = 1001\nref_default = { node = 'one' }\n"
         "top_refs = [{ node = 'one' }]\n";
}

std::string Spur(const std::string& address) {
  return "[[spur]]\ngame_idc = 1001\naddresses = ['" + address + "']\n";
}

std::string Changes(const TakeoverReport& report) {
  std::string all;
  for (const client::Change& change : report.changes) {
    all += std::string(client::Regions()[change.region].label) + ": " + change.summary + "\n";
  }
  return all;
}

TEST(ClientTakeover, TheFirstTextCreatesTheRegionsThatItFills) {
  Takeover takeover({});
  const TakeoverReport report = takeover.Apply(kText + Nodes("1.2.3.4"), kTakeoverWaitMs);
  EXPECT_EQ(report.failure, "");
  EXPECT_EQ(Changes(report),
            "games: 1 game\nroute table: 1 node, 1 route and 0 for acc_mode 2\n"
            "IP table: 1 address\n");
  EXPECT_TRUE(common::Shared_mem_obj::Exists(kRouteRegionName));
  EXPECT_FALSE(common::Shared_mem_obj::Exists(kSpurRegionName));
}

// An existing route region keeps the library from the route file, so none may be made.
TEST(ClientTakeover, AFileWithoutRoutesMakesNoRouteRegion) {
  Takeover takeover({});
  EXPECT_EQ(Changes(takeover.Apply(kText, kTakeoverWaitMs)), "games: 1 game\n");
  EXPECT_FALSE(common::Shared_mem_obj::Exists(kRouteRegionName));
}

TEST(ClientTakeover, OnlyChangesAreWritten) {
  Takeover takeover({});
  takeover.Apply(kText + Nodes("1.2.3.4"), kTakeoverWaitMs);
  EXPECT_EQ(Changes(takeover.Apply("# a comment\n" + kText + Nodes("1.2.3.4"), kTakeoverWaitMs)),
            "");
  EXPECT_EQ(Changes(takeover.Apply(kText + Nodes("1.2.3.5"), kTakeoverWaitMs)),
            "route table: 1 node, 1 route and 0 for acc_mode 2\n");
  EXPECT_EQ(Changes(takeover.Apply(kText + Nodes("1.2.3.5") + Spur("9.9.9.9"), kTakeoverWaitMs)),
            "spur list: 1 address\n");
  EXPECT_EQ(Changes(takeover.Apply(kText, kTakeoverWaitMs)),
            "route table: 0 nodes, 0 routes and 0 for acc_mode 2\nIP table: 0 addresses\n"
            "spur list: 0 addresses\n");
  EXPECT_EQ(ReadRegions(kTakeoverWaitMs).tables->spur.spur_count, 0u);
}

TEST(ClientTakeover, AListThatShrinksToNothingSaysWhatItHeld) {
  Takeover takeover({});
  const auto lost = [](const TakeoverReport& report) {
    std::string all;
    for (const client::Change& change : report.changes) all += change.lost + ";";
    return all;
  };
  const std::string full = kText + Nodes("1.2.3.4") + Spur("9.9.9.9");
  EXPECT_EQ(lost(takeover.Apply(full, kTakeoverWaitMs)), ";;;;") << "there was nothing to lose";
  EXPECT_EQ(lost(takeover.Apply(kText + Nodes("1.2.3.5") + Spur("9.9.9.9"), kTakeoverWaitMs)), ";");
  EXPECT_EQ(lost(takeover.Apply(kText, kTakeoverWaitMs)),
            "1 node, 1 route and 0 for acc_mode 2;1 address;1 address;");
  EXPECT_EQ(lost(takeover.Apply("game = []\n", kTakeoverWaitMs)), "1 game;");
}

TEST(ClientTakeover, GamesThatAreMendedAreCounted) {
  Takeover takeover({});
  EXPECT_EQ(Changes(takeover.Apply(kText + "mend = 'all'\n", kTakeoverWaitMs)),
            "mending: 1 game\ngames: 1 game\n");
}

TEST(ClientOnlyServer, ASecondOneIsToldOfTheFirst) {
  {
    const client::OnlyServer first("games.toml");
    EXPECT_EQ(first.other(), "");
    const client::OnlyServer second("other.toml");
    EXPECT_EQ(second.other().rfind("another vyr_client serves already: process " +
                                       std::to_string(GetCurrentProcessId()) + ", with ",
                                   0),
              0u)
        << second.other();
    EXPECT_NE(second.other().find("games.toml"), std::string::npos);
  }
  EXPECT_EQ(client::OnlyServer("other.toml").other(), "") << "the first has ended";
}

TEST(ClientTakeover, ABrokenTextLeavesEverythingInForce) {
  Takeover takeover({});
  takeover.Apply(kText + Nodes("1.2.3.4"), kTakeoverWaitMs);
  const auto before = ReadRegions(kTakeoverWaitMs);
  for (const std::string& broken : {kText + Nodes("1.2.3.400"), kText + "nonsense = 1\n",
                                    std::string("[[game]"), std::string("game = 5")}) {
    const TakeoverReport report = takeover.Apply(broken, kTakeoverWaitMs);
    EXPECT_TRUE(HasErrors(report.problems));
    EXPECT_NE(report.problems[0].line, 0u);
    EXPECT_EQ(Changes(report), "");
  }
  const auto after = ReadRegions(kTakeoverWaitMs);
  EXPECT_EQ(std::memcmp(before.tables.get(), after.tables.get(), sizeof(client::Tables)), 0);
  // And a valid one is taken over as if nothing had happened.
  EXPECT_NE(Changes(takeover.Apply(kText + Nodes("1.2.3.5"), kTakeoverWaitMs)), "");
}

uint32_t Selector() {
  const HANDLE mapping = OpenFileMappingA(FILE_MAP_READ, FALSE, kRouteRegionName);
  const void* const view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 131364);
  uint32_t selector = 0;
  std::memcpy(&selector, view, sizeof selector);
  UnmapViewOfFile(view);
  CloseHandle(mapping);
  return selector;
}

// A reader of the old buffer is never disturbed: each edit goes into the other one.
TEST(ClientTakeover, EachNewRouteTableGoesIntoTheOtherBuffer) {
  Takeover takeover({});
  takeover.Apply(kText + Nodes("1.2.3.4"), kTakeoverWaitMs);
  const uint32_t first = Selector();
  takeover.Apply(kText + Nodes("1.2.3.5"), kTakeoverWaitMs);
  EXPECT_EQ(Selector(), 1 - first);
  takeover.Apply(kText + Nodes("1.2.3.6"), kTakeoverWaitMs);
  EXPECT_EQ(Selector(), first);
}

class ClientTakeoverGame : public testing::Test {
 protected:
  ~ClientTakeoverGame() override { ReplaceAccConfig(AccConfig{}); }

  void Start(const Takeover&) {
    AccConfig config;
    static_cast<AccConfigRecord&>(config) =
        ReadRegions(kTakeoverWaitMs).tables->restriction.games[0];
    ReplaceAccConfig(config);
    route_.Load(1, 0);
  }

  std::string Node() {
    RouteProxyInfo proxy;
    return route_.GetProxyInfoFromIdc(1001, &proxy, nullptr, nullptr) ? proxy.proxy_addr : "";
  }

  Route route_;
};

TEST_F(ClientTakeoverGame, ARunningGameSeesANewRouteTableAtItsNextLookup) {
  Takeover takeover({});
  takeover.Apply(kText + Nodes("1.2.3.4"), kTakeoverWaitMs);
  Start(takeover);
  EXPECT_EQ(Node(), "1.2.3.4");
  takeover.Apply(kText + Nodes("1.2.3.5"), kTakeoverWaitMs);
  EXPECT_EQ(Node(), "1.2.3.5");
}

TEST_F(ClientTakeoverGame, ARunningGameSeesANewLaunchTestAtItsNextDecision) {
  const auto measured = [](const std::string& address) {
    return "[[launch_test]]\ngame_idc = 1001\n"
           "proxy = { proxy_addr = '" +
           address + "', proxy_port = 1, proxy_idc = 1 }\n";
  };
  Takeover takeover({});
  takeover.Apply(kText + Nodes("1.2.3.4") + measured("5.5.5.5"), kTakeoverWaitMs);
  Start(takeover);
  EXPECT_EQ(Node(), "5.5.5.5");
  takeover.Apply(kText + Nodes("1.2.3.4") + measured("6.6.6.6"), kTakeoverWaitMs);
  EXPECT_EQ(Node(), "6.6.6.6");
}

TEST_F(ClientTakeoverGame, ARunningGameIsNotifiedOfANewSpurListAndReadsIt) {
  Takeover takeover({GetCurrentProcessId()});
  takeover.Apply(kText + Nodes("1.2.3.4") + Spur("9.9.9.9"), kTakeoverWaitMs);
  Start(takeover);
  const uint32_t added = static_cast<uint32_t>(inet_addr("9.9.9.8"));
  uint32_t idc = 0;
  EXPECT_FALSE(route_.GetGameIDC(added, 0, &idc, false));
  const TakeoverReport report =
      takeover.Apply(kText + Nodes("1.2.3.4") + Spur("9.9.9.8"), kTakeoverWaitMs);
  ASSERT_EQ(report.changes.size(), 1u);
  EXPECT_EQ(report.changes[0].notified, 1u);
  EXPECT_FALSE(route_.GetGameIDC(added, 0, &idc, false));
  route_.OnUpdate(30000);  // the first beat: the event is made only now on the game's side
  EXPECT_TRUE(route_.GetGameIDC(added, 0, &idc, false));
  EXPECT_EQ(idc, 1001u);
}

void Write(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

TEST(ClientFileWatcher, NewContentCountsWhenItHasSettled) {
  const test::RealDir dir;
  const std::string path = dir.File("games.toml");
  Write(path, "first");
  client::FileWatcher watcher(path, "first");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  Write(path, "second, and longer");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  EXPECT_EQ(watcher.Poll(), "second, and longer");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
}

TEST(ClientFileWatcher, HalfWrittenAndMissingFilesAreIgnored) {
  const test::RealDir dir;
  const std::string path = dir.File("games.toml");
  Write(path, "first");
  client::FileWatcher watcher(path, "first");
  Write(path, "");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  Write(path, "sec");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  Write(path, "second");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  std::remove(path.c_str());
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  Write(path, "second");
  EXPECT_EQ(watcher.Poll(), "second");
}

std::string TroubleAfterLooks(client::FileWatcher* watcher, int looks) {
  for (int i = 0; i < looks; ++i) EXPECT_EQ(watcher->Poll(), std::nullopt);
  return watcher->trouble();
}

TEST(ClientFileWatcher, AFileThatStaysAwayOrEmptyIsTold) {
  const test::RealDir dir;
  const std::string path = dir.File("games.toml");
  Write(path, "first");
  client::FileWatcher watcher(path, "first");
  EXPECT_EQ(TroubleAfterLooks(&watcher, 10), "");
  std::remove(path.c_str());
  EXPECT_EQ(TroubleAfterLooks(&watcher, 2), "") << "an editor may be writing";
  EXPECT_EQ(TroubleAfterLooks(&watcher, 10), "has vanished");
  Write(path, "first");
  EXPECT_EQ(TroubleAfterLooks(&watcher, 2), "") << "the same file is back";
  for (const char* nothing : {"", " \n\t\n"}) {
    Write(path, nothing);
    EXPECT_EQ(TroubleAfterLooks(&watcher, 30), "is empty") << "and stays told";
  }
  std::remove(path.c_str());
  std::filesystem::create_directory(path);
  EXPECT_EQ(TroubleAfterLooks(&watcher, 10), "is a directory, not a file");
  std::filesystem::remove(path);
  Write(path, "second");
  EXPECT_EQ(TroubleAfterLooks(&watcher, 1), "");
  EXPECT_EQ(watcher.Poll(), "second");
}

TEST(ClientFileWatcher, AnEditOfTheSameLengthIsSeen) {
  const test::RealDir dir;
  const std::string path = dir.File("games.toml");
  Write(path, "one");
  client::FileWatcher watcher(path, "one");
  watcher.Poll();
  Write(path, "two");
  watcher.Poll();
  EXPECT_EQ(watcher.Poll(), "two");
}

TEST(ClientFileWatcher, RestoringTheOldContentIsNoChange) {
  const test::RealDir dir;
  const std::string path = dir.File("games.toml");
  Write(path, "one");
  client::FileWatcher watcher(path, "one");
  Write(path, "three");
  watcher.Poll();
  Write(path, "one");
  EXPECT_EQ(watcher.Poll(), std::nullopt);
  EXPECT_EQ(watcher.Poll(), std::nullopt);
}

}  // namespace
