// docs/reports.md against the program: it names every field, and its lines are the program's.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <set>

#include "client/explain/reason_words.h"
#include "client/watch/report_words.h"
#include "route/decision.h"
#include "tests/support/source_dir.h"
#include "tests/unit/client_reports.h"

namespace {

using client::ReportField;
using client::ReportShape;
using client::ReportWords;
using test::ReportOf;
using namespace moru_vyr::lsp;

const std::string& Document() {
  static const std::string text = [] {
    std::ifstream file(test::SourceFile("docs/reports.md"), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }();
  return text;
}

std::string SectionOf(const std::string& heading) {
  const size_t begin = Document().find("\n## " + heading);
  EXPECT_NE(begin, std::string::npos) << heading;
  if (begin == std::string::npos) return "";
  return Document().substr(begin, Document().find("\n## ", begin + 1) - begin);
}

void ExpectKeys(const std::string& section, const ReportShape& shape) {
  for (const ReportField& field : shape.fields) {
    const std::string key = field.key;
    const std::string where = key == "used" ? SectionOf("1.") : section;
    EXPECT_NE(where.find("`" + key + "`"), std::string::npos) << key;
    if (field.shape != nullptr) ExpectKeys(section, *field.shape);
  }
}

TEST(ReportsDocument, NamesEveryKeyInItsSection) {
  const char* const headings[client::kReportKindCount] = {
      "8. `loaded`",       "8. `loaded` and `log_path`", "4. `negotiation_result`",
      "3. `decision`",     "5. `real_negotiation`",      "7. `recovery_switch`",
      "6. `communication`"};
  for (int kind = 0; kind < client::kReportKindCount; ++kind) {
    const auto& row = client::ChannelOf(static_cast<client::ReportKind>(kind));
    SCOPED_TRACE(row.name);
    ExpectKeys(SectionOf(headings[kind]), row.shape);
  }
}

// A line of a block, whole.
void ExpectLine(const std::string& words) {
  EXPECT_NE(Document().find("\n" + words + "\n"), std::string::npos) << words;
}

TEST(ReportsDocument, ShowsTheProgramsOwnLines) {
  auto decision = test::Decision("g", kReasonAcce);
  decision.direct_delay = 80;
  decision.direct_lost = 2;
  decision.selected_proxy.section1_delay = 12;
  decision.selected_proxy.section2_delay = 31;
  ExpectLine(ReportWords(ReportOf(client::kDecisionReport, decision)));

  NegRetRecord failure;
  failure.neg_type = 1;
  failure.nego_result = 202;
  failure.proxy_idc = 1;
  failure.proxy_port = 9000;
  failure.game_port = 7000;
  failure.elapsed_ms = 5003;
  failure.nego_count = 2;
  common::SetFieldText(failure.game_ip, "198.51.100.10");
  common::SetFieldText(failure.proxy_ip, "198.51.100.20");
  ExpectLine(ReportWords(ReportOf(client::kNegotiationResultReport, failure)));

  RealNegoRecord agreed;
  agreed.proxy_id = agreed.last_node_id = 1;
  common::SetFieldText(agreed.proxy_ip, "198.51.100.20");
  agreed.proxy_port = 9000;
  agreed.game_ip = 0xc633640a;
  agreed.game_port = 7000;
  agreed.user_ip = 0x097100cb;
  agreed.user_isp = 2;
  agreed.last_node_ip = 0x146433c6;
  ExpectLine(ReportWords(ReportOf(client::kRealNegotiationReport, agreed)));

  CommInfoRecord traffic = test::Traffic("g", 65000);
  traffic.total_sent_bytes = 1500;
  traffic.total_sent_packets = 3;
  traffic.total_recv_bytes = 900;
  traffic.total_recv_packets = 2;
  traffic.frontend_fine = {.delay_avg = 12, .delay_amp = 2, .total_recv = 19, .total_send = 20};
  ExpectLine(ReportWords(ReportOf(client::kCommunicationReport, traffic)));

  RecoverySwitchRecord trouble;
  trouble.proxy_idc = 7;
  trouble.count = 1;
  trouble.elapse_time = 40000;
  trouble.data_link_small_section_lost = 101;
  trouble.data_link_full_section_lost = 23;
  trouble.data_link_full_section_pack = 130;
  common::SetFieldText(trouble.switch_condition, "delay_amp>=20;delay_avg>=50;real_lost>=20");
  common::SetFieldText(trouble.fe_be, "0-0-0-0;35-26-4-41");
  ExpectLine(ReportWords(ReportOf(client::kRecoverySwitchReport, trouble)));
}

TEST(ReportsDocument, ExplainsEveryReasonInTheProgramsWords) {
  for (int32_t reason = kReasonUnknown; reason <= kReasonForceManual; ++reason) {
    if (reason == 5) continue;  // free
    ExpectLine("| " + std::to_string(reason) + " | " + client::ReasonWords(reason) + " |");
  }
  for (const int32_t result : {202, 203, 207}) {
    ExpectLine("| " + std::to_string(result) + " | " + client::NegotiationFailureWords(result) +
               " |");
  }
}

}  // namespace
