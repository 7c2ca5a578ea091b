// What a process gets when Winsock first starts this provider in it. At stake: a game that the
// client serves must be hooked exactly once, and every other process must keep a working Winsock
// without us, whatever fails on the way.
#include <gtest/gtest.h>

#include <cstring>

#include "common/process_info.h"
#include "hooks/hook_flags.h"
#include "port/shared/faults.h"
#include "port/sim/scenario.h"
#include "route/acc_config.h"
#include "start/startup.h"
#include "tests/scenario/game_process.h"
#include "tests/support/threads.h"

namespace {

using common::GetProcessInfo;
using moru_vyr::lsp::GetAccConfig;
using moru_vyr::lsp::GetHookFlags;
using test::GameProcess;

constexpr char kFirst[] = "CheckCanHook, I am the first and can hook";

SCENARIO(Startup, GameIsPreparedOnceAndHookedForEachProtocol) {
  GameProcess game;
  game.ListAsGame();
  EXPECT_EQ(game.Start(6), 0) << game.AllTraces();
  EXPECT_TRUE(game.GotHookedTable());
  EXPECT_TRUE(game.Traced("WSPStartup end: 0, protocol=6, [will] hook"));
  EXPECT_EQ(game.Start(17), 0);
  EXPECT_TRUE(game.GotHookedTable());
  EXPECT_TRUE(game.Traced("WSPStartup end: 0, protocol=17, [will] hook"));
  EXPECT_EQ(game.Start(0), 0);
  EXPECT_TRUE(game.GotHookedTable());
  EXPECT_EQ(game.TraceCount(kFirst), 1);
  EXPECT_EQ(game.TraceCount("process path is C:\\Games\\Dawn\\dawn.exe\n"), 1);
}

SCENARIO(Startup, GameHasItsProcessInfoAndALogFile) {
  GameProcess game;
  game.ListAsGame();
  game.Start(6);
  EXPECT_STREQ(GetProcessInfo().process_path, "C:\\Games\\Dawn\\dawn.exe");
  EXPECT_STREQ(GetProcessInfo().process_name, "dawn.exe");
  EXPECT_EQ(std::string(GetProcessInfo().log_file_path).rfind("C:\\logs\\[dawn.exe][P4321]", 0), 0u)
      << GetProcessInfo().log_file_path;
  EXPECT_EQ(GetAccConfig()->game_id, 7u);
  EXPECT_EQ(GetProcessInfo().lsp_catalog_id, GameProcess::kOwnId);
  EXPECT_FALSE(GetHookFlags().speed_tester_mode);
}

SCENARIO(Startup, AnyOtherProcessGetsTheNextProvidersTable) {
  GameProcess process;
  EXPECT_EQ(process.Start(6), 0);
  EXPECT_TRUE(process.GotBaseTable());
  EXPECT_EQ(process.data.wVersion, MAKEWORD(2, 2));
  EXPECT_TRUE(process.Traced("WSPStartup end: 0, protocol=6, [not] hook"));
  EXPECT_FALSE(process.TracedStart("CheckCanHook"));
  EXPECT_FALSE(process.TracedStart("InitLog"));
  EXPECT_STREQ(GetProcessInfo().log_file_path, "");
  EXPECT_EQ(GetAccConfig()->valid, 0u);
  EXPECT_EQ(GetProcessInfo().tcp_proc_table.lpWSPSocket, nullptr);
}

// Its record is installed by the first start, and a second check of it would succeed.
SCENARIO(Startup, AGameThatIsNotAcceleratedStaysUnhookedAtEveryStart) {
  GameProcess game;
  game.ListAsGame(0, "C:\\logs\\", 0);
  for (const int protocol : {6, 17, 0}) {
    EXPECT_EQ(game.Start(protocol), 0);
    EXPECT_TRUE(game.GotBaseTable()) << game.AllTraces();
  }
  EXPECT_FALSE(game.TracedStart("CheckCanHook"));
  EXPECT_STREQ(GetProcessInfo().log_file_path, "");
}

SCENARIO(Startup, SpeedTesterIsHookedWithALogAndNoConfiguration) {
  GameProcess process;
  process.Is(L"D:\\tools\\SPEEDTESTER.exe");
  EXPECT_EQ(process.Start(6), 0);
  EXPECT_TRUE(process.GotHookedTable());
  EXPECT_EQ(process.TraceCount(kFirst), 1);  // the two calls before it recorded nothing
  EXPECT_TRUE(GetHookFlags().speed_tester_mode);
  EXPECT_STRNE(GetProcessInfo().log_file_path, "");
  const moru_vyr::lsp::AccConfig zero;
  EXPECT_EQ(std::memcmp(GetAccConfig(), &zero, sizeof zero), 0);
}

SCENARIO(Startup, NetProbeTestIsHookedWithoutALog) {
  GameProcess process;
  process.Is(L"C:\\tools\\NET_PROBE.exe", "\"C:\\tools\\NET_PROBE.exe\" -TEST");
  EXPECT_EQ(process.Start(17), 0);
  EXPECT_TRUE(process.GotHookedTable());
  EXPECT_EQ(process.TraceCount(kFirst), 1);
  EXPECT_FALSE(process.TracedStart("InitLog"));
  EXPECT_STREQ(GetProcessInfo().log_file_path, "");
  moru_vyr::lsp::AccConfig expected;
  expected.game_id = 99999;
  expected.net_mode = 196656;
  std::strcpy(expected.uin, "1");
  EXPECT_EQ(std::memcmp(GetAccConfig(), &expected, sizeof expected), 0);
}

SCENARIO(Startup, NetProbeNeedsNoMoreThanFiveCharacters) {
  GameProcess process;
  process.Is(L"C:\\tools\\net_probe.exe", "-test");
  process.Start(6);
  EXPECT_TRUE(process.GotHookedTable());
}

void ExpectNotHooked(const std::wstring& path, const std::string& command_line) {
  GameProcess process;
  process.Is(path, command_line);
  EXPECT_EQ(process.Start(6), 0);
  EXPECT_TRUE(process.GotBaseTable()) << process.AllTraces();
  EXPECT_EQ(GetAccConfig()->net_mode, 0u);
}

SCENARIO(Startup, NetProbeWithASpaceAfterTestIsRefused) {
  ExpectNotHooked(L"C:\\tools\\net_probe.exe", "net_probe.exe -test ");
}
SCENARIO(Startup, NetProbeWithAShortCommandLineIsRefused) {
  ExpectNotHooked(L"C:\\tools\\net_probe.exe", "test");
}
SCENARIO(Startup, NetProbeWithoutTestIsRefused) {
  ExpectNotHooked(L"C:\\tools\\net_probe.exe", "net_probe.exe --test-all");
}
SCENARIO(Startup, AnotherProgramWithTestIsRefused) {
  ExpectNotHooked(L"C:\\tools\\net_probe2.exe", "net_probe2.exe -test");
}
SCENARIO(Startup, ALongerNameThanSpeedTesterIsRefused) {
  ExpectNotHooked(L"C:\\tools\\MySpeedTester.exe", "");
}

SCENARIO(Startup, ASecondCopyOfTheLibraryHooksNothing) {
  GameProcess game;
  game.ListAsGame();
  const HANDLE first_copy =
      CreateMutexA(nullptr, TRUE, "{BA3793BB-FB18-40DF-8C89-FA7C0159FADC}_single_mutex_4321");
  ASSERT_NE(first_copy, nullptr);
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.Traced("CheckCanHook, someone has hooked and not hook"));
  EXPECT_TRUE(game.GotBaseTable());
  CloseHandle(first_copy);
  EXPECT_EQ(game.Start(17), 0);  // the verdict stands, though the other copy is gone
  EXPECT_TRUE(game.GotBaseTable());
}

