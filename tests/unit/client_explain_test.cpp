// "Why is this not accelerated?", answered from tables.
#include "client/explain/explain.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "client/check/config_file.h"
#include "client/explain/reason_words.h"
#include "client/sample/sample.h"
#include "common/shared_mem_obj.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "tests/support/source_dir.h"

namespace {

using client::Explain;
using client::Explanation;
using client::ParseConfig;
using client::ParseQuestion;
using client::Question;
using namespace moru_vyr::lsp;

class ClientExplain : public testing::Test {
 protected:
  ~ClientExplain() override { ReplaceAccConfig(AccConfig{}); }

  static Explanation Ask(const client::Tables& tables, const std::string& destination,
                         const std::string& protocol) {
    const auto question = ParseQuestion(destination, protocol);
    EXPECT_TRUE(question.has_value()) << destination;
    return Explain(tables, question.value_or(Question{}), client::AdviseOnSwitching(tables));
  }

  static std::unique_ptr<client::Tables> Sample() {
    return std::move(ParseConfig(client::WriteSample({})).tables);
  }
};

TEST_F(ClientExplain, NamesTheGameThatWasAskedFor) {
  auto question = *ParseQuestion("198.51.100.10:8080", "tcp");
  const std::pair<const char*, const char*> asked[] = {
      {"", "C:\\vyr\\ffmpeg.exe"},
      {"10001", "C:\\vyr\\ffmpeg.exe"},
      {"ESBUILD.exe", "C:\\vyr\\esbuild.exe"},
      {"c:\\vyr\\esbuild.exe", "C:\\vyr\\esbuild.exe"},
  };
  for (const auto& [game, path] : asked) {
    question.game = game;
    EXPECT_EQ(Explain(*Sample(), question, {}).game_path, path) << game;
  }
  question.game = "other.exe";
  EXPECT_EQ(Explain(*Sample(), question, {}).problem, "no listed game is 'other.exe'");
}

TEST_F(ClientExplain, TakesAProtocolInLettersOfAnyCase) {
  EXPECT_FALSE(ParseQuestion("198.51.100.10:8080", "TCP").value().udp);
  EXPECT_TRUE(ParseQuestion("198.51.100.10:8080", "Udp").value().udp);
  EXPECT_FALSE(ParseQuestion("198.51.100.10:8080", "icmp").has_value());
}

struct Ending {
  const char* destination;
  const char* protocol;
  bool accelerated;
  int acc_reason;  // -2: none
  size_t steps;
};

TEST_F(ClientExplain, EachDestinationOfTheSampleEndsForItsOwnReason) {
  constexpr int kNone = -2;
  const Ending endings[] = {
      {"198.51.100.10:8080", "tcp", true, kReasonAcce, 10},
      {"198.51.100.19:8080", "udp", true, kReasonAcce, 10},  // by the spur list
      {"203.0.113.9:7777", "udp", true, kReasonAcce, 10},    // by its port
      {"198.51.100.16:8080", "tcp", true, kReasonForceAuto, 10},
      {"192.168.0.7:80", "tcp", false, kReasonInnerIp, 2},
      {"203.0.113.9:9999", "udp", false, kReasonNotInIpTable, 5},
      {"198.51.100.10:25", "tcp", false, kReasonExcludedPort, 4},
      {"198.51.100.10:25", "udp", true, kReasonAcce, 10},  // datagram ports never are
      {"198.51.100.11:443", "tcp", false, kNone, 6},
      {"198.51.100.11:443", "udp", true, kReasonAcce, 10},
      {"198.51.100.15:8080", "tcp", false, kReasonNoRoute, 9},
      {"198.51.100.20:7777", "udp", false, kReasonIsProxy, 8},
      {"198.51.100.12:8080", "tcp", false, kReasonDirect, 10},
      {"198.51.100.13:8080", "tcp", false, kReasonSameIsp, 10},
      {"198.51.100.14:8080", "tcp", false, kReasonOverMaxDelay, 10},
      {"198.51.100.17:8080", "tcp", false, kReasonNotAcce, 10},
  };
  const auto tables = Sample();
  for (const Ending& ending : endings) {
    const Explanation answer = Ask(*tables, ending.destination, ending.protocol);
    SCOPED_TRACE(ExplanationText(answer));
    EXPECT_EQ(answer.accelerated, ending.accelerated);
    EXPECT_EQ(answer.acc_reason.value_or(kNone), ending.acc_reason);
    ASSERT_EQ(answer.steps.size(), ending.steps);
    for (size_t i = 0; i + 1 < answer.steps.size(); ++i) EXPECT_TRUE(answer.steps[i].passed);
    EXPECT_EQ(answer.steps.back().passed, ending.accelerated);
  }
}

// Blocks of the document that begin with the command hold what it prints, to the letter. Set
// VYR_UPDATE_DOCS to write them again.
TEST_F(ClientExplain, TheDocumentShowsWhatTheProgramSays) {
  const std::string path = test::SourceFile("docs/tables.md");
  std::ifstream file(path, std::ios::binary);
  ASSERT_TRUE(file) << path;
  const std::string document(std::istreambuf_iterator<char>(file), {});
  const std::string opening = "```\n$ vyr_client explain ";
  const auto tables = Sample();
  std::string updated;
  std::set<std::string> conclusions;
  size_t at = 0;
  for (size_t found = document.find(opening); found != std::string::npos;
       found = document.find(opening, at)) {
    const size_t arguments = found + opening.size();
    const size_t body = document.find('\n', arguments) + 1;
    const size_t end = document.find("```", body);
    ASSERT_NE(end, std::string::npos);
    std::istringstream words(document.substr(arguments, body - arguments));
    std::string destination, protocol, option;
    words >> destination >> protocol >> option;
    auto question = ParseQuestion(destination, protocol);
    ASSERT_TRUE(question) << destination;
    uint32_t level = 0;
    if (option == "--level" && words >> level) question->vip_level = level;
    const Explanation answer = Explain(*tables, *question, client::AdviseOnSwitching(*tables));
    conclusions.insert(answer.conclusion);
    updated += document.substr(at, body - at) + ExplanationText(answer);
    at = end;
  }
  updated += document.substr(at);
  EXPECT_GE(conclusions.size(), 10u) << "fewer reasons than promised";
  if (std::getenv("VYR_UPDATE_DOCS") != nullptr) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << updated;
  } else {
    EXPECT_EQ(document, updated);
  }
}

