// Several reports about one flow, combined in the book.
#include <gtest/gtest.h>

#include "route/decision.h"
#include "tests/unit/client_flow_reports.h"

namespace {

using client::Flow;
using client::FlowBook;
using client::Report;
using test::Bytes;
using test::DecisionReport;
using test::FailureReport;
using test::NegotiationReport;
using test::OnTrial;
using test::SwitchReport;
using test::Traffic;
using test::TrafficReport;
using test::TroubleReport;
using namespace moru_vyr::lsp;

TEST(ClientFlowBook, ReportsOfOneGuidAreOneFlow) {
  FlowBook book;
  book.Add(FailureReport("g", 202, 1000));
  book.Add(DecisionReport("g", kReasonAcce, 2000));
  book.Add(TrafficReport(Traffic("g", 5000), 7000));
  book.Add(SwitchReport("g", 1, 0));
  book.Add(DecisionReport("h", kReasonInnerIp, 8000));
  ASSERT_EQ(book.flows().size(), 2u);
  const Flow& flow = book.flows().front();
  EXPECT_EQ(flow.type, "UDP");
  EXPECT_EQ(flow.game, "198.51.100.10:7000");
  EXPECT_EQ(flow.failures, 1u);
  EXPECT_EQ(flow.switches, 1u);
  EXPECT_TRUE(flow.accelerated);
  EXPECT_EQ(flow.marks.size(), 3u);
  EXPECT_FALSE(book.flows().back().accelerated);
  EXPECT_EQ(book.flows().back().node, "");
}

TEST(ClientFlowBook, RatesAreOfTheTimeBetweenTwoReportsAndSurviveAWrap) {
  FlowBook book;
  CommInfoRecord record = Traffic("g", 5000);
  record.total_sent_bytes = 0xfffffc00;
  book.Add(TrafficReport(record));
  record.life = 7000;
  record.total_sent_bytes = 0x400;  // 2048 bytes on
  book.Add(TrafficReport(record));
  EXPECT_DOUBLE_EQ(book.flows().front().points[1].sent_rate, 1024);
}

// With one relay every probe is counted as sent in both halves and answered in the first.
TEST(ClientFlowBook, OneRelayHasNoBackend) {
  FlowBook book;
  CommInfoRecord record = Traffic("g", 5000);
  record.topology_type = 1;
  record.frontend_fine = {.delay_avg = 10, .total_recv = 4, .total_send = 4};
  record.backend_fine = {.total_recv = 0, .total_send = 4};
  book.Add(TrafficReport(record));
  record.topology_type = 2;
  book.Add(TrafficReport(record));
  const auto& points = book.flows().front().points;
  EXPECT_TRUE(points[0].frontend);
  EXPECT_FALSE(points[0].backend);
  ASSERT_TRUE(points[1].backend);
  EXPECT_DOUBLE_EQ(points[1].backend->lost, 100);
}

TEST(ClientFlowBook, AFailureBeforeTheSocketHasAGuidIsToldByItsServer) {
  FlowBook book;
  book.Add(FailureReport("", 202));
  book.Add(FailureReport("", 207));
  ASSERT_EQ(book.flows().size(), 1u);
  EXPECT_EQ(book.flows().front().failures, 2u);
}

TEST(ClientFlowBook, ANodeOnTrialIsNotYetTheFlows) {
  FlowBook book = OnTrial();
  ASSERT_EQ(book.flows().size(), 1u);
  const Flow& flow = book.flows().front();
  EXPECT_EQ(flow.node, "north 198.51.100.20:9000");
  book.Add(TroubleReport(1, 1, 4));
  EXPECT_EQ(flow.node, "north 198.51.100.20:9000");
  EXPECT_EQ(flow.switches, 0u);
  EXPECT_FALSE(flow.moved);
}

TEST(ClientFlowBook, AFlowThatMovedKeepsItsNewNodeAndItsFiguresEnd) {
  FlowBook book = OnTrial();
  book.Add(TroubleReport(1, 1, 0));
  const Flow& flow = book.flows().front();
  EXPECT_EQ(flow.node, "south 198.51.100.21:9000");
  EXPECT_EQ(flow.last_event(), "link in trouble: moved to south 198.51.100.21:9000");
  book.Add(Bytes(10000, 900));  // went out before the move
  book.Add(Bytes(15000, 900));
  book.Add(Bytes(20000, 900));
  EXPECT_EQ(flow.node, "south 198.51.100.21:9000");
  EXPECT_EQ(flow.points.size(), 2u);
  EXPECT_EQ(flow.life_ms, 20000u);
}

TEST(ClientFlowBook, ATroubleDuringATrialIsNoMove) {
  FlowBook book = OnTrial();
  book.Add(TroubleReport(2, 1, 0));  // number 1 is that of the trial, which still runs
  const Flow& flow = book.flows().front();
  EXPECT_EQ(flow.switches, 0u);
  EXPECT_EQ(flow.last_event(), "link in trouble: another node is on trial already");
  book.Add(TroubleReport(1, 1, 0));
  EXPECT_EQ(flow.switches, 1u);
  book.Add(TroubleReport(3, 1, 0));
  EXPECT_EQ(flow.switches, 2u);
}

TEST(ClientFlowBook, AWatcherThatCameLateTakesTheFirstTroubleAsItIs) {
  FlowBook book;
  book.Add(Bytes(90000, 500));
  book.Add(TroubleReport(5, 1, 0));
  EXPECT_EQ(book.flows().front().switches, 1u);
  book.Add(TroubleReport(7, 1, 0));
  EXPECT_EQ(book.flows().front().switches, 1u);
}

TEST(ClientFlowBook, AFailedTrialIsAFailureOfItsFlow) {
  FlowBook book = OnTrial();
  book.Add(FailureReport("", 202));
  ASSERT_EQ(book.flows().size(), 1u);
  EXPECT_EQ(book.flows().front().failures, 1u);
}

TEST(ClientFlowBook, MarksStandInTheOrderOfTheirTimes) {
  FlowBook book;
  CommInfoRecord last = Traffic("g", 9000);
  last.ended = 1;
  book.Add(TrafficReport(last, 9000));
  book.Add(FailureReport("g", 202, 4000));
  EXPECT_EQ(book.flows().front().last_event(), "ended");
  EXPECT_TRUE(book.flows().front().ended);
}

// Figures carry their own time; other reports that a late watcher takes out do not.
TEST(ClientFlowBook, WhatWasTakenOutLateStillStandsBeforeWhatCameAfterIt) {
  FlowBook book;
  book.Add(FailureReport("g", 202, 60000));
  book.Add(DecisionReport("g", kReasonAcce, 60000));
  Report agreed = NegotiationReport("g", 1);
  agreed.time_ms = 60000;
  book.Add(agreed);
  Report trouble = TroubleReport(1, 1, 4);
  trouble.time_ms = 60000;
  book.Add(trouble);
  book.Add(TrafficReport(Traffic("g", 10), 1000));
  const Flow& flow = book.flows().front();
  ASSERT_EQ(flow.marks.size(), 4u);
  for (size_t i = 0; i < 3; ++i) EXPECT_EQ(flow.marks[i].time_ms, 1000u) << i;
  EXPECT_EQ(flow.marks[3].time_ms, 60000u);

  CommInfoRecord last = Traffic("g", 9010);
  last.ended = 1;
  book.Add(TrafficReport(last, 10000));
  Report second = TroubleReport(2, 1, 4);
  second.time_ms = 60100;
  book.Add(second);
  ASSERT_EQ(flow.marks.size(), 6u);
  EXPECT_EQ(flow.marks[3].time_ms, 10000u);
  EXPECT_EQ(flow.marks[4].kind, client::MarkKind::kSwitch);
  EXPECT_EQ(flow.marks[4].time_ms, 10000u);
  EXPECT_EQ(flow.last_event(), "ended");
  EXPECT_EQ(flow.first_ms, 1000u);
  EXPECT_EQ(flow.last_ms, 10000u);
}

// The library writes ends before a snapshot that is older than they are.
TEST(ClientFlowBook, AReportThatComesAfterTheLastOneChangesNothing) {
  FlowBook book;
  book.Add(TrafficReport(Traffic("g", 1000), 1000));
  CommInfoRecord older = Traffic("g", 5000), last = Traffic("g", 9000);
  older.total_sent_bytes = 500;
  last.total_sent_bytes = 570;
  last.ended = 1;
  book.Add(TrafficReport(last, 9000));
  const Flow& flow = book.flows().front();
  const size_t points = flow.points.size();
  book.Add(TrafficReport(older, 5000));
  EXPECT_EQ(flow.life_ms, 9000u);
  EXPECT_EQ(flow.sent_bytes, 570u);
  EXPECT_EQ(flow.stays.back().sent_bytes, 570u);
  EXPECT_EQ(flow.points.size(), points);
  EXPECT_TRUE(flow.ended);
  EXPECT_EQ(flow.last_ms, 9000u);
}

TEST(ClientFlowBook, IsBoundedInFlowsPointsAndMarks) {
  FlowBook book;
  for (size_t i = 0; i < FlowBook::kMostFlows + 5; ++i) {
    book.Add(DecisionReport(std::to_string(i).c_str(), kReasonAcce, 1000 + i));
  }
  EXPECT_EQ(book.flows().size(), FlowBook::kMostFlows);
  EXPECT_EQ(book.flows().front().guid, "5");  // the ones with the oldest news are gone
  book.Add(DecisionReport("0", kReasonAcce, 1));
  EXPECT_EQ(book.flows().size(), FlowBook::kMostFlows);
  for (uint32_t i = 1; i <= FlowBook::kMostPoints * 2; ++i) {
    book.Add(TrafficReport(Traffic("p", i * 10), i));
    book.Add(FailureReport("p", 202, i));
  }
  const Flow& flow = book.flows().back();
  EXPECT_LE(flow.points.size(), FlowBook::kMostPoints);
  EXPECT_GT(flow.points.size(), FlowBook::kMostPoints / 2);
  EXPECT_EQ(flow.points.back().time_ms, FlowBook::kMostPoints * 2);
  EXPECT_EQ(flow.marks.size(), FlowBook::kMostMarks);
}

}  // namespace
