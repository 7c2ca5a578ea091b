// Each figure belongs to the node that it was measured at, and each flow to its process.
#include <gtest/gtest.h>

#include "abi/mending_formats.h"
#include "route/decision.h"
#include "tests/unit/client_flow_reports.h"

namespace {

using client::Flow;
using client::FlowBook;
using client::Report;
using test::Bytes;
using test::Decision;
using test::FailureReport;
using test::Has;
using test::NegotiationReport;
using test::OnTrial;
using test::Probes;
using test::ReportOf;
using test::TroubleReport;
using namespace moru_vyr::lsp;

TEST(ClientStays, AfterAMoveTheFirstNodeKeepsItsFigures) {
  FlowBook book = OnTrial();
  book.Add(Probes(9000, 1, {.delay_avg = 30, .total_recv = 4, .total_send = 7}, 900));
  book.Add(TroubleReport(1, 1, 0));
  book.Add(Probes(14000, 1, {.delay_avg = 30, .total_recv = 4, .total_send = 7}, 900));
  const Flow& flow = book.flows().front();
  ASSERT_EQ(flow.stays.size(), 2u);
  EXPECT_EQ(flow.stays[0].node, "north 198.51.100.20:9000");
  EXPECT_EQ(flow.stays[0].sent_bytes, 900u);
  ASSERT_TRUE(flow.stays[0].frontend);
  EXPECT_FALSE(flow.stays[1].is_reported);
  EXPECT_FALSE(flow.stays[1].frontend);
  EXPECT_FALSE(flow.figures_follow);
  ASSERT_EQ(flow.trials.size(), 1u);
  EXPECT_EQ(flow.trials[0].outcome, "took over");
}

// They are reported later, and are of the time until the move all the same.
TEST(ClientStays, TheLastFiguresOfTheFirstNodeStandAtTheMove) {
  FlowBook book = OnTrial();
  book.Add(Probes(5000, 1, {.delay_avg = 30, .total_recv = 4, .total_send = 4}, 1000));
  Report moved = TroubleReport(1, 1, 0);
  moved.time_ms = 6000;
  book.Add(moved);
  book.Add(Probes(10000, 1, {.delay_avg = 31, .total_recv = 5, .total_send = 7}, 3000));
  const Flow& flow = book.flows().front();
  ASSERT_EQ(flow.stays[0].until_ms, 6000u);
  EXPECT_EQ(flow.points.back().time_ms, 6000u);
  EXPECT_DOUBLE_EQ(flow.points.back().sent_rate, 2000) << "in one second, not in five";
  EXPECT_EQ(flow.points.back().frontend->delay_avg, 31u);
  const size_t points = flow.points.size();
  book.Add(Probes(15000, 1, {.delay_avg = 32, .total_recv = 6, .total_send = 8}, 3001));
  EXPECT_EQ(flow.points.size(), points) << "what came late belongs to the same moment";
  EXPECT_EQ(flow.points.back().frontend->delay_avg, 32u);
}

TEST(ClientStays, WhereFiguresFollowTheNewNodeHasItsOwn) {
  FlowBook book = OnTrial();
  book.Add(Probes(9000, 1, {.delay_avg = 30, .total_recv = 4, .total_send = 7}, 900));
  book.Add(TroubleReport(1, 1, 0));
  book.Add(Probes(14000, 2, {.delay_avg = 20, .total_recv = 3, .total_send = 3}, 1300));
  const Flow& flow = book.flows().front();
  ASSERT_EQ(flow.stays.size(), 2u);
  EXPECT_EQ(flow.stays[0].sent_bytes, 900u);
  EXPECT_EQ(flow.stays[0].frontend->delay_avg, 30u);
  EXPECT_EQ(flow.stays[1].sent_bytes, 400u);
  EXPECT_EQ(flow.stays[1].frontend->delay_avg, 20u);
  EXPECT_TRUE(flow.figures_follow);
  EXPECT_EQ(flow.points.back().stay, 1u);
}

// The figures may be taken out before the report on the move: it is one move all the same.
TEST(ClientStays, AMoveThatTheFiguresToldIsCountedOnce) {
  FlowBook book = OnTrial();
  book.Add(Probes(14000, 2, {.delay_avg = 20, .total_recv = 3, .total_send = 3}, 1300));
  ASSERT_EQ(book.flows().front().stays.size(), 2u);
  book.Add(TroubleReport(1, 1, 0));
  EXPECT_EQ(book.flows().front().stays.size(), 2u);
  EXPECT_EQ(book.flows().front().node, "south 198.51.100.21:9000");
}

TEST(ClientStays, AFlowThatMovedBackKeepsTheFirstTimeWithItsNode) {
  FlowBook book = OnTrial();
  book.Add(Probes(9000, 1, {.delay_avg = 30, .total_recv = 4, .total_send = 7}, 900));
  book.Add(TroubleReport(1, 1, 0));
  book.Add(NegotiationReport("", 1));
  book.Add(TroubleReport(2, 1, 0));
  book.Add(Probes(20000, 1, {.delay_avg = 30, .total_recv = 4, .total_send = 7}, 900));
  const Flow& flow = book.flows().front();
  ASSERT_EQ(flow.stays.size(), 3u);
  EXPECT_TRUE(flow.stays[0].is_reported);
  EXPECT_FALSE(flow.stays[2].is_reported);
  EXPECT_EQ(flow.stays[2].node, "north 198.51.100.20:9000");
}

TEST(ClientStays, ATrialHasItsOutcomeAndLeavesTheNode) {
  FlowBook book = OnTrial();
  book.Add(TroubleReport(1, 1, 4));
  const Flow& flow = book.flows().front();
  ASSERT_EQ(flow.trials.size(), 1u);
  EXPECT_EQ(flow.trials[0].node, "south 198.51.100.21:9000");
  EXPECT_EQ(flow.trials[0].outcome, "did no better");
  EXPECT_EQ(flow.stays.size(), 1u);
  // A refusal is one trial, though two reports tell of it.
  book.Add(FailureReport("", 202));
  book.Add(TroubleReport(2, 1, 3));
  ASSERT_EQ(flow.trials.size(), 2u);
  EXPECT_EQ(flow.trials[1].outcome, "no answer in time");
  EXPECT_EQ(flow.stays.size(), 1u);
}

TEST(ClientStays, AMoveToAnUnknownNodeDoesNotNameTheOldOne) {
  FlowBook book;
  book.Add(Bytes(90000, 500));
  book.Add(TroubleReport(5, 1, 0));
  EXPECT_EQ(book.flows().front().node, "a node that was not reported");
  EXPECT_FALSE(Has(book.flows().front().last_event(), "198.51.100.20"));
}

TEST(ClientStays, TroubleAfterAMoveDoesNotAccuseTheNewNode) {
  const std::string doubt = "what was lost at north 198.51.100.20:9000";
  FlowBook book = OnTrial();
  book.Add(TroubleReport(1, 1, 0));
  EXPECT_FALSE(Has(book.flows().front().last_event(), doubt));
  book.Add(TroubleReport(2, 1, 4));
  EXPECT_TRUE(Has(book.flows().front().last_event(), doubt));
  // With after-switch the judge starts anew.
  FlowBook anew = OnTrial();
  Report loaded = ReportOf(client::kLoadedReport, LspLoadedRecord{});
  loaded.mended = kMendAfterSwitch;
  anew.Add(loaded);
  anew.Add(TroubleReport(1, 1, 0));
  anew.Add(TroubleReport(2, 1, 4));
  EXPECT_FALSE(Has(anew.flows().front().last_event(), doubt));
}

// Its two reports come through two channels, which are looked at one after the other.
TEST(ClientProcesses, AProcessIsOneThoughItsLogIsTakenFirst) {
  LspLoadedRecord loaded;
  loaded.game_id = 77;
  common::SetFieldText(loaded.process_name, "one.exe");
  LogPathRecord log;
  log.game_id = 77;
  common::SetFieldText(log.log_path, "C:\\log\\[one.exe][P12].log");
  FlowBook book;
  book.Add(ReportOf(client::kLogPathReport, log, 1000));
  book.Add(ReportOf(client::kLoadedReport, loaded, 1100));
  ASSERT_EQ(book.processes().size(), 1u);
  EXPECT_EQ(book.processes()[0].name, "one.exe");
  EXPECT_TRUE(Has(book.processes()[0].log, "[P12]"));
  // One that begins much later, or is another program, is another process.
  common::SetFieldText(log.log_path, "C:\\log\\[one.exe][P13].log");
  book.Add(ReportOf(client::kLogPathReport, log, 2000));
  book.Add(ReportOf(client::kLoadedReport, loaded, 9000));
  EXPECT_EQ(book.processes().size(), 3u);
  common::SetFieldText(loaded.process_name, "two.exe");
  common::SetFieldText(log.log_path, "C:\\log\\[three.exe][P14].log");
  FlowBook other;
  other.Add(ReportOf(client::kLogPathReport, log, 1000));
  other.Add(ReportOf(client::kLoadedReport, loaded, 1100));
  EXPECT_EQ(other.processes().size(), 2u);
}

TEST(ClientProcesses, AFlowHasTheProcessOfItsNumberOrOfItsGame) {
  FlowBook book;
  LspLoadedRecord loaded;
  loaded.game_id = 77;
  common::SetFieldText(loaded.process_name, "one.exe");
  LogPathRecord log;
  log.game_id = 77;
  common::SetFieldText(log.log_path, "C:\\log\\[P12]game.log");
  auto info = Decision("g", kReasonAcce);
  info.game_id = 77;
  info.process_id = 12;
  book.Add(ReportOf(client::kDecisionReport, info));
  const Flow& flow = book.flows().front();
  EXPECT_EQ(book.ProcessOf(flow), nullptr);
  book.Add(ReportOf(client::kLoadedReport, loaded));
  book.Add(ReportOf(client::kLogPathReport, log));
  ASSERT_NE(book.ProcessOf(flow), nullptr);
  EXPECT_EQ(book.ProcessOf(flow)->name, "one.exe");
  common::SetFieldText(loaded.process_name, "two.exe");
  book.Add(ReportOf(client::kLoadedReport, loaded));
  ASSERT_NE(book.ProcessOf(flow), nullptr);
  EXPECT_EQ(book.ProcessOf(flow)->name, "one.exe");
  common::SetFieldText(log.log_path, "C:\\log\\[P13]game.log");
  book.Add(ReportOf(client::kLogPathReport, log));
  auto other = Decision("h", kReasonAcce);
  other.game_id = 77;
  other.process_id = 14;
  book.Add(ReportOf(client::kDecisionReport, other));
  EXPECT_EQ(book.ProcessOf(book.flows().back()), nullptr) << "it can be either";
}

}  // namespace