TEST_F(ClientExplain, SaysWhatIsMendedForTheGameThatAsks) {
  const auto tables = Sample();
  tables->mending.games[0].mended = kMendHalfClose | kMendReset;
  const Explanation answer = Ask(*tables, "198.51.100.10:8080", "tcp");
  EXPECT_NE(ExplanationText(answer).find(", mended: half-close, reset\n"), std::string::npos);
  EXPECT_NE(ExplanationJson(answer).find(R"("mended":["half-close","reset"])"), std::string::npos);
  tables->mending.games[0].mended = 0;
  EXPECT_NE(ExplanationText(Ask(*tables, "198.51.100.10:8080", "tcp")).find("mended: nothing\n"),
            std::string::npos);
}

TEST_F(ClientExplain, TheLevelMayBeAskedFor) {
  const auto tables = Sample();
  auto question = *ParseQuestion("198.51.100.18:8080", "tcp");
  EXPECT_FALSE(Explain(*tables, question, {}).accelerated);
  question.vip_level = 3;
  EXPECT_TRUE(Explain(*tables, question, {}).accelerated);
}

TEST_F(ClientExplain, TheGameMayBeNamed) {
  const auto tables = Sample();
  auto& games = tables->restriction.games;
  games[1] = games[0];
  games[1].game_id = 7;
  games[1].net_mode = kNetModeUdp;
  std::strncpy(games[1].game_paths[0], "C:\\other\\Other.exe", 259);
  auto question = *ParseQuestion("198.51.100.10:8080", "tcp");
  for (const char* name : {"7", "other.exe", "c:\\other\\OTHER.EXE"}) {
    question.game = name;
    const Explanation answer = Explain(*tables, question, {});
    EXPECT_EQ(answer.game_id, 7u) << name;
    EXPECT_FALSE(answer.accelerated);
    EXPECT_EQ(answer.steps.size(), 1u);
  }
  question.game = "another.exe";
  EXPECT_EQ(Explain(*tables, question, {}).problem, "no listed game is 'another.exe'");
}

TEST_F(ClientExplain, WithoutTablesTheMissingOneIsNamed) {
  auto tables = Sample();
  tables->route.image = {};
  EXPECT_EQ(Ask(*tables, "198.51.100.10:80", "tcp").acc_reason, kReasonNoRouteTable);
  tables = Sample();
  tables->iptable.ip_count = 0;
  EXPECT_EQ(Ask(*tables, "198.51.100.10:80", "tcp").acc_reason, kReasonNoIpTable);
  tables = Sample();
  tables->restriction.games[0].valid = 0;
  EXPECT_EQ(Ask(*tables, "198.51.100.10:80", "tcp").problem, "no game is listed");
}

