// The same regions as the client program reads them: reports are taken out and freed, tables are
// written as a file. They hold the sample configuration; the input changes bytes of any of them,
// and in half of the runs a second thread goes on changing them meanwhile.
#include "region_views.h"
//
#include <nlohmann/json.hpp>

#include "client/check/config_file.h"
#include "client/dump/dump.h"
#include "client/dump/region_reader.h"
#include "client/fields/tables.h"
#include "client/sample/sample.h"
#include "client/watch/report_drain.h"
#include "client/watch/report_fields.h"
#include "client/watch/report_json.h"
#include "client/watch/report_words.h"

namespace {

using common::u32;
using common::u8;
using fuzz::Require;
using moru_vyr::lsp::kReportHeaderSize;
using moru_vyr::lsp::ReportChannel;

constexpr unsigned kWaitMs = 1000;

const ReportChannel& ChannelAt(int kind) {
  return *client::ChannelOf(static_cast<client::ReportKind>(kind)).channel;
}

fuzz::RegionViews& Regions() {
  static auto& regions = *[] {
    auto* const all = new fuzz::RegionViews;
    const client::ConfigFile file = client::ParseConfig(client::WriteSample({}));
    Require(!HasErrors(file.problems), "the sample");
    for (const client::RegionRow& row : client::Regions()) {
      const auto* const bytes = reinterpret_cast<const u8*>(RegionOf(*file.tables, row));
      std::vector<u8> sample(row.double_buffered ? 4 : 0);  // the selector
      for (int i = row.double_buffered ? 0 : 1; i < 2; ++i) {
        sample.insert(sample.end(), bytes, bytes + row.size);
      }
      all->Add(row.name, std::move(sample));
    }
    for (int kind = 0; kind < client::kReportKindCount; ++kind) all->Add(ChannelAt(kind));
    return all;
  }();
  return regions;
}

std::size_t UsedSlots() {
  std::size_t used = 0;
  for (int kind = 0; kind < client::kReportKindCount; ++kind) {
    const ReportChannel& channel = ChannelAt(kind);
    const u8* const view = Regions().Of(channel.mapping_name);
    if (!fuzz::HasHeader(view, channel)) continue;
    for (u32 slot = 0; slot < channel.slot_count; ++slot) {
      used += view[kReportHeaderSize + std::size_t{slot} * channel.slot_size] != 0 ? 1 : 0;
    }
  }
  return used;
}

void CheckReport(const client::Report& report) {
  Require(client::ReportWords(report).find('\n') == std::string::npos, "a report is one line");
  const std::string json = client::ReportJson(report);
  Require(json.find('\n') == std::string::npos && nlohmann::json::accept(json), "it is JSON");
  client::Problem problem;
  const auto read = client::ReportFromJson(json, &problem);
  Require(read.has_value() && read->kind == report.kind, "which can be read again");
}

void DrainReports(bool is_still) {
  client::ReportDrain drain;
  const std::size_t used = UsedSlots();
  std::vector<client::Report> reports = drain.Take(kWaitMs);
  if (is_still) Require(reports.size() == used, "each used slot is a report");
  for (std::size_t i = 0; i < reports.size(); i += 1 + i / 8) CheckReport(reports[i]);
  drain.GiveBack(std::move(reports), kWaitMs);
  if (is_still) Require(UsedSlots() == 0, "and each slot is free again");
}

void WriteTables() {
  const client::StandingTables standing = client::ReadRegions(kWaitMs);
  Require(nlohmann::json::accept(client::DumpJson(*standing.tables)), "a dump is JSON");
  client::DumpToml(*standing.tables);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  Regions().Reset();
  fuzz::Input input(data, size);
  const u8 mode = input.Byte();
  const bool is_still = mode % 2 == 0;
  const std::vector<fuzz::Patch> patches = Regions().TakePatches(&input);
  const fuzz::Writer writer(patches, is_still);
  DrainReports(is_still);
  if (mode % 4 >= 2) WriteTables();
  return 0;
}
