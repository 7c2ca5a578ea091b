// Where a run's log file is and what its first lines say.
#include "route/init_log.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "common/log.h"
#include "common/log_file.h"
#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "tests/support/mended.h"
#include "tests/support/temp_dir.h"
#include "tests/unit/trace_capture.h"

namespace {

using common::GetLogFile;
using common::GetProcessInfo;
using common::SetFieldText;
using moru_vyr::lsp::AccConfig;
using moru_vyr::lsp::InitLog;
using moru_vyr::lsp::ReplaceAccConfig;
using test::ReadFileText;

class InitLogTest : public testing::Test {
 protected:
  InitLogTest() {
    GetLogFile().Shut();
    SetFieldText(GetProcessInfo().process_name, "dawn.exe");
    SetFieldText(config_.log_path, dir_ / "logs\\");
    SetFieldText(config_.uin, "10001");
    config_.net_mode = 0x18;
  }
  ~InitLogTest() override {
    GetLogFile().Shut();
    GetLogFile().SetLevel(common::LogFile::kInitialLevel);
    ReplaceAccConfig(AccConfig{});
    GetProcessInfo() = {};
  }

  void Init() {
    ReplaceAccConfig(config_);
    InitLog();
    GetLogFile().Flush();
  }
  static std::string Path() { return GetProcessInfo().log_file_path; }
  static bool Contains(const std::string& part) {
    return ReadFileText(Path()).find(part) != std::string::npos;
  }

  test::TempDir dir_;
  test::TraceCapture trace_;
  AccConfig config_;
};

TEST_F(InitLogTest, WhereStartIsMendedTheLogDropsWhatItMayNotWrite) {
  {
    const test::Mended mended(moru_vyr::lsp::kMendStart);
    Init();
    EXPECT_TRUE(GetLogFile().DropsPastTotal());
  }
  Init();
  EXPECT_FALSE(GetLogFile().DropsPastTotal());
}

TEST_F(InitLogTest, FileIsNamedForProgramProcessAndTime) {
  Init();
  const std::string start = dir_ / "logs\\[dawn.exe][P";
  ASSERT_EQ(Path().substr(0, start.size()), start);
  EXPECT_TRUE(std::regex_match(Path().substr(start.size()),
                               std::regex(R"((\d+)\]\[\d{4}-\d\d-\d\d\]\[\d\d-\d\d-\d\d\]\.log)")))
      << Path();
  EXPECT_EQ(Path().substr(start.size(), Path().find(']', start.size()) - start.size()),
            std::to_string(GetCurrentProcessId()));
  EXPECT_TRUE(test::FileExists(Path()));
  EXPECT_EQ(trace_.lines(), std::vector<std::string>{"[LspTrace]InitLog: " + Path() + "\n"});
}

TEST_F(InitLogTest, PathWithoutSeparatorNamesItsParent) {
  SetFieldText(config_.log_path, dir_ / "logs\\name");
  Init();
  EXPECT_EQ(Path().find(dir_ / "logs\\["), 0u) << Path();
}

TEST_F(InitLogTest, WithoutADirectoryTheFileGoesToTheDrivesRoot) {
  for (const char* log_path : {"", "name", "\x80\\"}) {
    // Open already, so that nothing is made there.
    ASSERT_TRUE(GetLogFile().Open(dir_ / "open.log"));
    SetFieldText(config_.log_path, log_path);
    Init();
    EXPECT_EQ(Path().find("\\[dawn.exe][P"), 0u) << Path();
  }
}

TEST_F(InitLogTest, FirstLinesTellUserGameAndModes) {
  config_.game_id = 1234567890123;
  config_.zone_id = 5;
  config_.acc_mode = 2;
  config_.manual_mode = 7;
  Init();
  EXPECT_TRUE(Contains("[5][lsp]Basic info,uin=10001\n"));
  EXPECT_TRUE(Contains("[5][lsp]will accelerate game process:dawn.exe, log level:0\n"));
  EXPECT_TRUE(
      Contains("[5][lsp]game_id=1234567890123, zone_id=5, net_mode=0x00000018, acc_mode=2, "
               "manual_mode=true, accelerate\xA3\xBA TCP UDP\n"))
      << ReadFileText(Path());
}

TEST_F(InitLogTest, ModesAreNamedInTheirOrder) {
  struct {
    common::u32 net_mode;
    const char* text;
  } const rows[] = {{0x8, " TCP\n"},
                    {0x10, " UDP\n"},
                    {0x28, " TCP ASYTCP\n"},
                    {0x38, " TCP UDP ASYTCP\n"},
                    {0x30030, " UDP ASYTCP\n"},
                    {0x30000, "\n"}};
  for (const auto& row : rows) {
    GetLogFile().Shut();
    SetFieldText(config_.log_path, dir_ / ("logs" + std::to_string(row.net_mode) + "\\"));
    config_.net_mode = row.net_mode;
    Init();
    EXPECT_TRUE(Contains(std::string("manual_mode=false, accelerate\xA3\xBA") + row.text))
        << ReadFileText(Path());
  }
}

TEST_F(InitLogTest, GameThatIsNotAcceleratedIsLogged) {
  config_.net_mode = 0;
  Init();
  EXPECT_TRUE(Contains("Based on server config, the game will not be accelerated:dawn.exe\n"));
  EXPECT_FALSE(Contains("will accelerate"));
}

TEST_F(InitLogTest, LevelOfTheFileFollowsTheConfiguration) {
  struct {
    common::u32 log_level;
    int file_level;
  } const rows[] = {{0, 0}, {1, 1}, {4, 4}, {5, 5}, {6, 2}, {7, 2}, {0xffffffff, 2}};
  for (const auto& row : rows) {
    config_.log_level = row.log_level;
    Init();
    EXPECT_EQ(GetLogFile().GetLevel(), row.file_level) << row.log_level;
  }
}

TEST_F(InitLogTest, SilentLevelsWriteNothing) {
  config_.log_level = 7;
  Init();
  EXPECT_EQ(GetLogFile().GetLevel(), 2);
  LSP_LOG(5, "silent");
  GetLogFile().Flush();
  EXPECT_EQ(test::FileSize(Path()), 0);
}

TEST_F(InitLogTest, DirectoryThatCannotBeMadeCostsOnlyTheLog) {
  test::MakeSparseFile(dir_ / "file", 0);
  SetFieldText(config_.log_path, dir_ / "file\\sub\\");
  Init();
  EXPECT_EQ(Path().find(dir_ / "file\\sub\\[dawn.exe]"), 0u);
  ASSERT_EQ(trace_.lines().size(), 2u);
  EXPECT_EQ(trace_.lines()[0], "[LspTrace]InitLog: " + Path() + "\n");
  EXPECT_EQ(trace_.lines()[1].find("[LspTrace]InitLog: no log file, err="), 0u);
  LSP_LOG(5, "dropped");
}

TEST_F(InitLogTest, LongPathsAreCutAtTheirField) {
  ASSERT_TRUE(GetLogFile().Open(dir_ / "open.log"));
  SetFieldText(GetProcessInfo().process_name, std::string(259, 'n'));
  SetFieldText(config_.log_path, "C:\\" + std::string(255, 'd') + "\\");
  Init();
  EXPECT_EQ(Path(), "C:\\" + std::string(255, 'd') + "\\");
}

}  // namespace
