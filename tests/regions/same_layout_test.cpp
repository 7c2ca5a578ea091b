// The C header of the regions against the library's own records: everything that can be compared
// is compared while this file is compiled.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>

#include "abi/mending_formats.h"
#include "abi/report_records.h"
#include "abi/restriction_formats.h"
#include "abi/route_formats.h"
#include "common/shared_mem_header.h"
#include "include/vyr_regions.h"
#include "route/decision.h"
#include "tests/regions/records_in_c.h"

namespace {

using namespace common;
using namespace moru_vyr::lsp;

constexpr int kFields = 0
#define VYR_SAME_NUMBER(ours, published)
#define VYR_SAME_TEXT(ours, published)
#define VYR_SAME_RECORD(ours, published)
#define VYR_SAME_FIELD(ours, published, field) +1
#include "vyr_regions_fields.h"
    ;
#undef VYR_SAME_NUMBER
#undef VYR_SAME_TEXT
#undef VYR_SAME_RECORD
#undef VYR_SAME_FIELD

#define VYR_SAME_NUMBER(ours, published) \
  static_assert(static_cast<long long>(ours) == static_cast<long long>(published));
#define VYR_SAME_TEXT(ours, published) \
  static_assert(std::string_view(ours) == std::string_view(published));
#define VYR_SAME_RECORD(ours, published) static_assert(sizeof(ours) == sizeof(published));
#define VYR_SAME_FIELD(ours, published, field)                         \
  static_assert(offsetof(ours, field) == offsetof(published, field) && \
                sizeof(ours::field) == sizeof(published::field));
#include "vyr_regions_fields.h"

// A list that came out empty would compare nothing.
TEST(RegionsHeader, HasTheFieldsOfEveryRecord) { EXPECT_GT(kFields, 250); }

TEST(RegionsHeader, GameWrittenInCIsReadByTheLibrarysRecord) {
  const auto region = std::make_unique<RestrictionRegion>();
  FillRestrictionRegion(reinterpret_cast<vyr_restriction_region*>(region.get()));
  EXPECT_EQ(region->header.shared_mem_size, sizeof(RestrictionRegion));
  EXPECT_EQ(u32{region->header.major_ver}, kSharedMemMajorVersion);
  EXPECT_EQ(u32{region->header.minor_ver}, kSharedMemMinorVersion);
  const AccConfigRecord& game = region->games[kMaxGames - 1];
  EXPECT_EQ(u32{game.valid}, 1u);
  EXPECT_EQ(u64{game.game_id}, 0x123456789abcdef0u);
  EXPECT_EQ(u32{game.net_mode}, kNetModeTcp | kNetModeUdp);
  EXPECT_STREQ(game.game_paths[kMaxGamePaths - 1], "C:\\games\\game.exe");
  EXPECT_EQ(u32{game.manual_routes[kMaxManualRoutes - 1].last_node}, 7u);
  EXPECT_EQ(u16{game.max_valid_test_delay}, 1500u);
  EXPECT_EQ(u32{game.game_vip_level}, 3u);
  EXPECT_STREQ(region->second_path, "second");
}

TEST(RegionsHeader, ReportWrittenInCIsReadByTheLibrarysRecord) {
  const auto region = std::make_unique<DecisionRegion>();
  FillDecisionRegion(reinterpret_cast<vyr_decision_region*>(region.get()));
  const AccDecisionInfo& decision = region->slots[kDecisionChannel.slot_count - 1];
  EXPECT_EQ(decision.used, 1u);
  EXPECT_EQ(i32{decision.acc_reason}, kReasonUnknown);
  EXPECT_EQ(u32{decision.selected_proxy.decision}, DECISION_FORCE_ACCE_MANUAL);
  EXPECT_EQ(u32{decision.glt_route_info.proxy.last_node}, 9u);
  EXPECT_EQ(u32{decision.glt_word}, 11u);
}

// The bytes of both regions in a folder, for the test of the Kaitai Struct description.
TEST(RegionsHeader, WritesWhatCHasWrittenIntoAFolder) {
  const char* const folder = std::getenv("VYR_REGIONS_FOLDER");
  if (folder == nullptr) GTEST_SKIP() << "VYR_REGIONS_FOLDER names no folder";
  const auto games = std::make_unique<vyr_restriction_region>();
  const auto decisions = std::make_unique<vyr_decision_region>();
  FillRestrictionRegion(games.get());
  FillDecisionRegion(decisions.get());
  const auto write = [&](const char* name, const void* bytes, std::size_t size) {
    std::ofstream file(std::string(folder) + "/" + name, std::ios::binary);
    file.write(static_cast<const char*>(bytes), static_cast<std::streamsize>(size));
    EXPECT_TRUE(file.good());
  };
  write("restriction_region", games.get(), sizeof *games);
  write("decision_region", decisions.get(), sizeof *decisions);
}

}  // namespace