SCENARIO(Startup, AnotherProcessWithALibraryDoesNotMatter) {
  GameProcess game;
  game.ListAsGame();
  const HANDLE other_process =
      CreateMutexA(nullptr, TRUE, "{BA3793BB-FB18-40DF-8C89-FA7C0159FADC}_single_mutex_4322");
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.GotHookedTable());
  CloseHandle(other_process);
}

SCENARIO(Startup, TheGateMutexStaysToTheEndOfTheProcess) {
  GameProcess game;
  game.ListAsGame();
  game.Start(6);
  INT error = 0;
  game.table.lpWSPCleanup(&error);
  const HANDLE gate =
      OpenMutexA(SYNCHRONIZE, FALSE, "{BA3793BB-FB18-40DF-8C89-FA7C0159FADC}_single_mutex_4321");
  EXPECT_NE(gate, nullptr);
  if (gate != nullptr) CloseHandle(gate);
}

// The next provider's own start belongs to ours, however long it takes.
SCENARIO(Startup, StartsRunOneAfterTheOther) {
  GameProcess game;
  game.LayerOverForeign();
  test::Foreign().start_takes_ms = 500;
  WSAPROTOCOL_INFOW tcp = game.Layered(6);
  const auto start = [&] {
    WSPPROC_TABLE table{};
    WSPDATA data{};
    EXPECT_EQ(WSPStartup(MAKEWORD(2, 2), &data, &tcp, game.upcalls, &table), 0);
    return GetTickCount();
  };
  DWORD first_ended = 0, second_began = 0, second_ended = 0;
  test::RunThread([&] {  // it must make the threads: this body goes on when all others wait
    test::RunThreads(2, [&](int i) {
      if (i == 0) {
        first_ended = start();
        return;
      }
      while (test::Foreign().starts == 0) Sleep(1);  // the first is in the next provider
      second_began = GetTickCount();
      second_ended = start();
    });
  });
  EXPECT_LT(second_began, first_ended);
  EXPECT_GE(second_ended - first_ended, 500u);  // it goes to the same provider, after the first
}

