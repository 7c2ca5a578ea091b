// Reports as JSON: every field under its own name, and nothing lost on the way back.
#include "client/watch/report_json.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <set>

#include "route/decision.h"
#include "tests/unit/client_reports.h"

namespace {

using client::ChannelOf;
using client::Form;
using client::Report;
using client::ReportField;
using client::ReportFromJson;
using client::ReportJson;
using client::ReportKind;
using client::ReportShape;
using namespace moru_vyr::lsp;

// Which bytes of a record some field covers. A byte that two fields cover counts twice.
void Cover(const ReportShape& shape, size_t at, std::vector<int>* covered) {
  for (const ReportField& field : shape.fields) {
    for (size_t entry = 0; entry < std::max<size_t>(field.count, 1); ++entry) {
      const size_t from = at + field.offset + entry * field.size;
      if (field.form == Form::kRecord) {
        Cover(*field.shape, from, covered);
      } else {
        for (size_t i = 0; i < field.size; ++i) ++covered->at(from + i);
      }
    }
  }
}

struct Gaps {
  ReportKind kind;
  std::set<std::pair<size_t, size_t>> reserved;  // from, and behind
};

// Only the bytes that no record gives a name are left out.
TEST(ClientReportJson, EveryByteThatHasANameIsAField) {
  const Gaps all[] = {
      {client::kLoadedReport, {{1, 8}, {277, 280}}},
      {client::kLogPathReport, {{1, 8}, {276, 280}}},
      {client::kDecisionReport, {{66, 68}, {885, 888}}},
      {client::kRealNegotiationReport, {{1, 8}, {89, 92}}},
      {client::kNegotiationResultReport, {{1, 4}, {62, 64}, {102, 104}, {108, 112}, {177, 184}}},
      {client::kRecoverySwitchReport, {{1, 8}, {581, 584}}},
      {client::kCommunicationReport, {{1, 8}, {671, 716}, {981, 984}}},
  };
  for (const Gaps& gaps : all) {
    const ReportShape& shape = ChannelOf(gaps.kind).shape;
    std::vector<int> covered(shape.size, 0);
    Cover(shape, 0, &covered);
    for (size_t i = 0; i < shape.size; ++i) {
      bool reserved = false;
      for (const auto& [from, to] : gaps.reserved) reserved = reserved || (i >= from && i < to);
      // Proxies inside a decision have two bytes of their own without a name.
      if (gaps.kind == client::kDecisionReport && covered[i] == 0 && i >= 228) continue;
      EXPECT_EQ(covered[i], reserved ? 0 : 1) << ChannelOf(gaps.kind).name << " byte " << i;
    }
  }
}

TEST(ClientReportJson, ProxiesLackTheirTwoNamelessBytesOnly) {
  const ReportShape& shape = ChannelOf(client::kDecisionReport).shape;
  std::vector<int> covered(shape.size, 0);
  Cover(shape, 0, &covered);
  size_t bare = 0;
  for (size_t i = 228; i < shape.size; ++i) bare += covered[i] == 0 ? 1 : 0;
  EXPECT_EQ(bare, 5 * 2 + 3u);
}

// A record whose every byte differs, as far as its texts and lists allow.
Report Filled(ReportKind kind) {
  Report report = {.kind = kind, .time_ms = 1790000000123, .slot = 3, .bytes = {}};
  report.bytes.resize(ChannelOf(kind).shape.size);
  for (size_t i = 0; i < report.bytes.size(); ++i) {
    report.bytes[i] = static_cast<std::byte>('a' + i % 23);
  }
  return report;
}

TEST(ClientReportJson, ComesBackAsItWas) {
  for (int i = 0; i < client::kReportKindCount; ++i) {
    const Report report = Filled(static_cast<ReportKind>(i));
    std::string why;
    const auto back = ReportFromJson(ReportJson(report), &why);
    ASSERT_TRUE(back) << why;
    EXPECT_EQ(back->kind, report.kind);
    EXPECT_EQ(back->time_ms, report.time_ms);
    EXPECT_EQ(back->slot, report.slot);
    std::vector<int> covered(report.bytes.size(), 0);
    Cover(ChannelOf(report.kind).shape, 0, &covered);
    for (size_t at = 0; at < covered.size(); ++at) {
      const std::byte wanted = covered[at] != 0 ? report.bytes[at] : std::byte{0};
      ASSERT_EQ(back->bytes[at], wanted) << ChannelOf(report.kind).name << " byte " << at;
    }
  }
}

TEST(ClientReportJson, ValuesStandInTheFormThatAPersonReads) {
  NegRetRecord failed;
  failed.nego_result = -1;
  failed.elapsed_ms = 5003;
  failed.user_ip = 0x016433c6;  // 198.51.100.1 as it lies in memory
  common::SetFieldText(failed.guid, "abc");
  const auto json = nlohmann::json::parse(
      ReportJson(test::ReportOf(client::kNegotiationResultReport, failed, 17)));
  EXPECT_EQ(json["event"], "negotiation_result");
  EXPECT_EQ(json["time"], 17);
  EXPECT_EQ(json["nego_result"], -1);
  EXPECT_EQ(json["elapsed_ms"], 5003);
  EXPECT_EQ(json["user_ip"], "198.51.100.1");
  EXPECT_EQ(json["guid"], "abc");
  EXPECT_EQ(json["reserved_value"], 0.0);
  const auto decision = nlohmann::json::parse(
      ReportJson(test::ReportOf(client::kDecisionReport, test::Decision("g", kReasonAcce))));
  EXPECT_EQ(decision["game_ip"], "198.51.100.10");
  EXPECT_EQ(decision["top_proxy"].size(), 3u);
  EXPECT_EQ(decision["selected_proxy"]["proxy_name"], "north");
}

TEST(ClientReportJson, TextThatIsNoUtf8IsStillAReportAndFitsAgain) {
  LspLoadedRecord loaded;
  common::SetFieldText(loaded.process_name, "C:\\\xff\xfe\xc3\xa4.exe");
  const std::string line = ReportJson(test::ReportOf(client::kLoadedReport, loaded));
  EXPECT_EQ(nlohmann::json::parse(line)["process_name"], "C:\\??\xc3\xa4.exe");
  // A field that is full to its end, in the middle of a character.
  std::memset(loaded.process_name, 0xe4, sizeof loaded.process_name);
  std::string why;
  EXPECT_TRUE(ReportFromJson(ReportJson(test::ReportOf(client::kLoadedReport, loaded)), &why))
      << why;
}

TEST(ClientReportJson, WhatIsNoReportIsRefusedWithItsReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "is no JSON object"},
      {"[]", "is no JSON object"},
      {"{\"event\":\"decision\"", "is no JSON object"},
      {"{}", "has no event that is a report: ''"},
      {"{\"event\":\"decision\",\"acc_reason\":\"3\"}", "under 'acc_reason'"},
      {"{\"event\":\"decision\",\"game_ip\":\"1.2.3.400\"}", "under 'game_ip'"},
      {"{\"event\":\"decision\",\"top_proxy\":[{},{},{},{}]}", "under 'top_proxy'"},
      {"{\"event\":\"loaded\",\"process_name\":5}", "under 'process_name'"},
      {"{\"event\":5}", "has no event that is a report: ''"},
      {"{\"event\":\"loaded\",\"time\":-1}", "under 'time'"},
      {"{\"event\":\"loaded\",\"slot\":4294967296}", "under 'slot'"},
      {"{\"event\":\"loaded\",\"is_x64\":256}", "under 'is_x64'"},
      {"{\"event\":\"loaded\",\"game_id\":-1}", "under 'game_id'"},
      {"{\"event\":\"decision\",\"acc_reason\":2147483648}", "under 'acc_reason'"},
      {"{\"event\":\"decision\",\"acc_reason\":-2147483649}", "under 'acc_reason'"},
      {"{\"event\":\"decision\",\"selected_proxy\":5}", "under 'selected_proxy'"},
      {"{\"event\":\"decision\",\"top_proxy\":[{\"proxy_port\":65536}]}", "under 'proxy_port'"},
      {"{\"event\":\"negotiation_result\",\"reserved_value\":\"x\"}", "under 'reserved_value'"},
  };
  for (const auto& [line, reason] : cases) {
    std::string why;
    EXPECT_FALSE(ReportFromJson(line, &why)) << line;
    EXPECT_NE(why.find(reason), std::string::npos) << line << ": " << why;
  }
  std::string why;
  const std::string long_guid(38, 'g');
  EXPECT_FALSE(
      ReportFromJson(R"({"event":"negotiation_result","guid":")" + long_guid + "\"}", &why));
  EXPECT_NE(why.find("'guid'"), std::string::npos);
}

TEST(ClientReportJson, AFailureOfTheWatchItselfIsPassedOver) {
  std::string why = "something";
  EXPECT_FALSE(ReportFromJson(R"({"event":"failure","reason":"no regions"})", &why));
  EXPECT_EQ(why, "");
}

}  // namespace
