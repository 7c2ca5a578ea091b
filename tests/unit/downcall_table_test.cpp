#include "hooks/downcall_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "common/process_info.h"
#include "hooks/hook_entries.h"
#include "hooks/hook_flags.h"
#include "tests/unit/scripted_provider.h"
#include "tests/unit/trace_capture.h"

namespace moru_vyr::lsp {
namespace {

struct DowncallTableTest : testing::Test {
  DowncallTableTest() { Reset(); }
  ~DowncallTableTest() override { Reset(); }
  static void Reset() {
    common::GetProcessInfo() = {};
    GetHookFlags().speed_tester_mode = false;
  }
  // A table that differs from the others.
  WSPPROC_TABLE Marked(int mark) {
    WSPPROC_TABLE marked = test::ScriptedProvider::Table();
    const std::uintptr_t word = static_cast<std::uintptr_t>(mark);
    std::memcpy(&marked.lpWSPListen, &word, sizeof word);
    return marked;
  }
  void Save(int protocol) {
    const WSPPROC_TABLE next = Marked(protocol + 1);
    SaveDowncallTable(protocol, &upcalls, &next, nullptr);
  }
  short TypeOf(int protocol) {
    short type = -1;
    table = GetDowncallTable(protocol, &type);
    return type;
  }
  common::ProcessInfo& process = common::GetProcessInfo();
  WSPUPCALLTABLE upcalls{};
  WSPPROC_TABLE* table = nullptr;
};

TEST_F(DowncallTableTest, NothingIsFoundBeforeTheFirstStart) {
  for (const int protocol : {0, 1, 6, 17, 255}) {
    EXPECT_EQ(TypeOf(protocol), 0) << protocol;
    EXPECT_EQ(table, nullptr) << protocol;
  }
  EXPECT_EQ(GetDowncallTable(6, nullptr), nullptr);
}

TEST_F(DowncallTableTest, EachProtocolFindsItsSlot) {
  for (const int protocol : {6, 17, 0}) Save(protocol);
  EXPECT_EQ(TypeOf(6), 6);
  EXPECT_EQ(table, &process.tcp_proc_table);
  EXPECT_EQ(TypeOf(17), 17);
  EXPECT_EQ(table, &process.udp_proc_table);
  EXPECT_EQ(TypeOf(255), 255);
  EXPECT_EQ(table, &process.raw_proc_table);
}

TEST_F(DowncallTableTest, PingAndUnnamedProtocolsTakeTheTcpTable) {
  for (const int protocol : {0, 17, 6}) Save(protocol);
  for (const int protocol : {0, 1, 2, 58, -1}) {
    EXPECT_EQ(TypeOf(protocol), 6) << protocol;
    EXPECT_EQ(table, &process.tcp_proc_table) << protocol;
  }
}

TEST_F(DowncallTableTest, FallsBackToTcpThenUdpThenRaw) {
  Save(0);
  EXPECT_EQ(TypeOf(6), 255);
  EXPECT_EQ(TypeOf(17), 255);
  EXPECT_EQ(TypeOf(1), 255);
  Save(17);
  EXPECT_EQ(TypeOf(6), 17);
  EXPECT_EQ(TypeOf(1), 17);
  EXPECT_EQ(TypeOf(255), 255);
  Save(6);
  EXPECT_EQ(TypeOf(1), 6);
}

TEST_F(DowncallTableTest, AllProtocolsWithoutARawTableTakeTheUdpTable) {
  Save(17);
  EXPECT_EQ(TypeOf(255), 17);
  EXPECT_EQ(table, &process.udp_proc_table);
}

TEST_F(DowncallTableTest, SavesUnderSixSeventeenAndZeroOnly) {
  for (const int protocol : {1, 255, 58, -1}) Save(protocol);
  EXPECT_EQ(TypeOf(6), 0);
  Save(0);
  EXPECT_EQ(process.tcp_proc_table.lpWSPSocket, nullptr);
  EXPECT_EQ(process.udp_proc_table.lpWSPSocket, nullptr);
  EXPECT_NE(process.raw_proc_table.lpWSPSocket, nullptr);
}

TEST_F(DowncallTableTest, StoresBothTablesWhole) {
  std::memset(&upcalls, 0x5a, sizeof upcalls);
  const WSPPROC_TABLE next = Marked(42);
  SaveDowncallTable(17, &upcalls, &next, nullptr);
  EXPECT_EQ(std::memcmp(&process.udp_upcall_table, &upcalls, sizeof upcalls), 0);
  EXPECT_EQ(std::memcmp(&process.udp_proc_table, &next, sizeof next), 0);
}

TEST_F(DowncallTableTest, AnEmptyTableDoesNotCountAsFilled) {
  const WSPPROC_TABLE empty{};
  SaveDowncallTable(6, &upcalls, &empty, nullptr);
  EXPECT_EQ(TypeOf(6), 0);
  EXPECT_EQ(table, nullptr);
}

TEST_F(DowncallTableTest, ProtocolWithoutASlotStillGetsAHookedTable) {
  const WSPPROC_TABLE next = Marked(1);
  WSPPROC_TABLE out{};
  SaveDowncallTable(1, &upcalls, &next, &out);
  EXPECT_EQ(out.lpWSPSocket, &WSPSocket);
  EXPECT_EQ(TypeOf(6), 0);
}

// Twelve entries are ours, and the other eighteen are the next provider's to the bit.
TEST_F(DowncallTableTest, ReplacesTwelveEntriesOfThirty) {
  const WSPPROC_TABLE next = test::ScriptedProvider::Table();
  WSPPROC_TABLE out{};
  SaveDowncallTable(6, &upcalls, &next, &out);
  EXPECT_EQ(out.lpWSPAccept, &WSPAccept);
  EXPECT_EQ(out.lpWSPBind, &WSPBind);
  EXPECT_EQ(out.lpWSPCloseSocket, &WSPCloseSocket);
  EXPECT_EQ(out.lpWSPConnect, &WSPConnect);
  EXPECT_EQ(out.lpWSPGetPeerName, &WSPGetPeerName);
  EXPECT_EQ(out.lpWSPSocket, &WSPSocket);
  EXPECT_EQ(out.lpWSPSend, &WSPSend);
  EXPECT_EQ(out.lpWSPRecv, &WSPRecv);
  EXPECT_EQ(out.lpWSPSendTo, &WSPSendTo);
  EXPECT_EQ(out.lpWSPRecvFrom, &WSPRecvFrom);
  EXPECT_EQ(out.lpWSPIoctl, &WSPIoctl);
  EXPECT_EQ(out.lpWSPCleanup, &WSPCleanup);

  void* before[30];
  void* after[30];
  static_assert(sizeof before == sizeof next);
  std::memcpy(before, &next, sizeof next);
  std::memcpy(after, &out, sizeof out);
  int kept = 0;
  for (int i = 0; i < 30; ++i) kept += before[i] == after[i];
  EXPECT_EQ(kept, 18);
  // The process stores the next provider's own table.
  EXPECT_EQ(std::memcmp(&process.tcp_proc_table, &next, sizeof next), 0);
}

TEST_F(DowncallTableTest, HookingNothingIsTraced) {
  test::TraceCapture trace;
  EXPECT_FALSE(HookWSPAPI(nullptr));
  ASSERT_EQ(trace.lines().size(), 1u);
  EXPECT_EQ(trace.lines()[0], "[LspTrace]HookWSPAPI: failed with invalid param!\n");
}

TEST_F(DowncallTableTest, SpeedTesterIsRecognisedInAnyCase) {
  WSPPROC_TABLE out = test::ScriptedProvider::Table();
  std::strcpy(process.process_name, "SpeedTester.exe.bak");
  EXPECT_TRUE(HookWSPAPI(&out));
  EXPECT_FALSE(GetHookFlags().speed_tester_mode);
  std::strcpy(process.process_name, "speedTESTER.EXE");
  EXPECT_TRUE(HookWSPAPI(&out));
  EXPECT_TRUE(GetHookFlags().speed_tester_mode);
}

}  // namespace
}  // namespace moru_vyr::lsp