SCENARIO(Startup, WithoutProtocolInfoItFailsAfterPreparing) {
  GameProcess game;
  game.ListAsGame();
  EXPECT_EQ(game.Start(nullptr), 10106);
  EXPECT_TRUE(game.Traced("WSPStartup failed"));
  EXPECT_EQ(game.TraceCount(kFirst), 1);
  EXPECT_TRUE(game.GotEmptyTable());
  EXPECT_EQ(game.Start(6), 0);  // and does not harm the process
  EXPECT_TRUE(game.GotHookedTable());
}

SCENARIO(Startup, NullOutPointersAreHarmless) {
  GameProcess game;
  game.ListAsGame();
  WSAPROTOCOL_INFOW tcp = game.Layered(6);
  EXPECT_EQ(WSPStartup(MAKEWORD(2, 2), nullptr, &tcp, game.upcalls, nullptr), 0);
  EXPECT_NE(GetProcessInfo().tcp_proc_table.lpWSPSocket, nullptr);
}

SCENARIO(Startup, NullOutPointersAreHarmlessWithoutHooks) {
  GameProcess process;
  WSAPROTOCOL_INFOW tcp = process.Layered(6);
  EXPECT_EQ(WSPStartup(MAKEWORD(2, 2), nullptr, &tcp, process.upcalls, nullptr), 0);
}

SCENARIO(Startup, GuidIsThatOfThisProvider) {
  GUID guid{};
  GetLspGuid(&guid);
  const GUID expected = {
      0x4d2062b0, 0x79ca, 0x466e, {0x94, 0xd4, 0x21, 0xfe, 0x2e, 0xd9, 0x0e, 0xe6}};
  EXPECT_EQ(std::memcmp(&guid, &expected, sizeof guid), 0);
  GetLspGuid(nullptr);
}

