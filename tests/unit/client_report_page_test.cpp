// The page that the flows become.
#include <gtest/gtest.h>

#include "client/watch/report_page.h"
#include "route/decision.h"
#include "tests/unit/client_flow_reports.h"

namespace {

using client::FlowBook;
using test::Decision;
using test::Has;
using test::ReportOf;
using test::Traffic;
using test::TrafficReport;
using namespace moru_vyr::lsp;

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