TEST_F(ClientExplain, WhatChangesTheRoutesOwnVerdictIsSaid) {
  auto tables = Sample();
  AccConfigRecord& game = tables->restriction.games[0];
  game.acc_mode = 0;
  Explanation answer = Ask(*tables, "198.51.100.10:80", "tcp");
  EXPECT_EQ(answer.acc_reason, kReasonNotAcce);
  EXPECT_NE(answer.steps.back().finding.find("acc_mode is 0"), std::string::npos);

  game.acc_mode = 2;
  game.manual_mode = 1;
  answer = Ask(*tables, "198.51.100.10:80", "tcp");  // the sample's reachability has 1001
  EXPECT_EQ(answer.acc_reason, kReasonForceManual);
  EXPECT_NE(answer.steps.back().finding.find("the user chose"), std::string::npos);

  game.acc_mode = 1;
  game.game_launch_test_use = 1;
  answer = Ask(*tables, "198.51.100.10:80", "tcp");
  EXPECT_EQ(answer.node->name, "node two");
  EXPECT_NE(answer.steps.back().finding.find("launch test"), std::string::npos);

  game.net_mode |= kNetModeRefuseWithoutAccMode;
  game.acc_mode = 0;
  answer = Ask(*tables, "198.51.100.10:80", "tcp");
  EXPECT_FALSE(answer.steps.back().passed);
  EXPECT_EQ(answer.steps.size(), 1u);

  game.acc_mode = 1;
  answer = Ask(*tables, "198.51.100.10:80", "tcp");
  EXPECT_TRUE(answer.accelerated);
  EXPECT_EQ(answer.steps.size(), 11u);
}

TEST_F(ClientExplain, OnlyDatagramFlowsHaveCandidates) {
  const auto tables = Sample();
  const Explanation udp = Ask(*tables, "198.51.100.10:80", "udp");
  ASSERT_EQ(udp.candidates.size(), 2u);
  EXPECT_FALSE(udp.candidates[0].would_be_taken);
  EXPECT_TRUE(udp.candidates[1].would_be_taken);  // the later of two that will do
  EXPECT_TRUE(Ask(*tables, "198.51.100.10:80", "tcp").candidates.empty());
}

// A client may be serving while a file is asked about: neither must see the other.
TEST_F(ClientExplain, MakesNoRegion) {
  const auto tables = Sample();
  Ask(*tables, "198.51.100.10:80", "udp");
  for (const client::RegionRow& row : client::Regions()) {
    EXPECT_FALSE(common::Shared_mem_obj::Exists(row.name)) << row.name;
  }
}

TEST_F(ClientExplain, JsonHasTheSteps) {
  const std::string json = ExplanationJson(Ask(*Sample(), "198.51.100.11:443", "tcp"));
  EXPECT_NE(json.find("\"accelerated\":false"), std::string::npos);
  EXPECT_NE(json.find("{\"passed\":false,\"finding\":\"it is on the blacklist: record 1, TCP, "
                      "198.51.100.11, port 443, every game\"}"),
            std::string::npos)
      << json;
  EXPECT_EQ(json.find('\n'), json.size() - 1);
}

TEST_F(ClientExplain, DestinationsAreAddressAndPort) {
  for (const char* wrong :
       {"", "1.2.3.4", "1.2.3.4:", "1.2.3:80", "1.2.3.4:65536", ":80", "host:80", "1.2.3.4:80x"}) {
    EXPECT_FALSE(ParseQuestion(wrong, "tcp").has_value()) << wrong;
  }
  EXPECT_FALSE(ParseQuestion("1.2.3.4:80", "icmp").has_value());
  const auto question = ParseQuestion("1.2.3.4:65535", "udp");
  ASSERT_TRUE(question);
  EXPECT_EQ(question->ip, 0x04030201u);
  EXPECT_EQ(question->port, 65535u);
  EXPECT_TRUE(question->udp);
}

TEST(ClientReasons, EveryDecisionHasWords) {
  for (uint32_t decision = 0; decision <= 9; ++decision) {
    common::i32 reason = 0;
    DecisionName(decision, &reason);
    EXPECT_STRNE(client::ReasonWords(reason), "no such reason") << decision;
  }
}

}  // namespace
