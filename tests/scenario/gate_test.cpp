// The gate inside one process, and the two switches that a diagnostic file can set.
#include "start/gate.h"

#include <gtest/gtest.h>

#include <cstring>

#include "common/named_mutex.h"
#include "common/text.h"
#include "hooks/block_config.h"
#include "hooks/hook_flags.h"
#include "port/shared/process.h"
#include "port/sim/scenario.h"
#include "route/acc_config.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/threads.h"

namespace {

using moru_vyr::lsp::CheckCanHook;
using moru_vyr::lsp::GetHookFlags;
using moru_vyr::lsp::SingleInstanceLock;
using moru_vyr::lsp::UpdateBlockConfig;

bool Exists(const char* mutex) {
  const HANDLE handle = OpenMutexA(SYNCHRONIZE, FALSE, mutex);
  if (handle == nullptr) return false;
  CloseHandle(handle);
  return true;
}

SCENARIO(Gate, AProcessThatIsNotHookedLeavesNoTrace) {
  port::SetProcess(L"C:\\a.exe", "", 77);
  EXPECT_FALSE(CheckCanHook(false));
  EXPECT_FALSE(Exists("{BA3793BB-FB18-40DF-8C89-FA7C0159FADC}_single_mutex_77"));
  EXPECT_TRUE(CheckCanHook(true));
  EXPECT_TRUE(Exists("{BA3793BB-FB18-40DF-8C89-FA7C0159FADC}_single_mutex_77"));
  EXPECT_TRUE(Exists("{CF3126B6-1F08-4D9B-AF1B-D2F5D3A458CB}_single_lock_77"));
  EXPECT_TRUE(CheckCanHook(true));
  EXPECT_FALSE(CheckCanHook(false));
}

SCENARIO(Gate, OneCopyOwnsTheGateAtATime) {
  SingleInstanceLock first("gate", "gate_lock");
  EXPECT_TRUE(first.owns());
  {
    SingleInstanceLock second("gate", "gate_lock");
    EXPECT_FALSE(second.owns());
  }
  EXPECT_TRUE(Exists("gate"));  // the copy that lost changed nothing
  first = SingleInstanceLock();
  EXPECT_FALSE(Exists("gate"));
  SingleInstanceLock third("gate", "gate_lock");
  EXPECT_TRUE(third.owns());
}

SCENARIO(Gate, TheMutexBelongsToItsCreator) {
  const SingleInstanceLock first("gate", "gate_lock");
  test::RunThread([] {
    const HANDLE gate = OpenMutexA(SYNCHRONIZE, FALSE, "gate");
    ASSERT_NE(gate, nullptr);
    EXPECT_EQ(WaitForSingleObject(gate, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    CloseHandle(gate);
  });
}

SCENARIO_SEEDS(Gate, OfManyCopiesAtOnceExactlyOneOwnsTheGate, 20) {
  SingleInstanceLock copies[8];
  test::RunThreads(8, [&](int i) { copies[i] = SingleInstanceLock("gate", "gate_lock"); });
  int owners = 0;
  for (const SingleInstanceLock& copy : copies) owners += copy.owns();
  EXPECT_EQ(owners, 1);
}

// Two copies that look at the same moment would both find the gate free.
SCENARIO(Gate, ACopyWaitsUntilAnotherHasDecided) {
  test::RunThreads(2, [](int i) {
    if (i == 0) {
      common::NamedMutex lock("gate_lock");
      lock.lock();
      Sleep(100);
      lock.unlock();
      return;
    }
    Sleep(10);
    const DWORD begin = GetTickCount();
    const SingleInstanceLock copy("gate", "gate_lock");
    EXPECT_GE(GetTickCount() - begin, 80u);
    EXPECT_TRUE(copy.owns());
  });
}

// --- vyr_lsp.ini ------------------------------------------------------------------------------

void WriteIni(const std::wstring& path, const std::string& text) {
  CreateDirectoryW(L"C:\\logs", nullptr);
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  DWORD written = 0;
  WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  CloseHandle(file);
}

void Configure(common::u32 log_level, const std::string& log_path) {
  moru_vyr::lsp::AccConfigRecord record;
  record.log_level = log_level;
  common::SetFieldText(record.log_path, log_path);
  moru_vyr::lsp::ReplaceAccConfig(record);
}

void ExpectBlocked(bool tcp, bool udp) {
  EXPECT_EQ(GetHookFlags().block_tcp, tcp);
  EXPECT_EQ(GetHookFlags().block_udp, udp);
}

SCENARIO(BlockConfig, FalseBlocksAndIsLogged) {
  WriteIni(L"C:\\logs\\vyr_lsp.ini", "[LSP]\r\nTCP=False\r\nUDP=true\r\n");
  Configure(0, "C:\\logs\\");
  test::LogCapture log(0);
  UpdateBlockConfig();
  ExpectBlocked(true, false);
  EXPECT_TRUE(log.Contains("[0][lsp]log path=C:\\logs\\\n"));
  EXPECT_TRUE(log.Contains("[0][lsp]" + test::BlockRead("true", "false")));
}

SCENARIO(BlockConfig, EachKeyHasItsOwnSwitch) {
  WriteIni(L"C:\\logs\\vyr_lsp.ini", "[LSP]\r\nUDP=FALSE\r\n");
  Configure(0, "C:\\logs\\");
  UpdateBlockConfig();
  ExpectBlocked(false, true);
}

SCENARIO(BlockConfig, NothingClearsASwitch) {
  WriteIni(L"C:\\logs\\vyr_lsp.ini", "[LSP]\r\nTCP=false\r\nUDP=false\r\n");
  Configure(0, "C:\\logs\\");
  UpdateBlockConfig();
  WriteIni(L"C:\\logs\\vyr_lsp.ini", "[LSP]\r\nTCP=true\r\nUDP=true\r\n");
  UpdateBlockConfig();
  ExpectBlocked(true, true);
}

SCENARIO(BlockConfig, OtherValuesBlockNothing) {
  Configure(0, "C:\\logs\\");
  for (const char* const value : {"", "0", "no", "fals", "falsey", "false_and_longer"}) {
    WriteIni(L"C:\\logs\\vyr_lsp.ini", std::string("[LSP]\r\nTCP=") + value + "\r\n");
    UpdateBlockConfig();
    ExpectBlocked(false, false);
  }
}

SCENARIO(BlockConfig, IsReadAtTheMostVerboseLevelOnly) {
  WriteIni(L"C:\\logs\\vyr_lsp.ini", "[LSP]\r\nTCP=false\r\nUDP=false\r\n");
  for (const common::u32 level : {1u, 4u, 7u}) {
    Configure(level, "C:\\logs\\");
    UpdateBlockConfig();
    ExpectBlocked(false, false);
  }
}

SCENARIO(BlockConfig, AFileThatIsMissingBlocksNothing) {
  Configure(0, "C:\\no_file_here\\");
  test::LogCapture log(0);
  UpdateBlockConfig();
  ExpectBlocked(false, false);
  EXPECT_TRUE(log.Contains(test::BlockRead("false", "false")));
}

SCENARIO(BlockConfig, WithoutALogPathTheFileIsInTheRootOfTheDrive) {
  WriteIni(L"\\vyr_lsp.ini", "[LSP]\r\nTCP=false\r\n");
  Configure(0, "");
  test::LogCapture log(0);
  UpdateBlockConfig();
  ExpectBlocked(true, false);
  EXPECT_FALSE(log.Contains(test::kLogPath));
}

// 259 characters and their end are what a path may have.
SCENARIO(BlockConfig, TheLongestPathIsRead) {
  const std::string directory = "C:\\" + std::string(120, 'a') + "\\" + std::string(123, 'b');
  CreateDirectoryW((L"C:\\" + std::wstring(120, L'a')).c_str(), nullptr);
  for (const std::size_t size : {std::size_t{247}, std::size_t{248}}) {
    const std::string path = directory + std::string(size - directory.size(), 'c');
    const std::wstring wide(path.begin(), path.end());
    CreateDirectoryW(wide.c_str(), nullptr);
    WriteIni(wide + L"\\vyr_lsp.ini",
             size == 247 ? "[LSP]\r\nTCP=false\r\n" : "[LSP]\r\nUDP=false\r\n");
    Configure(0, path + "\\");
    UpdateBlockConfig();
    ExpectBlocked(true, false);
  }
}

// The directory and the file's name together pass what a path may have.
SCENARIO(BlockConfig, ALogPathWithoutRoomForTheNameReadsNothing) {
  test::LogCapture log(0);
  Configure(0, "C:\\" + std::string(255, 'a') + "\\");
  UpdateBlockConfig();
  Configure(0, "C:\\" + std::string(245, 'a') + "\\");
  UpdateBlockConfig();
  ExpectBlocked(false, false);
}

}  // namespace