SCENARIO(Startup, APathThatIsTooLongLeavesTheProcessUnserved) {
  ExpectNotHooked(L"C:\\" + std::wstring(300, L'a') + L"\\SpeedTester.exe", "");
}

// --- a failing platform call ----------------------------------------------------------------
// Each of the calls that starting a listed game makes fails in turn. Winsock gets 0 or 10106,
// the game is hooked or left alone, and nothing hangs or crashes.

enum Outcome { kHooked, kLeftAlone, kRefused };

struct Fault {
  const char* call;
  unsigned nth;
  DWORD error;
};

void ExpectOutcome(const std::vector<Fault>& faults, Outcome outcome, const char* trace = nullptr,
                   const char* log_path = "C:\\logs\\") {
  GameProcess game;
  game.ListAsGame(0, log_path);
  port::ClearFaults();
  for (const Fault& fault : faults) port::FailCall(fault.call, fault.nth, fault.error);
  const int result = game.Start(6);
  for (const Fault& fault : faults) EXPECT_GE(port::CallCount(fault.call), 1u) << fault.call;
  port::ClearFaults();
  EXPECT_EQ(result, outcome == kRefused ? 10106 : 0) << game.AllTraces();
  EXPECT_EQ(game.GotHookedTable(), outcome == kHooked) << game.AllTraces();
  EXPECT_EQ(game.GotBaseTable(), outcome == kLeftAlone);
  EXPECT_TRUE(trace == nullptr || game.Traced(trace)) << game.AllTraces();
  // A provider that cannot be loaded is told once, for the reason.
  const std::string all = game.AllTraces(), prefix = "LoadProviderPath: ";
  EXPECT_EQ(all.find(prefix), all.rfind(prefix)) << all;
}

