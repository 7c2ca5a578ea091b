// The flows on a screen of text.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "client/watch/top_view.h"
#include "route/decision.h"
#include "tests/unit/client_flow_reports.h"

namespace {

using client::FlowBook;
using client::Report;
using client::TopLines;
using test::Decision;
using test::DecisionReport;
using test::Has;
using test::OnTrial;
using test::ReportOf;
using test::Traffic;
using test::TrafficReport;
using test::TroubleReport;
using namespace moru_vyr::lsp;

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

}  // namespace
