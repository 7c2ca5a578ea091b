// A process in test mode: a file beside the program, a node, and no client program at all.
#include <windows.h>

#include <string>

#include "common/process_info.h"
#include "common/text.h"
#include "gametest/test_mode.h"
#include "port/sim/scenario.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "route/init_log.h"
#include "route/route.h"
#include "tests/scenario/game_process.h"
#include "tests/support/log_capture.h"
#include "tests/support/mended.h"
#include "tests/support/temp_dir.h"

namespace {
using namespace moru_vyr::lsp;  // NOLINT: the policy's names

class TestMode : public sim::ScenarioTest {
 protected:
  TestMode() {
    common::SetFieldText(common::GetProcessInfo().process_path, "C:\\Games\\Dawn\\dawn.exe");
    CreateDirectoryW(L"C:\\Games", nullptr);
    CreateDirectoryW(L"C:\\Games\\Dawn", nullptr);
  }
  static void WriteFileBeside(const std::string& text) {
    const HANDLE file = CreateFileW(L"C:\\Games\\Dawn\\vyr_lsp_test.ini", GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
    CloseHandle(file);
  }
  static u32 Ip(const char* text) { return static_cast<u32>(inet_addr(text)); }
  static bool Accelerates(const char* ip, AccDecisionInfo* info) {
    Route& route = *GetRoute();
    return route.NeedRelay(Ip(ip), htons(27015), 2, 1, 1) &&
           route.MakeDecision(Ip(ip), htons(27015), 2, "guid", info, nullptr, 1, 1);
  }
};

SCENARIO_F(TestMode, SendsEveryPublicDestinationThroughTheNodeOfTheFile) {
  WriteFileBeside(
      "[TestAccGame]\nprocess_count=1\nproc1=dawn.exe\nproxy_ip=198.51.100.20\n"
      "proxy_port=7001\nnet_mode=24\n");
  ASSERT_TRUE(ReadTestConfig());
  const sim::Duration begin = world.now();
  EXPECT_TRUE(GetRoute()->Load(50, 100));
  EXPECT_LT(world.now() - begin, 100ms) << "it does not wait for a client";
  InitLog();
  EXPECT_EQ(std::string(common::GetProcessInfo().log_file_path).rfind("C:\\Games\\Dawn\\[", 0), 0u);
  for (const char* ip : {"198.51.100.10", "203.0.113.5"}) {
    AccDecisionInfo info;
    ASSERT_TRUE(Accelerates(ip, &info)) << ip;
    EXPECT_EQ(std::string(info.selected_proxy.proxy_addr), "198.51.100.20");
    EXPECT_EQ(info.selected_proxy.proxy_port, 7001);
    EXPECT_EQ(info.selected_proxy.proxy_idc, 1u);
    EXPECT_EQ(info.selected_proxy.decision, DECISION_FORCE_ACCE_MANUAL);
  }
  AccDecisionInfo info;
  EXPECT_FALSE(Accelerates("192.168.1.7", &info)) << "private";
  EXPECT_FALSE(Accelerates("198.51.100.20", &info)) << "the node itself";
}

// The tables that a client would have published name the node as well as the file's own word does.
SCENARIO_F(TestMode, TheTablesLeadToTheNodeOfTheFile) {
  WriteFileBeside(
      "[TestAccGame]\nprocess_count=1\nproc1=dawn.exe\nproxy_ip=198.51.100.20\n"
      "proxy_port=7001\nnet_mode=24\n");
  ASSERT_TRUE(ReadTestConfig());
  ASSERT_TRUE(GetRoute()->Load(50, 100));
  const test::LogCapture log(4);
  AccDecisionInfo forced;
  ASSERT_TRUE(Accelerates("198.51.100.10", &forced));
  EXPECT_TRUE(log.Contains("[Route][IsReachable] proxy_idc(1) to game_idc(1) reachable=true"));
  for (const u32 both : {0u, kNetModeBothModes}) {
    AccConfig config = *GetAccConfig();
    config.manual_mode = 0;  // what the file names is not forced any more
    config.net_mode |= both;
    ReplaceAccConfig(config);
    AccDecisionInfo info;
    Accelerates("198.51.100.10", &info);
    EXPECT_EQ(std::string(info.selected_proxy.proxy_addr), "198.51.100.20") << both;
    EXPECT_EQ(info.selected_proxy.proxy_port, 7001) << both;
    EXPECT_EQ(info.selected_proxy.proxy_idc, 1u) << both;
    EXPECT_EQ(info.selected_proxy.type, forced.selected_proxy.type) << both;
  }
}

SCENARIO_F(TestMode, MendsWhatTheFileAsksForWhateverTheClientSays) {
  const std::string file =
      "[TestAccGame]\nprocess_count=1\nproc1=dawn.exe\nproxy_ip=198.51.100.20\n"
      "proxy_port=7001\nnet_mode=24\n";
  const test::Mended client(kMendAll);
  WriteFileBeside(file);
  ASSERT_TRUE(ReadTestConfig());
  EXPECT_EQ(GetMending().bits(), 0u);
  WriteFileBeside(file + "mend=half-close\n");
  ASSERT_TRUE(ReadTestConfig());
  EXPECT_EQ(GetMending().bits(), kMendHalfClose);
}

SCENARIO_F(TestMode, WithoutAWholeFileTheClientDecides) {
  EXPECT_FALSE(ReadTestConfig());
  WriteFileBeside("[TestAccGame]\nprocess_count=1\nproc1=dawn.exe\nproxy_ip=198.51.100.20\n");
  EXPECT_FALSE(ReadTestConfig());
  test::GameProcess game;
  game.ListAsGame();
  EXPECT_TRUE(ReadTestConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 7u);
}

SCENARIO_F(TestMode, AFileThatAsksForNothingIsObeyedWhateverTheClientSays) {
  WriteFileBeside(
      "[TestAccGame]\nprocess_count=1\nproc1=dawn.exe\nproxy_ip=198.51.100.20\n"
      "proxy_port=7001\nnet_mode=0\n");
  test::GameProcess game;
  game.ListAsGame();
  EXPECT_FALSE(ReadTestConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 2000005u);
}

}  // namespace