SCENARIO(StartupFault, OwnPathUnknown) {
  ExpectOutcome({{"GetModuleFileNameW", 1, 5}}, kLeftAlone,
                "process path is empty, read acce info failed!\n");
}
SCENARIO(StartupFault, RegionCannotBeOpened) {
  ExpectOutcome({{"OpenFileMappingA", 1, 5}}, kLeftAlone,
                "read restriction from shared memory failed, mem_addr=null");
}
SCENARIO(StartupFault, RegionCannotBeMapped) {
  ExpectOutcome({{"MapViewOfFile", 1, 8}}, kLeftAlone,
                "read restriction from shared memory failed, mem_addr=null");
}
SCENARIO(StartupFault, RegionMutexMissing) {
  ExpectOutcome({{"CreateMutexA", 1, 8}}, kHooked, kFirst);
}
SCENARIO(StartupFault, GateLockMissing) {
  ExpectOutcome({{"CreateMutexA", 2, 8}}, kHooked, kFirst);
}
SCENARIO(StartupFault, GateMutexCannotBeMade) {
  ExpectOutcome({{"CreateMutexA", 3, 8}}, kLeftAlone,
                "CheckCanHook, someone has hooked and not hook");
}
// Its threads could outlive it.
SCENARIO(StartupFault, ModuleCannotBeKept) {
  ExpectOutcome({{"GetModuleHandleExW", 1, 126}}, kLeftAlone, kFirst);
}
SCENARIO(StartupFault, NoMutexesAtAll) { ExpectOutcome({{"CreateMutexA", 0, 8}}, kLeftAlone); }
SCENARIO(StartupFault, WaitsFail) {
  ExpectOutcome({{"WaitForSingleObject", 0, 6}}, kHooked, kFirst);
}
SCENARIO(StartupFault, LogFileCannotBeOpened) { ExpectOutcome({{"CreateFileW", 0, 5}}, kHooked); }
SCENARIO(StartupFault, LogDirectoryCannotBeMade) {
  ExpectOutcome({{"CreateDirectoryW", 0, 5}}, kHooked, kFirst, "C:\\never_made\\");
}
SCENARIO(StartupFault, LogFileHasNoSize) { ExpectOutcome({{"GetFileSizeEx", 0, 5}}, kHooked); }
SCENARIO(StartupFault, BlockFileCannotBeRead) {
  ExpectOutcome({{"GetPrivateProfileStringW", 0, 2}}, kHooked);
}
SCENARIO(StartupFault, CatalogueCannotBeSized) {
  ExpectOutcome({{"WSCEnumProtocols", 1, 10091}}, kRefused, "GetProtocols failed, error=10091");
}
SCENARIO(StartupFault, CatalogueCannotBeRead) {
  ExpectOutcome({{"WSCEnumProtocols", 2, 10091}}, kRefused,
                "InitLspChain: FindMatchingProvider failed!");
}
SCENARIO(StartupFault, NoMemoryForTheCatalogue) {
  ExpectOutcome({{"GlobalAlloc", 1, 8}}, kRefused, "GetProviders: EnumerateProviders failed!");
}
SCENARIO(StartupFault, NoMemoryForTheProviders) {
  ExpectOutcome({{"GlobalAlloc", 2, 8}}, kRefused, "GetProviders: alloc for providers failed");
}
SCENARIO(StartupFault, NextProviderHasNoPath) {
  ExpectOutcome({{"WSCGetProviderPath", 1, 10105}}, kRefused,
                "LoadProviderPath: WSCGetProviderPath failed: 10105");
}
SCENARIO(StartupFault, WidePathCannotBeExpanded) {
  ExpectOutcome({{"ExpandEnvironmentStringsW", 1, 87}}, kHooked);
}
SCENARIO(StartupFault, PathCannotBeNarrowed) {
  ExpectOutcome({{"ExpandEnvironmentStringsW", 1, 87}, {"WideCharToMultiByte", 0, 1113}}, kRefused,
                "LoadProviderPath: WideCharToMultiByte failed: 1113");
}
SCENARIO(StartupFault, NarrowPathCannotBeExpanded) {
  ExpectOutcome({{"ExpandEnvironmentStringsW", 1, 87}, {"ExpandEnvironmentStringsA", 1, 88}},
                kRefused, "LoadProviderPath: ExpandEnvironmentStringsA failed: 88");
}
SCENARIO(StartupFault, NarrowLibraryCannotBeLoaded) {
  ExpectOutcome({{"ExpandEnvironmentStringsW", 1, 87}, {"LoadLibraryA", 1, 126}}, kRefused,
                "LoadProviderPath: LoadLibraryA failed: 126");
}
SCENARIO(StartupFault, LibraryCannotBeLoaded) {
  ExpectOutcome({{"LoadLibraryW", 1, 126}}, kRefused, "LoadProviderPath: LoadLibraryW failed: 126");
}
SCENARIO(StartupFault, LibraryHasNoStart) {
  ExpectOutcome({{"GetProcAddress", 1, 127}}, kRefused,
                "LoadProviderPath: GetProcAddress failed: 127");
}

// The next provider's own refusal reaches Winsock as success with nothing in it: required.
SCENARIO(StartupFault, NextProviderRefusesToStart) {
  GameProcess game;
  game.ListAsGame();
  port::FailCall("BaseStartup", 1, 10091);
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.Traced("TCP/IP::InitializeProvider failed: 10091")) << game.AllTraces();
  EXPECT_TRUE(game.GotHookedTable());
  EXPECT_EQ(game.table.lpWSPListen, nullptr);
  INT error = 0;
  EXPECT_EQ(game.table.lpWSPSocket(AF_INET, SOCK_STREAM, 6, nullptr, 0, 1, &error), INVALID_SOCKET);
  EXPECT_EQ(error, 10050);
}

SCENARIO(StartupFault, NextProviderRefusesToStartUnhooked) {
  GameProcess process;
  port::FailCall("BaseStartup", 1, 10091);
  EXPECT_EQ(process.Start(6), 0);
  EXPECT_TRUE(process.GotEmptyTable());
}

}  // namespace
