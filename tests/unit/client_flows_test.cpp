// Several reports about one flow, combined in words, in the book, on the screen and on the page.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "abi/mending_formats.h"
#include "client/watch/flow_book.h"
#include "client/watch/flow_intervals.h"
#include "client/watch/flow_worth.h"
#include "client/watch/report_page.h"
#include "client/watch/report_words.h"
#include "client/watch/top_view.h"
#include "route/decision.h"
#include "tests/unit/client_reports.h"

namespace {

using client::Flow;
using client::FlowBook;
using client::Report;
using client::ReportWords;
using client::TopLines;
using test::Decision;
using test::ReportOf;
using test::Traffic;
using namespace moru_vyr::lsp;

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string WordsOf(const client::Stay& stay) { return client::WorthWords(client::WorthOf(stay)); }

Report DecisionReport(const char* guid, int32_t reason, uint64_t time_ms = 0) {
  return ReportOf(client::kDecisionReport, Decision(guid, reason), time_ms);
}

Report TrafficReport(const CommInfoRecord& record, uint64_t time_ms = 0) {
  return ReportOf(client::kCommunicationReport, record, time_ms);
}

Report FailureReport(const char* guid, int32_t result, uint64_t time_ms = 0) {
  NegRetRecord record;
  record.neg_type = 1;
  record.nego_result = result;
  record.proxy_idc = 1;
  record.elapsed_ms = 5003;
  record.nego_count = 2;
  record.game_port = 7000;
  common::SetFieldText(record.game_ip, "198.51.100.10");
  common::SetFieldText(record.proxy_ip, "198.51.100.20");
  record.proxy_port = 9000;
  common::SetFieldText(record.guid, guid);
  return ReportOf(client::kNegotiationResultReport, record, time_ms);
}

Report SwitchReport(const char* guid, int32_t need, int32_t outcome) {
  RecoverySwitchRecord record;
  record.need_switch = need;
  record.is_switch_succ = outcome;
  record.proxy_idc = 7;
  record.data_link_small_section_lost = 101;
  record.data_link_full_section_lost = 23;
  common::SetFieldText(record.guid, guid);
  return ReportOf(client::kRecoverySwitchReport, record);
}

TEST(ClientReportWords, ADecisionSaysWhereAndWhy) {
  EXPECT_EQ(ReportWords(DecisionReport("g", kReasonAcce)),
            "UDP to 198.51.100.10:7000, data centre 1001, goes through north "
            "(198.51.100.20:9000): the node is faster [direct 0 ms, lost 0 %; to the node 0 ms, "
            "lost 0 %; from there 0 ms, lost 0 %]");
  EXPECT_TRUE(Has(ReportWords(DecisionReport("g", kReasonOverMaxLost)), "goes direct: "));
  auto unknown = Decision("g", kReasonNotInIpTable);
  unknown.game_idc = 0;
  unknown.socket_type = 0;
  EXPECT_EQ(ReportWords(ReportOf(client::kDecisionReport, unknown)),
            "TCP to 198.51.100.10:7000 goes direct: the destination is in no table of the game's "
            "servers");
}

// Reason 0 is about the node, 1 is not: only three are.
TEST(ClientReportWords, OnlyThreeReasonsGoThroughANode) {
  for (int32_t reason = -1; reason <= 16; ++reason) {
    const bool relayed = reason == 0 || reason == 11 || reason == 16;
    EXPECT_EQ(Has(ReportWords(DecisionReport("g", reason)), "goes through"), relayed) << reason;
  }
}

TEST(ClientReportWords, AFailedNegotiationSaysWhatItsCodeMeans) {
  EXPECT_EQ(ReportWords(FailureReport("g", 202)),
            "UDP negotiation with node 1 at 198.51.100.20:9000 for 198.51.100.10:7000 failed after "
            "5003 ms, try 2: no answer in time (202)");
  EXPECT_TRUE(Has(ReportWords(FailureReport("g", 3)), "the node refused (3)"));
  EXPECT_TRUE(Has(ReportWords(FailureReport("g", 207)), "internet provider (207)"));
  EXPECT_TRUE(Has(ReportWords(FailureReport("g", 0)), "for no known reason (0)"));
}

TEST(ClientReportWords, CodesThatStandForNoFigureAreNamed) {
  EXPECT_EQ(client::DelayWords(9999), "not measured");
  EXPECT_EQ(client::DelayWords(9998), "9998 ms");
  EXPECT_EQ(client::LossWords(100), "100 %");
  EXPECT_TRUE(Has(client::LossWords(101), "unknown"));
  EXPECT_TRUE(Has(client::LossWords(102), "no range"));
  EXPECT_TRUE(Has(client::LossWords(103), "never"));
  EXPECT_TRUE(Has(client::LossWords(201), "backwards"));
  const std::string trouble = ReportWords(SwitchReport("g", 0, 0));
  EXPECT_TRUE(Has(trouble, "no move is allowed now"));
  EXPECT_TRUE(Has(trouble, "short unknown of 0 packets, long 23 % of 0"));
}

TEST(ClientReportWords, TrafficOfAProbedFlowHasItsSections) {
  CommInfoRecord record = Traffic("g", 65000);
  record.total_sent_bytes = 1500;
  record.total_sent_packets = 3;
  record.frontend_fine = {.delay_avg = 12, .delay_amp = 2, .total_recv = 19, .total_send = 20};
  const std::string words = ReportWords(TrafficReport(record));
  EXPECT_TRUE(Has(words,
                  "UDP to 198.51.100.10:7000 through 198.51.100.20:9000, for 1 min 5 s: "
                  "sent 1.5 kB in 3, received 0 B in 0"));
  EXPECT_TRUE(Has(words, "frontend 12 ms (±2), 5.0 % of 20 probes lost"));
  EXPECT_FALSE(Has(words, "backend"));
  record.ended = 1;
  record.topology_type = 2;
  record.backend_fine = {.delay_avg = 40, .total_recv = 0, .total_send = 4};
  EXPECT_TRUE(Has(ReportWords(TrafficReport(record)), "ended after"));
  EXPECT_TRUE(Has(ReportWords(TrafficReport(record)), "backend without an answer, 100.0 % of 4"));
}

TEST(ClientReportWords, TextThatAGameChoseCannotDriveATerminal) {
  LspLoadedRecord loaded;
  common::SetFieldText(loaded.process_name, "a\x1b[2Jb\nc");
  EXPECT_EQ(ReportWords(ReportOf(client::kLoadedReport, loaded)),
            "a?[2Jb?c has the library, game 0, 32 bits");
  EXPECT_EQ(client::Printable("\x7f\xc2\x9b[2J \xc2\xa7 \xc3\x9b"), "???[2J \xc2\xa7 \xc3\x9b");
}

TEST(ClientReportWords, ALoadedReportSaysWhatIsMended) {
  client::Report report = ReportOf(client::kLoadedReport, LspLoadedRecord{});
  report.mended = 0;
  EXPECT_TRUE(ReportWords(report).ends_with(", 32 bits, mended: nothing")) << ReportWords(report);
  report.mended = kMendHalfClose | kMendReset;
  EXPECT_TRUE(ReportWords(report).ends_with(", mended: half-close, reset")) << ReportWords(report);
  report.mended = kMendAll;
  EXPECT_TRUE(ReportWords(report).ends_with(", mended: all")) << ReportWords(report);
}

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

// --- a flow that moves: what a node on trial answers comes without the flow's guid ---

Report NegotiationReport(const char* guid, uint32_t node) {
  RealNegoRecord record;
  common::SetFieldText(record.guid, guid);
  record.proxy_id = node;
  common::SetFieldText(record.proxy_ip, node == 1 ? "198.51.100.20" : "198.51.100.21");
  record.proxy_port = 9000;
  record.game_ip = 0xc633640a;
  record.game_port = 7000;
  return ReportOf(client::kRealNegotiationReport, record);
}

Report DecisionFor(const char* guid, uint32_t node, const char* name) {
  auto info = Decision(guid, kReasonAcce);
  info.selected_proxy.proxy_idc = node;
  common::SetFieldText(info.selected_proxy.proxy_name, name);
  common::SetFieldText(info.selected_proxy.proxy_addr,
                       node == 1 ? "198.51.100.20" : "198.51.100.21");
  return ReportOf(client::kDecisionReport, info);
}

Report TroubleReport(int32_t count, int32_t need, int32_t outcome) {
  Report report = SwitchReport("g", need, outcome);
  auto record = report.As<RecoverySwitchRecord>();
  record.count = count;
  return ReportOf(client::kRecoverySwitchReport, record);
}

Report Bytes(uint32_t life, uint32_t bytes) {
  CommInfoRecord record = Traffic("g", life);
  record.total_sent_bytes = bytes;
  return TrafficReport(record);
}

FlowBook OnTrial() {
  FlowBook book;
  book.Add(DecisionFor("g", 1, "north"));
  book.Add(NegotiationReport("g", 1));
  book.Add(Bytes(5000, 500));
  book.Add(DecisionFor("g", 2, "south"));
  book.Add(NegotiationReport("", 2));
  return book;
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

// --- each figure belongs to the node that it was measured at ---

Report Probes(uint32_t life, uint32_t node, const FineStats& front, uint32_t bytes) {
  CommInfoRecord record = Traffic("g", life);
  record.frontend_fine = front;
  record.total_sent_bytes = bytes;
  if (node == 2) common::SetFieldText(record.proxy_ip, "198.51.100.21");
  record.proxy_idc = node;
  return TrafficReport(record, life);
}

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

// --- what a node is worth, and what lies between two reports ---

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

size_t Columns(const std::string& line) {
  return static_cast<size_t>(
      std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

FlowBook Busy(unsigned flows) {
  FlowBook book;
  for (unsigned i = 0; i < flows; ++i) {
    const std::string guid = "g" + std::to_string(i);
    book.Add(DecisionReport(guid.c_str(), kReasonAcce));
    CommInfoRecord record = Traffic(guid.c_str(), 5000);
    record.frontend_fine = {.delay_avg = 12, .delay_amp = 3, .total_recv = 9, .total_send = 10};
    record.game_port = 7000 + i;
    record.ended = i % 2;
    book.Add(TrafficReport(record));
  }
  return book;
}

TEST(ClientTopView, FitsEveryScreen) {
  const FlowBook book = Busy(12);
  for (unsigned columns = 1; columns < 220; ++columns) {
    for (const unsigned rows : {1u, 2u, 3u, 5u, 13u, 14u, 40u}) {
      const auto lines = TopLines(book, {columns, rows}, 0);
      EXPECT_LE(lines.size(), rows);
      for (const std::string& line : lines) {
        EXPECT_LE(Columns(line), columns) << line;
        EXPECT_EQ(line.find('\n'), std::string::npos);
      }
    }
  }
}

TEST(ClientTopView, AWideScreenShowsAllAndANarrowOneTheServer) {
  const auto wide = TopLines(Busy(1), {200, 24}, 0);
  ASSERT_EQ(wide.size(), 3u);
  for (const char* part :
       {"198.51.100.10:7000", "north 198.51.100.20:9000", "12 ±3 ms", "10.0 %"}) {
    EXPECT_TRUE(Has(wide[2], part)) << wide[2];
  }
  const auto narrow = TopLines(Busy(1), {30, 24}, 0);
  EXPECT_TRUE(Has(narrow[2], "198.51.100.10:7000"));
  EXPECT_FALSE(Has(narrow[2], "north"));
}

TEST(ClientTopView, TheLivingStandFirstAndTheRestIsCounted) {
  const auto lines = TopLines(Busy(6), {120, 6}, 0);
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_TRUE(Has(lines[0], "6 flows, 3 ended"));
  EXPECT_TRUE(Has(lines[2], ":7000"));
  EXPECT_TRUE(Has(lines[3], ":7002"));
  EXPECT_TRUE(Has(lines[4], ":7004"));
  EXPECT_EQ(lines[5], "… 3 more");
}

TEST(ClientTopView, EachNodeOfAFlowHasItsOwnFigures) {
  FlowBook book = OnTrial();
  CommInfoRecord record = Traffic("g", 9000);
  record.frontend_fine = {.delay_avg = 12, .delay_amp = 3, .total_recv = 9, .total_send = 10};
  record.total_sent_bytes = 2500;
  book.Add(TrafficReport(record, 9000));
  EXPECT_TRUE(Has(TopLines(book, {200, 24}, 9000)[3], "south 198.51.100.21:9000")) << "the trial";
  EXPECT_TRUE(Has(TopLines(book, {200, 24}, 9000)[3], "on trial"));
  Report moved = TroubleReport(1, 1, 0);
  moved.time_ms = 9500;
  book.Add(moved);
  const auto lines = TopLines(book, {200, 24}, 9600);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(Has(lines[2], "south 198.51.100.21:9000")) << lines[2];
  EXPECT_TRUE(Has(lines[2], "not reported")) << lines[2];
  EXPECT_FALSE(Has(lines[2], "10.0 %")) << lines[2];
  for (const char* part :
       {"until 9.5 s", "north 198.51.100.20:9000", "12 ±3 ms", "10.0 %", "2.5 kB "}) {
    EXPECT_TRUE(Has(lines[3], part)) << lines[3];
  }
}

TEST(ClientTopView, SaysWhatANodeSaves) {
  FlowBook book;
  auto info = Decision("g", kReasonAcce);
  info.direct_delay = 80;
  info.selected_proxy.section1_delay = 12;
  info.selected_proxy.section2_delay = 31;
  book.Add(ReportOf(client::kDecisionReport, info));
  EXPECT_TRUE(Has(TopLines(book, {80, 24}, 0)[1], "SAVES"));
  EXPECT_TRUE(Has(TopLines(book, {80, 24}, 0)[2], "(37 ms)")) << "nothing measured yet";
  CommInfoRecord record = Traffic("g", 5000);
  record.frontend_fine = {.delay_avg = 60, .total_recv = 9, .total_send = 9};
  book.Add(TrafficReport(record));
  EXPECT_TRUE(Has(TopLines(book, {80, 24}, 0)[2], "-11 ms"));
}

// Twelve texts of every length through the cutting of a cell.
TEST(ClientTopView, NoCharacterIsCutInTwo) {
  FlowBook book;
  auto info = Decision("g", kReasonAcce);
  common::SetFieldText(info.selected_proxy.proxy_name, "ÄÖÜäöüßÄÖÜäöüßÄÖÜäöüß");
  book.Add(ReportOf(client::kDecisionReport, info));
  for (unsigned columns = 40; columns < 90; ++columns) {
    for (const std::string& line : TopLines(book, {columns, 0}, 0)) {
      EXPECT_NO_THROW(nlohmann::json(line).dump()) << columns;
    }
  }
}

TEST(ClientReportPage, NothingThatWasReportedCanEndTheDataElement) {
  FlowBook book;
  auto info = Decision("g", kReasonAcce);
  common::SetFieldText(info.selected_proxy.proxy_name, "</script><script>x");
  book.Add(ReportOf(client::kDecisionReport, info));
  LogPathRecord log;
  common::SetFieldText(log.log_path, "</script>log");
  book.Add(ReportOf(client::kLogPathReport, log));
  const std::string page = client::ReportPage(book);
  EXPECT_FALSE(Has(page, "</script><script>x"));
  EXPECT_FALSE(Has(page, "</script>log"));
  EXPECT_TRUE(Has(page, "\\u003c/script>log"));
}

TEST(ClientReportPage, DataThatLooksLikeAPlaceholderIsData) {
  FlowBook book;
  LogPathRecord log;
  common::SetFieldText(log.log_path, "/*CHART-SCRIPT*/ /*DATA*/");
  book.Add(ReportOf(client::kLogPathReport, log));
  const std::string page = client::ReportPage(book);
  EXPECT_TRUE(Has(page, "\"/*CHART-SCRIPT*/ /*DATA*/\""));
}

// A delay that was never measured is a gap, not a zero.
TEST(ClientReportPage, UnansweredProbesAreAGapInTheDelayAndALossOfAll) {
  FlowBook book;
  CommInfoRecord record = Traffic("g", 5000);
  record.frontend_fine = {.total_recv = 0, .total_send = 4};
  book.Add(TrafficReport(record));
  const std::string page = client::ReportPage(book);
  EXPECT_TRUE(Has(page, "\"fd\":[null]"));
  EXPECT_TRUE(Has(page, "\"fl\":[100.0]"));
  EXPECT_TRUE(Has(page, "\"bl\":[null]"));
}

}  // namespace
