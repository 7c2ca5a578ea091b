// What the tables in force say of reports that have just been taken.
#include "client/watch/tables_in_force.h"

#include <gtest/gtest.h>

#include "client/fields/tables.h"
#include "tests/support/route_fixture.h"
#include "tests/unit/client_reports.h"

namespace {

using client::DirectWayTo;
using client::TablesInForce;
using namespace moru_vyr::lsp;

constexpr unsigned kNoteMs = 1000;

LspLoadedRecord Loaded(const char* name, uint64_t game_id) {
  LspLoadedRecord record;
  common::SetFieldText(record.process_name, name);
  record.game_id = game_id;
  return record;
}

TEST(ClientTablesInForce, SayWhatIsMendedByNumberAndProgram) {
  test::ClientRegion<RestrictionRegion> games(kRestrictionRegionName);
  test::ClientRegion<MendingRegion> mending(kMendingRegionName);
  games->games[1].valid = games->games[2].valid = 1;
  games->games[1].game_id = games->games[2].game_id = 7;
  games->games[1].path_count = games->games[2].path_count = 1;
  common::SetFieldText(games->games[1].game_paths[0], "C:\\a\\one.exe");
  common::SetFieldText(games->games[2].game_paths[0], "C:\\a\\Two.exe");
  mending->games[2].mended = kMendReset;
  std::vector<client::Report> reports;
  for (const char* const name : {"one.exe", "two.exe", "three.exe"})
    reports.push_back(test::ReportOf(client::kLoadedReport, Loaded(name, 7)));
  reports.push_back(test::ReportOf(client::kLoadedReport, Loaded("two.exe", 8)));
  reports.push_back(test::ReportOf(client::kNegotiationResultReport, NegRetRecord{}));
  TablesInForce().Note(&reports, kNoteMs);
  EXPECT_EQ(reports[0].mended, 0u);
  EXPECT_EQ(reports[1].mended, kMendReset);
  for (size_t i = 2; i < reports.size(); ++i) EXPECT_FALSE(reports[i].mended) << i;
}

void AddRoute(RouteSet* set, uint32_t game_idc, uint32_t delay, uint32_t lost) {
  RouteEntry& entry = set->routes[set->route_count];
  entry.game_idc = game_idc;
  entry.direct_delay = delay;
  entry.direct_lost = lost;
  set->route_count = set->route_count + 1;
}

TEST(ClientTablesInForce, GiveTheDirectWayOfTheRouteThatTheLibraryWouldFind) {
  const auto tables = client::NewTables();
  AccConfigRecord& game = tables->restriction.games[3];
  game.valid = 1;
  game.game_id = 7;
  game.acc_mode = 1;
  AddRoute(&tables->route.image.route_sets[0], 1001, 60, 2);
  AddRoute(&tables->route.image.route_sets[0], 1001, 70, 3);  // the first entry counts
  AddRoute(&tables->route.image.route_sets[0], 1002, 0, 0);   // leaves it open
  AddRoute(&tables->route.image.route_sets[1], 1001, 45, 0);
  ASSERT_TRUE(DirectWayTo(*tables, 7, 1001));
  EXPECT_EQ(DirectWayTo(*tables, 7, 1001)->delay, 60u);
  EXPECT_EQ(DirectWayTo(*tables, 7, 1001)->lost, 2u);
  EXPECT_FALSE(DirectWayTo(*tables, 7, 1002));
  EXPECT_FALSE(DirectWayTo(*tables, 7, 1003)) << "no route";
  EXPECT_FALSE(DirectWayTo(*tables, 8, 1001)) << "no game";
  EXPECT_FALSE(DirectWayTo(*tables, 7, 0)) << "no data centre";
  game.acc_mode = 2;
  EXPECT_EQ(DirectWayTo(*tables, 7, 1001)->delay, 45u);
  // Counts cannot be trusted.
  tables->route.image.route_sets[1].route_count = 0xffffffff;
  EXPECT_FALSE(DirectWayTo(*tables, 7, 1003));
}

client::Report TrafficTo(uint32_t game_idc) {
  CommInfoRecord record = test::Traffic("g", 5000);
  record.game_id = 7;
  record.game_idc = game_idc;
  return test::ReportOf(client::kCommunicationReport, record);
}

TEST(ClientTablesInForce, AreNotedWithFiguresAndDecisionsAsTheyChange) {
  test::ClientRegion<RestrictionRegion> games(kRestrictionRegionName);
  games->games[0].valid = games->games[0].acc_mode = 1;
  games->games[0].game_id = 7;
  test::RouteClient routes;
  auto image = std::make_unique<RouteTableImage>();
  AddRoute(&image->route_sets[0], 1001, 60, 2);
  routes.Publish(*image);
  TablesInForce tables;
  AccDecisionInfo decision = test::Decision("g", 0);
  decision.game_id = 7;
  std::vector<client::Report> reports = {test::ReportOf(client::kDecisionReport, decision),
                                         TrafficTo(1001), TrafficTo(1003)};
  tables.Note(&reports, kNoteMs);
  ASSERT_TRUE(reports[0].direct && reports[1].direct);
  EXPECT_EQ(reports[0].direct->delay, 60u);
  EXPECT_EQ(reports[1].direct->lost, 2u);
  EXPECT_FALSE(reports[2].direct);

  image->route_sets[0].routes[0].direct_delay = 48;
  routes.Publish(*image);
  // A process that begins has them read anew, however fresh they are.
  reports = {TrafficTo(1001), test::ReportOf(client::kLoadedReport, Loaded("one.exe", 7))};
  tables.Note(&reports, kNoteMs);
  ASSERT_TRUE(reports[0].direct);
  EXPECT_EQ(reports[0].direct->delay, 48u);
}

}  // namespace
