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
    client::Problem problem;
    const auto back = ReportFromJson(ReportJson(report), &problem);
    ASSERT_TRUE(back) << problem.key << " " << problem.reason;
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
  client::Problem problem;
  EXPECT_TRUE(ReportFromJson(ReportJson(test::ReportOf(client::kLoadedReport, loaded)), &problem))
      << problem.key;
}

TEST(ClientReportJson, WhatIsNoReportIsRefusedWithItsReason) {
  const std::pair<const char*, const char*> cases[] = {
      {"", "f:3: is no JSON object"},
      {"[]", "f:3: is no JSON object"},
      {R"({"event":"decision")", "f:3: is no JSON object"},
      {"{}", "f:3: key 'event': '' is no report"},
      {R"({"event":"weather"})", "f:3: key 'event': 'weather' is no report"},
      {R"({"event":5})", "f:3: key 'event': '' is no report"},
  };
  for (const auto& [line, said] : cases) {
    client::Problem problem;
    EXPECT_FALSE(ReportFromJson(line, &problem)) << line;
    problem.line = 3;
    EXPECT_EQ(client::ToText("f", problem), said) << line;
  }
}

TEST(ClientReportJson, AValueThatTheRecordCannotHoldIsNamed) {
  struct {
    const char* event;
    std::string key;
    std::string value;
    std::string inside = {};  // which key is named, if another
  } const cases[] = {
      {"loaded", "time", "-1"},
      {"loaded", "time", "1.5"},
      {"loaded", "slot", "4294967296"},
      {"loaded", "is_x64", "256"},
      {"loaded", "game_id", "-1"},
      {"loaded", "process_name", "5"},
      {"decision", "acc_reason", "\"3\""},
      {"decision", "acc_reason", "2147483648"},
      {"decision", "acc_reason", "-2147483649"},
      {"decision", "game_ip", "\"1.2.3.400\""},
      {"decision", "top_proxy", "[{},{},{},{}]"},
      {"decision", "top_proxy", "[5]"},
      {"decision", "top_proxy", "[{\"proxy_port\":65536}]", "proxy_port"},
      {"decision", "selected_proxy", "5"},
      {"negotiation_result", "reserved_value", "\"x\""},
      {"negotiation_result", "guid", "\"" + std::string(38, 'g') + "\""},
  };
  for (const auto& row : cases) {
    const std::string line =
        std::string("{\"event\":\"") + row.event + "\",\"" + row.key + "\":" + row.value + "}";
    client::Problem problem;
    EXPECT_FALSE(ReportFromJson(line, &problem)) << line;
    EXPECT_EQ(problem.key, row.inside.empty() ? row.key : row.inside) << line;
  }
}

TEST(ClientReportJson, TheLeastAndTheGreatestValuesOfAFieldFit) {
  client::Problem problem;
  const auto least = ReportFromJson(R"({"event":"decision","acc_reason":-2147483648})", &problem);
  ASSERT_TRUE(least);
  EXPECT_EQ(least->As<AccDecisionInfo>().acc_reason, INT32_MIN);
  const auto greatest = ReportFromJson(
      R"({"event":"loaded","slot":4294967295,"game_id":18446744073709551615,"is_x64":255})",
      &problem);
  ASSERT_TRUE(greatest) << problem.key;
  EXPECT_EQ(greatest->As<LspLoadedRecord>().game_id, UINT64_MAX);
  EXPECT_EQ(greatest->As<LspLoadedRecord>().is_x64, 255);
}

TEST(ClientReportJson, WhatIsMendedIsALoadedReportsLastKeyWhereItIsKnown) {
  client::Report report = test::ReportOf(client::kLoadedReport, LspLoadedRecord{});
  EXPECT_EQ(ReportJson(report).find("mended"), std::string::npos);
  client::Problem problem;
  for (const uint32_t bits : {0u, kMendReset, kMendAll, kMendReset | 0x40000000u}) {
    report.mended = bits;
    const auto again = ReportFromJson(ReportJson(report), &problem);
    ASSERT_TRUE(again) << problem.key;
    EXPECT_EQ(again->mended, bits);
  }
  EXPECT_TRUE(ReportJson(report).ends_with(R"("mended":["reset","0x40000000"]})"))
      << ReportJson(report);
  for (const char* const wrong : {"5", "[5]", R"(["rest"])", R"(["0x"])", R"(["0x123456789"])"}) {
    EXPECT_FALSE(
        ReportFromJson(R"({"event":"loaded","mended":)" + std::string(wrong) + "}", &problem));
    EXPECT_EQ(problem.key, "mended") << wrong;
  }
}

TEST(ClientReportJson, WhatTheWatchAddsComesBack) {
  client::Report loaded = test::ReportOf(client::kLoadedReport, LspLoadedRecord{});
  client::Report traffic = test::ReportOf(client::kCommunicationReport, test::Traffic("g", 5000));
  for (const client::Report& plain : {loaded, traffic}) {
    EXPECT_EQ(ReportJson(plain).find("library_file"), std::string::npos);
    EXPECT_EQ(ReportJson(plain).find("tables_direct"), std::string::npos);
  }
  client::Problem problem;
  loaded.library_file = "0.1.0";
  ASSERT_TRUE(ReportFromJson(ReportJson(loaded), &problem)) << problem.key;
  EXPECT_EQ(ReportFromJson(ReportJson(loaded), &problem)->library_file, "0.1.0");
  traffic.direct = client::DirectWay{60, 2};
  const auto again = ReportFromJson(ReportJson(traffic), &problem);
  ASSERT_TRUE(again && again->direct) << problem.key;
  EXPECT_EQ(again->direct->delay, 60u);
  EXPECT_EQ(again->direct->lost, 2u);
  for (const char* const wrong :
       {R"("library_file":5)", R"("tables_direct_delay":"60")", R"("tables_direct_delay":-1)",
        R"("tables_direct_delay":1,"tables_direct_lost":4294967296)"}) {
    const std::string line = R"({"event":"communication",)" + std::string(wrong) + "}";
    EXPECT_FALSE(ReportFromJson(line, &problem)) << wrong;
    EXPECT_NE(std::string(wrong).find("\"" + problem.key + "\""), std::string::npos) << wrong;
  }
}

TEST(ClientReportJson, AFailureOfTheWatchItselfIsPassedOver) {
  client::Problem problem = {.reason = "something"};
  EXPECT_FALSE(ReportFromJson(R"({"event":"failure","reason":"no regions"})", &problem));
  EXPECT_EQ(problem.reason, "");
}

}  // namespace
