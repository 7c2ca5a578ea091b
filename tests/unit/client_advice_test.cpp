// Advice about switching: each row breaks one thing in tables that cause no advice.
#include "client/check/switch_advice.h"

#include <gtest/gtest.h>

#include <cstring>

#include "client/check/config_file.h"
#include "client/explain/explain.h"
#include "client/sample/sample.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/decision.h"

namespace {

using client::AdviseOnSwitching;
using client::ParseConfig;
using client::SwitchAdvice;
using client::Tables;
using namespace moru_vyr::lsp;

std::unique_ptr<Tables> Sample() { return std::move(ParseConfig(client::WriteSample({})).tables); }

std::string Describe(const std::vector<SwitchAdvice>& advice) {
  std::string all;
  for (const SwitchAdvice& one : advice) all += ToText("file", one.problem) + "\n";
  return all;
}

TEST(ClientAdvice, TheSampleNeedsNoAdvice) {
  EXPECT_EQ(Describe(AdviseOnSwitching(*Sample())), "");
  EXPECT_EQ(client::AllProblems(ParseConfig(client::WriteSample({}))).size(), 0u);
}

struct Spoilt {
  const char* name;
  const char* key;
  const char* words;
  void (*spoil)(Tables* tables, AccConfigRecord* game);
};

void PrintTo(const Spoilt& spoilt, std::ostream* out) { *out << spoilt.name; }

RouteTableImage& Image(Tables* tables) { return tables->route.image; }

using Game = AccConfigRecord;
const Spoilt kSpoilt[] = {
    {"Closed", "game[0].switch_open", "no flow ever moves",
     [](Tables*, Game* game) { game->switch_open = 0; }},
    {"NotMeasured", "game[0].link_switch_mask", "no link is measured",
     [](Tables*, Game* game) { game->link_switch_mask = 0; }},
    {"NotListed", "game[0].list_text", "does not list game_id 10001",
     [](Tables*, Game* game) { common::SetFieldText(game->list_text, "1,100010,1000"); }},
    {"EmptyList", "game[0].list_text", "does not list game_id 10001",
     [](Tables*, Game* game) { common::SetFieldText(game->list_text, ""); }},
    {"VerifiesOnly", "game[0].game_link_switch_open", "the flow stays",
     [](Tables*, Game* game) { game->game_link_switch_open = 0; }},
    {"NoMoves", "game[0].max_link_switch_count", "no flow ever moves",
     [](Tables*, Game* game) { game->max_link_switch_count = 0; }},
    {"SecondMove", "game[0].max_link_switch_count", "though nothing is wrong with it",
     [](Tables*, Game* game) { game->max_link_switch_count = 2; }},
    {"NoReports", "game[0].max_link_except_rep_num", "links are never checked",
     [](Tables*, Game* game) { game->max_link_except_rep_num = 0; }},
    {"FewReports", "game[0].max_link_except_rep_num", "checking ends after 2 reports",
     [](Tables*, Game* game) {
       game->max_link_except_rep_num = 2;
       game->max_link_switch_count = 3;
     }},
    {"NoSlots", "game[0].lost_calc_unit_size", "nothing is measured",
     [](Tables*, Game* game) { game->lost_calc_unit_size = 10; }},
    {"ShortSlots", "game[0].lost_calc_unit_size", "an empty range counts as loss",
     [](Tables*, Game* game) { game->lost_calc_unit_size = 69; }},
    {"SlotsBelowTheBurst", "game[0].lost_calc_unit_size", "an empty range counts as loss",
     [](Tables*, Game* game) {
       game->lost_calc_unit_size = 100;
       game->long_cycle = 2;  // 200 ms, as long as a burst's interval
     }},
    {"TooManyCycles", "game[0].long_cycle", "more than the 60",
     [](Tables*, Game* game) { game->long_cycle = 61; }},
    {"AmplitudeOfOne", "game[0].max_delay_amp", "no swing of the delay is ever computed",
     [](Tables*, Game* game) { game->long_cycle = 1; }},
    {"QuietLooksDead", "game[0].short_cycle", "looks dead",
     [](Tables*, Game* game) { game->short_cycle = 1; }},
    {"DataNeverCounts", "game[0].data_link_short_cycle_pkg", "101 datagrams a second",
     [](Tables*, Game* game) { game->data_link_short_cycle_pkg = 202; }},
    {"LoneDatagram", "game[0].data_link_long_cycle_lost", "a single lost one",
     [](Tables*, Game* game) {
       game->data_link_long_cycle_lost = 2;
       game->data_link_long_cycle_pkg = 49;
     }},
    {"LoneDatagramWhereNothingIsSet", "game[0].data_link_long_cycle_lost", "2 %: one datagram",
     [](Tables*, Game* game) {
       game->data_link_long_cycle_lost = 0;
       game->data_link_long_cycle_pkg = 0;
     }},
    {"BurstOfNothing", "game[0].high_freq_test_interval", "bursts have no probe",
     [](Tables*, Game* game) { game->high_freq_test_interval = 1001; }},
    {"YoungFlow", "game[0].ignore_high_freq_test_time", "2 avoids it",
     [](Tables*, Game* game) { game->ignore_high_freq_test_time = 0; }},
    {"YoungFlowOfOneSecond", "game[0].ignore_high_freq_test_time", "closes after 1200 ms",
     [](Tables*, Game* game) { game->ignore_high_freq_test_time = 1; }},
    {"WatchForGood", "game[0].max_high_freq_test_count", "never ends",
     [](Tables*, Game* game) { game->max_high_freq_test_count = 0; }},
    {"TrialOfNothing", "game[0].switching_high_freq_test_interval", "never ends",
     [](Tables*, Game* game) { game->switching_high_freq_test_interval = 1001; }},
    {"TrialOfOne", "game[0].switching_high_freq_test_time", "no node passes",
     [](Tables*, Game* game) { game->switching_high_freq_test_time = 59; }},
    {"DefaultTrialLoss", "game[0].switching_max_real_route_lost", "at 1 % no node ever passes",
     [](Tables*, Game* game) { game->switching_max_real_route_lost = 0; }},
    {"FiveProbes", "game[0].switching_max_real_route_lost", "25 %; at 25 % no node ever passes",
     [](Tables*, Game* game) {
       game->switching_high_freq_test_interval = 10;
       game->switching_high_freq_test_time = 50;
       game->switching_max_real_route_lost = 25;
     }},
    {"NarrowTrial", "game[0].switching_max_real_route_lost", "however healthy",
     [](Tables*, Game* game) { game->switching_max_real_route_lost = 4; }},
    {"ShortTrialRange", "game[0].switching_max_real_route_lost", "of the 5 that count",
     [](Tables*, Game* game) {
       game->lost_calc_unit_size = 100;  // one slot holds five of the burst's probes
       game->long_cycle = 1;
       game->max_delay_amp = 0;
     }},
    {"FarCandidate", "game[0].switching_max_real_route_lost", "'node two' is 600 ms away",
     [](Tables* tables, Game*) { Image(tables).proxies[1].section1_delay = 600; }},
    {"FarNode", "game[0].max_delay_avg", "bad from the start",
     [](Tables* tables, Game*) { Image(tables).proxies[0].section1_delay = 100; }},
    {"BurstAddsUp", "game[0].max_delay_avg", "whatever starts a burst moves the flow",
     [](Tables* tables, Game*) { Image(tables).proxies[0].section1_delay = 70; }},
    {"LateAnswers", "game[0].recovery_window_word", "probes look lost",
     [](Tables* tables, Game* game) {
       Image(tables).proxies[0].section1_delay = 170;
       game->max_delay_avg = 1000;
       game->recovery_window_word = 0;
       game->lost_calc_unit_size = 100;
     }},
    {"MayNotBeMeasured", "node[0].flag", "are not measured",
     [](Tables* tables, Game*) { Image(tables).proxies[0].flag = 4; }},
    {"MayNotMove", "node[0].flag", "its flows never move",
     [](Tables* tables, Game*) { Image(tables).proxies[0].flag = 2; }},
    {"TrialIsNotMeasured", "node[1].flag", "blocks all later ones",
     [](Tables* tables, Game*) {
       Image(tables).proxies[1].flag = 0;
       // No flow begins with it.
       for (RouteEntry& route : Image(tables).route_sets[0].routes) {
         if (route.ref_default.proxy_idc == 2) route.ref_default.decision = DECISION_DIRECT;
       }
     }},
    {"TypeIsShut", "node[2].type", "link_switch_mask leaves out",
     [](Tables* tables, Game*) { Image(tables).proxies[2].type = 1; }},
    {"ServesNobody", "node[2].surport_isps", "each negotiation with it fails",
     [](Tables* tables, Game*) { Image(tables).proxies[2].surport_isps = 0; }},
    {"NoWayOut", "route", "no flow has anywhere to move",
     [](Tables* tables, Game*) {
       for (SwitchGroup& group : Image(tables).route_sets[0].routes[0].switch_groups) group = {};
     }},
    {"OnlyBackToItself", "route[0].switch_groups", "lead to no other node",
     [](Tables* tables, Game*) {
       SwitchGroup& group = Image(tables).route_sets[0].routes[0].switch_groups[0];
       group.candidates[0].proxy_idc = 1;
       group.candidates[1] = {};
     }},
    {"OtherLastNode", "route[0].switch_groups", "none is for last node 1",
     [](Tables* tables, Game*) {
       Image(tables).route_sets[0].routes[0].switch_groups[0].last_node = 9;
     }},
};

class ClientAdviceRow : public testing::TestWithParam<Spoilt> {};

TEST_P(ClientAdviceRow, IsGivenForItsOwnReason) {
  const Spoilt& row = GetParam();
  const auto tables = Sample();
  row.spoil(tables.get(), &tables->restriction.games[0]);
  const auto advice = AdviseOnSwitching(*tables);
  SCOPED_TRACE(Describe(advice));
  const bool found = std::any_of(advice.begin(), advice.end(), [&](const SwitchAdvice& one) {
    return one.game == 0 && one.problem.key == row.key &&
           one.problem.severity == client::Problem::Severity::kWarning &&
           one.problem.reason.find(row.words) != std::string::npos;
  });
  EXPECT_TRUE(found);
}

INSTANTIATE_TEST_SUITE_P(All, ClientAdviceRow, testing::ValuesIn(kSpoilt),
                         [](const auto& row) { return std::string(row.param.name); });

// One in 51 is less than two percent.
TEST(ClientAdvice, ALongRangeThatToleratesALostDatagramNeedsNoAdvice) {
  const auto tables = Sample();
  Game& game = tables->restriction.games[0];
  game.data_link_long_cycle_lost = 2;
  game.data_link_long_cycle_pkg = 50;
  EXPECT_EQ(Describe(AdviseOnSwitching(*tables)), "");
}

// To measure without moving, or to have no datagrams to move, is not a mistake.
TEST(ClientAdvice, IsNotGivenWithoutSwitching) {
  auto tables = Sample();
  Game& game = tables->restriction.games[0];
  game.switch_open = game.game_link_switch_open = 0;
  game.max_link_switch_count = 0;
  game.list_text[0] = '\0';
  EXPECT_EQ(Describe(AdviseOnSwitching(*tables)), "");

  for (void (*leave)(Game*) : {+[](Game* g) { g->net_mode = kNetModeTcp; },
                               +[](Game* g) { g->acc_mode = 0; }, +[](Game* g) { g->valid = 0; }}) {
    tables = Sample();
    tables->restriction.games[0].list_text[0] = '\0';
    leave(&tables->restriction.games[0]);
    EXPECT_EQ(Describe(AdviseOnSwitching(*tables)), "");
  }
}

// Values that nobody would write, but that a region may hold.
TEST(ClientAdvice, BearsAnyNumbers) {
  const auto tables = Sample();
  std::memset(static_cast<void*>(&tables->restriction.games), 0xff,
              sizeof tables->restriction.games);
  for (Game& game : tables->restriction.games) game.acc_mode = 2;
  std::memset(static_cast<void*>(&tables->route.image), 0xff, sizeof tables->route.image);
  EXPECT_FALSE(AdviseOnSwitching(*tables).empty());
  for (Game& game : tables->restriction.games) game.acc_mode = 1;
  EXPECT_FALSE(AdviseOnSwitching(*tables).empty());
}

// Ten games through one bad node: it is reported once.
TEST(ClientAdvice, AboutANodeIsGivenOnce) {
  client::ConfigFile file = ParseConfig(client::WriteSample({}));
  auto& games = file.tables->restriction.games;
  games[1] = games[0];
  file.tables->route.image.proxies[0].flag = 0;
  file.advice = AdviseOnSwitching(*file.tables);
  EXPECT_EQ(file.advice.size(), 2u);
  EXPECT_EQ(client::AllProblems(file).size(), 1u);
}

TEST(ClientAdvice, HasTheLineOfItsKeyOrOfTheTableAroundIt) {
  std::string text = client::WriteSample({});
  const std::string key = "\nmax_link_switch_count = 1\n";
  const size_t at = text.find(key);
  ASSERT_NE(at, std::string::npos);
  const auto line = static_cast<unsigned>(std::count(text.begin(), text.begin() + at, '\n') + 2);
  std::string spoilt = text;
  spoilt.replace(at, key.size(), "\nmax_link_switch_count = 2\n");
  client::ConfigFile file = ParseConfig(spoilt);
  ASSERT_EQ(file.advice.size(), 1u) << Describe(file.advice);
  EXPECT_EQ(file.advice[0].problem.line, line);

  spoilt = text;
  spoilt.replace(at, key.size(), "\n\n");
  file = ParseConfig(spoilt);
  ASSERT_EQ(file.advice.size(), 1u) << Describe(file.advice);
  const size_t table = text.find("\n[[game]]\n");
  EXPECT_EQ(file.advice[0].problem.line,
            static_cast<unsigned>(std::count(text.begin(), text.begin() + table, '\n') + 2));
}

class ClientExplainAdvice : public testing::Test {
 protected:
  ~ClientExplainAdvice() override { ReplaceAccConfig(AccConfig{}); }

