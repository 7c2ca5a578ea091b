// One report in words.
#include <gtest/gtest.h>

#include "abi/mending_formats.h"
#include "client/watch/report_words.h"
#include "route/decision.h"
#include "tests/unit/client_flow_reports.h"

namespace {

using client::ReportWords;
using test::Decision;
using test::DecisionReport;
using test::FailureReport;
using test::Has;
using test::ReportOf;
using test::SwitchReport;
using test::Traffic;
using test::TrafficReport;
using namespace moru_vyr::lsp;

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
  report.mended = kMendAll | kMendThroughput;
  EXPECT_TRUE(ReportWords(report).ends_with(", mended: all, throughput")) << ReportWords(report);
}

}  // namespace
