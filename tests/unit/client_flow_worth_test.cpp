// What a node is worth, and what lies between two reports.
#include <gtest/gtest.h>

#include "client/watch/flow_intervals.h"
#include "client/watch/flow_worth.h"
#include "route/decision.h"
#include "tests/unit/client_flow_reports.h"

namespace {

using client::Flow;
using client::FlowBook;
using client::Report;
using test::Decision;
using test::Has;
using test::ReportOf;
using namespace moru_vyr::lsp;

std::string WordsOf(const client::Stay& stay) { return client::WorthWords(client::WorthOf(stay)); }

client::Stay MeasuredStay() {
  client::Stay stay;
  stay.tables.direct_delay = 80;
  stay.tables.section1_delay = 12;
  stay.tables.section2_delay = 31;
  stay.frontend = client::Section{.delay_avg = 20, .answered = 10, .asked = 10};
  return stay;
}

TEST(ClientWorth, IsTheDirectWayLessTheWayTaken) {
  client::Stay stay = MeasuredStay();
  EXPECT_EQ(WordsOf(stay), "saves 29 ms");
  stay.backend = client::Section{.delay_avg = 60, .answered = 10, .asked = 10};
  EXPECT_EQ(WordsOf(stay), "saves 20 ms") << "more than the tables give from the node on";
  stay.backend->delay_avg = 40;
  EXPECT_EQ(WordsOf(stay), "saves 29 ms");
  stay.frontend->delay_avg = 60;
  EXPECT_EQ(WordsOf(stay), "costs 11 ms");
}

TEST(ClientWorth, IsUnknownWhereAFigureIs) {
  client::Stay stay = MeasuredStay();
  stay.frontend->answered = 0;
  EXPECT_EQ(WordsOf(stay), "(saves 37 ms)") << "by the tables";
  stay.tables.section2_delay.reset();
  EXPECT_EQ(WordsOf(stay), "unknown");
  stay = MeasuredStay();
  stay.tables.direct_delay.reset();
  EXPECT_EQ(WordsOf(stay), "unknown");
  EXPECT_TRUE(Has(client::WorthOf(stay).why, "no report gave the delay of the direct way"));
  stay.tables.direct_unreachable = true;
  EXPECT_TRUE(Has(client::WorthOf(stay).why, "unreachable"));
}

TEST(ClientWorth, LossIsThatOfBothPartsOfTheWay) {
  client::Stay stay = MeasuredStay();
  stay.frontend->lost = 10;
  EXPECT_FALSE(client::WorthOf(stay).taken_lost) << "from the node on nothing is known";
  stay.tables.section2_lost = 50;
  EXPECT_DOUBLE_EQ(*client::WorthOf(stay).taken_lost, 55);
}

Report ProbedWay(uint32_t life, std::optional<client::DirectWay> in_force) {
  CommInfoRecord record = test::Traffic("g", life);
  record.direct_delay = 80;
  record.section1_delay = 12;
  record.section2_delay = 10;
  record.frontend_fine = {.delay_avg = 12, .total_recv = 9, .total_send = 9};
  Report report = test::TrafficReport(record, life);
  report.direct = in_force;
  return report;
}

TEST(ClientWorth, IsOfTheDirectWayByTheTablesInForceWhereTheyAreKnown) {
  FlowBook book;
  book.Add(ProbedWay(5000, {}));
  const Flow& flow = book.flows().front();
  EXPECT_EQ(WordsOf(flow.stays[0]), "saves 58 ms");
  EXPECT_FALSE(client::WorthOf(flow.stays[0]).direct_is_in_force);
  book.Add(ProbedWay(10000, client::DirectWay{60, 3}));
  EXPECT_EQ(WordsOf(flow.stays[0]), "saves 38 ms");
  EXPECT_TRUE(client::WorthOf(flow.stays[0]).direct_is_in_force);
  EXPECT_EQ(client::WorthOf(flow.stays[0]).direct_lost, 3u);
  book.Add(ProbedWay(15000, client::DirectWay{9999, 0}));
  EXPECT_EQ(WordsOf(flow.stays[0]), "unknown");
  EXPECT_TRUE(Has(client::WorthOf(flow.stays[0]).why, "unreachable"));
  // Each point has the direct way of its own moment.
  ASSERT_EQ(flow.points.size(), 3u);
  EXPECT_EQ(flow.points[0].direct_delay, 80u);
  EXPECT_EQ(flow.points[1].direct_delay, 60u);
  EXPECT_FALSE(flow.points[2].direct_delay);
}

TEST(ClientWorth, CodesInTheTablesAreNoFigures) {
  FlowBook book;
  auto info = Decision("g", kReasonAcce);
  info.direct_delay = 9999;
  info.direct_lost = 103;
  info.selected_proxy.section1_delay = 12;
  info.selected_proxy.section2_delay = 9999;
  book.Add(ReportOf(client::kDecisionReport, info));
  const client::TableFigures& tables = book.flows().front().stays[0].tables;
  EXPECT_FALSE(tables.direct_delay);
  EXPECT_TRUE(tables.direct_unreachable);
  EXPECT_FALSE(tables.direct_lost);
  EXPECT_FALSE(tables.section2_delay);
}

std::vector<client::FlowPoint> PointsOf(const std::vector<client::Section>& sections) {
  std::vector<client::FlowPoint> points;
  for (const client::Section& section : sections) {
    client::FlowPoint point;
    point.time_ms = 5000 * (points.size() + 1);
    point.frontend = section;
    points.push_back(point);
  }
  return points;
}

TEST(ClientIntervals, AreTheDifferencesOfTwoReports) {
  const auto intervals =
      client::IntervalsOf(PointsOf({{.delay_avg = 10, .answered = 10, .asked = 10},
                                    {.delay_avg = 20, .answered = 20, .asked = 24},
                                    {.delay_avg = 20, .answered = 20, .asked = 34}}));
  EXPECT_NEAR(*intervals[0].frontend.delay, 10.5, 0.01);
  EXPECT_NEAR(*intervals[1].frontend.delay, 30.5, 0.01);
  EXPECT_NEAR(intervals[1].frontend.error, 1.5, 0.01);
  EXPECT_NEAR(*intervals[1].frontend.lost, 400.0 / 14, 0.01);
  EXPECT_FALSE(intervals[2].frontend.delay) << "nothing was answered";
  EXPECT_DOUBLE_EQ(*intervals[2].frontend.lost, 100);
}

// Whole milliseconds over a thousand probes: ten more tell nothing, three hundred do.
TEST(ClientIntervals, GiveNoDelayThatTheFiguresDoNotTell) {
  std::vector<client::Section> sections;
  for (uint32_t n = 1000; n <= 1300; n += 10)
    sections.push_back({.delay_avg = 10, .answered = n, .asked = n});
  const auto intervals = client::IntervalsOf(PointsOf(sections));
  for (size_t i = 1; i < 20; ++i) EXPECT_FALSE(intervals[i].frontend.delay) << i;
  size_t given = 0;
  for (const auto& interval : intervals) {
    EXPECT_LE(interval.frontend.error, client::kMostErrorMs);
    given += interval.frontend.delay ? 1 : 0;
  }
  EXPECT_EQ(given, 2u);
}

TEST(ClientIntervals, FarMoreProbesThanUsualAreABurst) {
  std::vector<client::Section> sections;
  for (uint32_t n = 5; n <= 50; n += 5)
    sections.push_back({.answered = n, .asked = n + (n > 25 ? 20u : 0u)});
  const auto intervals = client::IntervalsOf(PointsOf(sections));
  for (size_t i = 0; i < intervals.size(); ++i) EXPECT_EQ(intervals[i].is_burst, i == 5) << i;
}

TEST(ClientIntervals, BeginAnewWithTheNode) {
  auto points = PointsOf({{.delay_avg = 50, .answered = 10, .asked = 10},
                          {.delay_avg = 20, .answered = 12, .asked = 12}});
  points[1].stay = 1;
  EXPECT_NEAR(*client::IntervalsOf(points)[1].frontend.delay, 20.5, 0.01);
}

}  // namespace
