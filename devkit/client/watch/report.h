// One report, as it was taken out of its slot.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "common/text.h"

namespace client {

// In the order in which reports of the same moment are shown: a flow's failures before the success
// that ended them.
enum ReportKind {
  kLoadedReport,
  kLogPathReport,
  kNegotiationResultReport,
  kDecisionReport,
  kRealNegotiationReport,
  kRecoverySwitchReport,
  kCommunicationReport,
  kReportKindCount,
};

// A route's figures of the way without a node, as the tables have them.
struct DirectWay {
  uint32_t delay = 0;  // milliseconds
  uint32_t lost = 0;   // percent
};

struct Report {
  ReportKind kind = kDecisionReport;
  uint64_t time_ms = 0;  // milliseconds since 1970: when it was taken out, or better
  uint32_t slot = 0;
  std::vector<std::byte> bytes;  // the whole slot

  // What this program adds where it knows it, as it takes the report.
  std::optional<uint32_t> mended = {};   // `loaded`: what is mended for the game
  std::string library_file = {};         // `loaded`: the version of the library beside this program
  std::optional<DirectWay> direct = {};  // `decision`, `communication`: by the tables in force

  // A copy, because nothing in here is aligned.
  template <typename Record>
  Record As() const {
    Record record;
    std::memcpy(static_cast<void*>(&record), bytes.data(), sizeof record);
    return record;
  }
};

// What a text field of a record holds.
template <size_t N>
std::string Text(const char (&field)[N]) {
  return std::string(common::FieldText(field));
}

}  // namespace client