  static client::Explanation Ask(const char* destination, const char* protocol) {
    const auto tables = Sample();
    tables->restriction.games[0].max_link_switch_count = 2;
    const auto question = client::ParseQuestion(destination, protocol);
    auto answer = client::Explain(*tables, *question, AdviseOnSwitching(*tables));
    answer.source = "games.toml";
    return answer;
  }
};

TEST_F(ClientExplainAdvice, IsInTheAnswerForAFlowThatCouldMove) {
  const auto answer = Ask("198.51.100.10:80", "udp");
  ASSERT_EQ(answer.warnings.size(), 1u);
  EXPECT_NE(ExplanationText(answer).find(
                "    games.toml: warning: key 'game[0].max_link_switch_count': 2: after a move"),
            std::string::npos)
      << ExplanationText(answer);
  EXPECT_NE(
      ExplanationJson(answer).find(
          R"("warnings":[{"file":"games.toml","line":0,"key":"game[0].max_link_switch_count")"),
      std::string::npos)
      << ExplanationJson(answer);
}

TEST_F(ClientExplainAdvice, IsOmittedIfNoFlowCouldMove) {
  EXPECT_TRUE(Ask("198.51.100.10:80", "tcp").warnings.empty());  // streams stay
  EXPECT_TRUE(Ask("198.51.100.12:80", "udp").warnings.empty());  // goes direct
}

}  // namespace
