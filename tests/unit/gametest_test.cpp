// Acceleration by a file beside the program. At stake: a developer types that file, so it may
// contain anything, and what it does not say must not be guessed.
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>

#include "abi/ip_table_formats.h"
#include "abi/mending_names.h"
#include "common/process_info.h"
#include "common/text.h"
#include "gametest/lsp_game_tester.h"
#include "gametest/test_mode.h"
#include "route/acc_config.h"
#include "route/mending.h"
#include "route/route.h"
#include "start/config_source.h"
#include "tests/support/end_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/out_of_memory.h"
#include "tests/unit/trace_capture.h"

namespace moru_vyr::lsp {
namespace {

struct GameTester : testing::Test {
  GameTester() {
    test::EndWorker();
    common::SetFieldText(common::GetProcessInfo().process_path, dir / "game.exe");
  }
  ~GameTester() override {
    common::GetProcessInfo().process_path[0] = '\0';
    common::GetProcessInfo().process_name[0] = '\0';
    DeleteFileW(test::Wide(File()).c_str());
    ReplaceAccConfig(AccConfig{});
    ReplaceMending(Mending());
  }
  std::string File() const { return dir / "vyr_lsp_test.ini"; }
  void WriteBytes(const std::string& bytes) {
    const HANDLE file = CreateFileW(test::Wide(File()).c_str(), GENERIC_WRITE, 0, nullptr,
                                    CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    DWORD written = 0;
    WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
    CloseHandle(file);
  }
  void Write(const std::string& keys) { WriteBytes("[TestAccGame]\r\n" + keys); }
  bool Traced(const std::string& text) {
    for (const std::string& line : test::TraceCapture::lines())
      if (line.find(text) != std::string::npos) return true;
    return false;
  }

  test::TempDir dir;
  test::TraceCapture trace;
  LspGameTester tester;
};

const char kWhole[] =
    "process_count=1\r\nproc1=game.exe\r\nproxy_ip=198.51.100.20\r\nproxy_port=7001\r\n"
    "net_mode=24\r\nlog_level=5\r\n";

TEST_F(GameTester, WithoutAFileItIsOff) {
  EXPECT_TRUE(tester.Init());
  EXPECT_FALSE(tester.IsEnabled());
  EXPECT_TRUE(Traced("Game Test Init, log_path not exist=[" + File() + "] \n"));
}

TEST_F(GameTester, AWholeFileTurnsItOn) {
  Write(kWhole);
  EXPECT_TRUE(tester.Init());
  EXPECT_TRUE(tester.IsEnabled());
  EXPECT_TRUE(Traced("Game Test Init, log_path =[" + File() + "] \n"));
  EXPECT_TRUE(Traced("Game Test Init, ip=198.51.100.20, port=7001, net_mode=24, log_level=5\n"));
  std::string directory;
  const test::LogCapture log(0);
  common::u16to8(tester.GetProcessDir(), &directory);
  EXPECT_TRUE(log.Contains("[0][lsp]process path=" + (dir / "game.exe") + "\n")) << log.Text();
  EXPECT_EQ(directory + "\\game.exe", dir / "game.exe");
}

TEST_F(GameTester, SaysWhatAFileLacks) {
  struct Case {
    const char* keys;
    const char* trace;
  };
  const Case cases[] = {
      {"", "Game Test Init, process count error quit,last_error="},
      {"process_count=0\r\n", "Game Test Init, process count error quit,last_error="},
      {"process_count=2\r\nproc3=a\r\n", "Game Test Init, process read count error quit\n"},
      {"process_count=1\r\nproc1=\r\n", "Game Test Init, process read count error quit\n"},
      {"process_count=1\r\nproxy_ip=1.2.3.4\r\nproxy_port=1\r\n",
       "Game Test Init, process read count error quit\n"},
      {"process_count=1\r\nproc1=a\r\nproxy_port=1\r\n", "Game Test Init, process ip empty\n"},
      {"process_count=1\r\nproc1=a\r\nproxy_ip=1.2.3.4\r\n",
       "Game Test Init, process port empty\n"},
      {"process_count=1\r\nproc1=a\r\nproxy_ip=1.2.3.4\r\nproxy_port=x\r\n",
       "Game Test Init, process port empty\n"},
  };
  for (const Case& expected : cases) {
    Write(expected.keys);
    test::TraceCapture::lines().clear();
    EXPECT_TRUE(tester.Init());
    EXPECT_FALSE(tester.IsEnabled()) << expected.keys;
    EXPECT_TRUE(Traced(expected.trace)) << expected.keys;
    int said = 0;
    for (const std::string& line : test::TraceCapture::lines())
      if (line.find("quit") != line.npos || line.find("empty") != line.npos) ++said;
    EXPECT_EQ(said, 1) << "the first thing that it lacks: " << expected.keys;
  }
}

TEST_F(GameTester, NamesEachKeyThatItDoesNotKnow) {
  Write(std::string(kWhole) + "proc2=b\r\nMEND=none\r\nPROC10=c\r\n");
  EXPECT_TRUE(tester.Init());
  EXPECT_FALSE(Traced("unknown key"));
  Write(std::string(kWhole) + "netmode=24\r\nproc_1=a\r\nprocess=b\r\n\r\n[Other]\r\nkey=1\r\n");
  EXPECT_TRUE(tester.Init());
  for (const char* key : {"netmode", "proc_1", "process"}) {
    EXPECT_TRUE(Traced("Game Test Init, unknown key=" + std::string(key) + "\n")) << key;
  }
  EXPECT_FALSE(Traced("unknown key=key")) << "another section is somebody else's";
  EXPECT_TRUE(tester.IsEnabled()) << "and the rest counts";
  test::TraceCapture::lines().clear();
  Write("process_cuont=1\r\n");
  EXPECT_TRUE(tester.Init());
  EXPECT_TRUE(Traced("unknown key=process_cuont\n")) << "where something is missing, too";
}

// However many there are, no more is read than there is room for.
TEST_F(GameTester, ManyUnknownKeysAreNamedAsFarAsTheyFit) {
  std::string many;
  for (int i = 0; i < 1000; ++i) many += "key" + std::to_string(i) + "=1\r\n";
  Write(kWhole + many);
  EXPECT_TRUE(tester.Init());
  EXPECT_TRUE(Traced("unknown key=key0\n"));
  EXPECT_FALSE(Traced("unknown key=key999\n"));
  EXPECT_TRUE(tester.IsEnabled());
}

TEST_F(GameTester, AFileThatIsNoLongerWholeTurnsItOff) {
  Write(kWhole);
  tester.Init();
  DeleteFileW(test::Wide(File()).c_str());
  EXPECT_TRUE(tester.Init());
  EXPECT_FALSE(tester.IsEnabled());
}

TEST_F(GameTester, OneNameAmongTheKeysIsEnough) {
  Write("process_count=2\r\nproc1=\r\nproc2=b.exe\r\nproxy_ip=1.2.3.4\r\nproxy_port=1\r\n");
  tester.Init();
  EXPECT_TRUE(tester.IsEnabled());
  EXPECT_TRUE(Traced("ip=1.2.3.4, port=1, net_mode=0, log_level=4\n")) << "and the defaults";
}

TEST_F(GameTester, PortsAreLimited) {
  for (const char* port : {"70000", "65536", "65535", "-1", "4294967295"}) {
    Write(std::string("process_count=1\r\nproc1=a\r\nproxy_ip=1.2.3.4\r\nproxy_port=") + port);
    test::TraceCapture::lines().clear();
    tester.Init();
    EXPECT_TRUE(Traced("port=65535,")) << port;
  }
}

TEST_F(GameTester, LongTextsAreCut) {
  const std::string longest(5000, '7');
  Write("process_count=1\r\nproc1=" + longest + "\r\nproxy_ip=" + longest +
        "\r\nproxy_port=1\r\nnet_mode=8\r\n");
  tester.Init();
  EXPECT_TRUE(Traced("ip=" + std::string(128, '7') + ", port=1"));
  EXPECT_TRUE(tester.ReadAccConfig());
  EXPECT_EQ(std::string(GetAccConfig()->forced_proxy.proxy_addr), std::string(31, '7'));
}

// If each lookup reads the file again this takes seconds, and its last line must be found.
TEST_F(GameTester, TheLastOfTenThousandCounts) {
  std::string keys = "process_count=10000\r\n";
#ifdef _WIN32
  for (int i = 1; i < 10'000; ++i) keys += "proc" + std::to_string(i) + "=game.exe\r\n";
#endif
  Write(keys + "proc10000=last.exe\r\nproxy_ip=1.2.3.4\r\nproxy_port=1\r\n");
  tester.Init();
  EXPECT_TRUE(tester.IsEnabled());
}

// A count that was mistyped may not hold the program's start.
TEST_F(GameTester, AnAbsurdCountEnds) {
  Write("process_count=-1\r\nproc1=a.exe\r\nproxy_ip=1.2.3.4\r\nproxy_port=1\r\n");
  tester.Init();
  EXPECT_TRUE(tester.IsEnabled());
}

TEST_F(GameTester, ReadsUtf16) {
  std::string bytes = "\xff\xfe";
  for (const char c : std::string("[TestAccGame]\r\n") + kWhole) bytes += {c, '\0'};
  WriteBytes(bytes);
  tester.Init();
  EXPECT_TRUE(tester.IsEnabled());
  EXPECT_TRUE(Traced("ip=198.51.100.20, port=7001, net_mode=24, log_level=5\n"));
}

TEST_F(GameTester, SurvivesAFileOfAnything) {
  std::string bytes = "[TestAccGame]\nprocess_count=3\nproc1";
  for (int i = 0; i < 4096; ++i) bytes += static_cast<char>(i * 37 + i / 256);
  WriteBytes(bytes);
  EXPECT_TRUE(tester.Init());
  WriteBytes("\xff\xfe[");
  EXPECT_TRUE(tester.Init());
  EXPECT_FALSE(tester.IsEnabled());
}

TEST_F(GameTester, TheConfigurationHasItsBuiltInValues) {
  AccConfig before;
  std::memset(static_cast<void*>(&before), 0x5a, sizeof before);
  ReplaceAccConfig(before);
  Write(kWhole);
  tester.Init();
  ASSERT_TRUE(tester.ReadAccConfig());
  EXPECT_TRUE(Traced("process path is " + (dir / "game.exe") + "\n"));
  EXPECT_TRUE(Traced("Read Config, ip=198.51.100.20, port=7001, net_mode=24\n"));
  EXPECT_TRUE(Traced("GameTestModule ReadAccConfig returns done!\n"));

  // Every word that is not 0, by its place in the record, and so every other is 0.
  AccConfig expected;
  auto* const bytes = reinterpret_cast<unsigned char*>(&expected);
  const auto put = [bytes](std::size_t at, int size, u64 value) {
    for (int i = 0; i < size; ++i)
      bytes[at + static_cast<std::size_t>(i)] = static_cast<unsigned char>(value >> 8 * i);
  };
  put(8, 8, 2000005);
  put(16, 4, 24);
  put(2884, 4, 5);
  put(3164, 4, 2);
  put(3168, 4, 1);
  put(3172, 4, 1);
  std::memcpy(bytes + 3172 + 8, "198.51.100.20", 13);
  put(3172 + 40, 2, 7001);
  std::memcpy(bytes + 3172 + 52, "Test", 4);
  put(11090, 2, 900);
  put(11092, 2, 1000);
  put(11094, 2, 20);
  put(11096, 4, 10000);
  put(11100, 1, 1);
  put(11104, 4, 8000);
  put(11108, 1, 1);
  put(11112, 4, 1000);
  put(11116, 1, 2);
  put(11117, 1, 8);
  put(11118, 1, 5);
  put(11119, 1, 5);
  put(11120, 2, 200);
  put(11122, 2, 20);
  put(11124, 2, 30);
  put(11128, 4, 1000);
  put(11132, 4, 200);
  put(11136, 4, 1000);
  put(11140, 2, 100);
  put(11142, 2, 30);
  put(11144, 1, 1);
  put(11145, 1, 1);
  put(11146, 1, 1);
  put(11148, 2, 6);
  put(11150, 2, 20);
  put(11152, 2, 3);
  put(11154, 2, 30);
  std::memcpy(bytes + 11156, "26,2", 4);
  put(11285, 1, 1);
  put(11286, 2, 300);
  put(11288, 2, 3);
  put(11292, 4, 30);
  put(11296, 4, 1000);
  put(11300, 2, 80);
  put(11302, 2, 20);
  put(11304, 1, 4);
  put(11306, 2, 1000);
  const auto* const got = reinterpret_cast<const unsigned char*>(GetAccConfig());
  for (std::size_t i = 0; i < sizeof(AccConfig); ++i) ASSERT_EQ(got[i], bytes[i]) << "byte " << i;
}

TEST_F(GameTester, TheFileSaysWhatIsMended) {
  std::string each;
  for (const MendingName& known : kMendingNames) each += std::string(known.name) + ",";
  each.pop_back();
  const std::pair<std::string, u32> cases[] = {
      {"", 0},
      {"mend=", 0},
      {"mend=none", 0},
      {"mend=all", kMendAll},
      {"mend=all, throughput", kMendKnown},
      {"mend=" + each, kMendKnown},
      {"mend=reset", kMendReset},
      {"mend= half-close ,reset\t", kMendHalfClose | kMendReset},
  };
  for (const auto& [key, bits] : cases) {
    Write(kWhole + key + "\r\n");
    EXPECT_TRUE(tester.Init());
    EXPECT_TRUE(tester.IsEnabled()) << key;
    EXPECT_TRUE(tester.ReadAccConfig());
    EXPECT_EQ(GetMending().bits(), bits) << key;
  }
}

TEST_F(GameTester, AMendingThatIsNoneTurnsItOff) {
  const std::pair<const char*, const char*> cases[] = {
      {"resets", "resets"},
      {"reset,", ""},
      {"reset,,half-close", ""},
      {"Reset", "Reset"},
      {"reset half-close", "reset half-close"},
      {"reset,all", "all"},
  };
  for (const auto& [list, name] : cases) {
    Write(kWhole + ("mend=" + std::string(list)) + "\r\n");
    test::TraceCapture::lines().clear();
    EXPECT_TRUE(tester.Init());
    EXPECT_FALSE(tester.IsEnabled()) << list;
    EXPECT_TRUE(Traced("Game Test Init, mend name error quit, name=" + std::string(name))) << list;
  }
}

TEST_F(GameTester, WithoutANetModeNothingIsAccelerated) {
  common::SetFieldText(common::GetProcessInfo().process_name, "game.exe");
  Write("process_count=1\r\nproc1=a\r\nproxy_ip=1.2.3.4\r\nproxy_port=1\r\n");
  tester.Init();
  EXPECT_TRUE(tester.IsEnabled());
  EXPECT_FALSE(tester.ReadAccConfig());
  EXPECT_TRUE(Traced("Based on server config, the game will not be accelerated:game.exe"));
  EXPECT_EQ(GetAccConfig()->game_id, 2000005u) << "installed all the same";
}

TEST_F(GameTester, WithoutInitTheConfigurationIsThatOfNoFile) {
  EXPECT_FALSE(tester.IsEnabled());
  EXPECT_FALSE(tester.ReadAccConfig());
  EXPECT_EQ(GetAccConfig()->forced_proxy.proxy_port, 0);
  EXPECT_EQ(GetMending().bits(), 0u);
  common::GetProcessInfo().process_path[0] = '\0';
  EXPECT_FALSE(tester.ReadAccConfig());
  EXPECT_TRUE(Traced("process path is empty, read acce info failed!\n"));
}

TEST_F(GameTester, WithoutMemoryForItsStateItGivesTheEmptyAnswers) {
  Write(kWhole);
  std::optional<LspGameTester> empty;
  {
    const test::OutOfMemory none;
    empty.emplace();
  }
  EXPECT_FALSE(empty->Init());
  EXPECT_FALSE(empty->IsEnabled());
  EXPECT_EQ(empty->GetProcessDir(), L"");
  EXPECT_FALSE(empty->ReadAccConfig());
}

TEST_F(GameTester, WithoutMemoryToReadTheFileItIsOff) {
  Write(kWhole);
  for (int nth = 1; nth <= 3; ++nth) {
    {
      const test::OutOfMemory from(nth);
      EXPECT_TRUE(tester.Init());
    }
    EXPECT_FALSE(tester.IsEnabled()) << nth;
  }
  EXPECT_TRUE(tester.Init());
  EXPECT_TRUE(tester.IsEnabled());
}

// The tables are the last thing that a process gets before it is served.
TEST_F(GameTester, WithoutMemoryForItsTablesAProcessIsNotServed) {
  Write(kWhole);
  {
    const test::OutOfMemory none(1, sizeof(IpTableRegion), sizeof(IpTableRegion));
    EXPECT_FALSE(ReadTestConfig());
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
}

// The product as it is built never looks at the file.
TEST_F(GameTester, TheProductDoesNotReadTheFile) {
  Write(kWhole);
  EXPECT_FALSE(ObtainAccConfig());
  EXPECT_EQ(GetAccConfig()->game_id, 0u);
  EXPECT_FALSE(Traced("Game Test Init"));
}

}  // namespace
}  // namespace moru_vyr::lsp
