// The start of a process where memory runs out: it is not served, or served later, and goes on.
#include <gtest/gtest.h>

#include <string>

#include "abi/restriction_formats.h"
#include "common/process_info.h"
#include "common/text.h"
#include "engine/relay_mgr.h"
#include "icmp/icmp_vm.h"
#include "route/acc_config.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"
#include "start/gate.h"
#include "start/process_start.h"
#include "tests/unit/out_of_memory.h"
#include "tests/unit/trace_capture.h"

namespace moru_vyr::lsp {
namespace {

// The first thing that is made of the region is a copy of its name.
TEST(StartWithoutMemory, AConfigurationCountsAsAbsent) {
  common::SetFieldText(common::GetProcessInfo().process_path, "C:\\Games\\Dawn\\dawn.exe");
  ReplaceAccConfig(AccConfig{});
  const test::TraceCapture trace;
  {
    const test::OutOfMemory none(1, sizeof kRestrictionRegionName, sizeof kRestrictionRegionName);
    EXPECT_FALSE(ReadAccConfig());
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  ASSERT_EQ(test::TraceCapture::lines().size(), 1u) << "nothing else is known of the game";
  EXPECT_NE(test::TraceCapture::lines()[0].find("read restriction from shared memory failed"),
            std::string::npos);
  EXPECT_EQ(GetAccConfig()->valid, 0u);
  common::GetProcessInfo() = {};
}

// Nothing is decided then: the next start of Winsock may still be hooked.
TEST(StartWithoutMemory, TheGateStaysShutUntilThereIsSome) {
  {
    const test::OutOfMemory none;
    EXPECT_FALSE(CheckCanHook(true));
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(CheckCanHook(true));
  EXPECT_FALSE(CheckCanHook(false));
}

// What a process starts with is prepared once, and without memory for it the process is not served.
TEST(StartWithoutMemory, AProcessIsNotServed) {
  GetSocketMap();
  GetRelayMgr();
  GetSocketErrorFilter();
  GetIcmpVM();
  {
    const test::OutOfMemory none;
    EXPECT_FALSE(PrepareProcess());
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_FALSE(PrepareProcess());
  common::GetProcessInfo() = {};
}

}  // namespace
}  // namespace moru_vyr::lsp
