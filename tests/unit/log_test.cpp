// The shape of a log line, the cost of a silent level, and that logging changes nothing in the
// host.
#include "common/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <string>

#include "common/function_trace.h"
#include "common/log_file.h"
#include "tests/support/end_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/report_client.h"
#include "tests/support/threads.h"
#include "tests/unit/out_of_memory.h"
#include "tests/unit/trace_capture.h"

namespace {

using common::CommonLog;
using common::LspLog;
using common::LspTrace;
using test::LogCapture;
using test::TraceCapture;

// The tests read whole logs: threads that other tests have left may write no line into them.
class Log : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    test::EndWorker();
    test::EndTheTrackerOfTheProcess();
  }
};

using FunctionTrace = Log;

// What follows the last header of the text.
std::string LastMessage(const std::string& text, const std::string& tag = "[lsp]") {
  const std::size_t start = text.rfind(tag);
  return start == std::string::npos ? "" : text.substr(start + tag.size());
}

TEST_F(Log, LineHasTimeThreadLevelTagAndOneNewline) {
  LogCapture log;
  LspLog(4, "socket=%Id, token=%u, id=%llu", static_cast<SOCKET>(17), 3u, 1ull << 40);
  const std::regex line(
      R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[(-?\d+)\]\[4\]\[lsp\]socket=17, token=3, id=1099511627776)"
      "\n");
  const std::string text = log.Text();
  std::smatch match;
  ASSERT_TRUE(std::regex_match(text, match, line)) << text;
  EXPECT_EQ(match[1].str(), std::to_string(static_cast<int>(GetCurrentThreadId())));
}

// The time at the start of a line, so that times compare as texts.
std::string LocalTime() {
  SYSTEMTIME now = {};
  GetLocalTime(&now);
  char text[64];
  std::snprintf(text, sizeof text, "[%04d-%02d-%02d %02d:%02d:%02d.%03d]", now.wYear, now.wMonth,
                now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
  return text;
}

TEST_F(Log, LineHasItsLocalTime) {
  LogCapture log;
  const std::string before = LocalTime();
  LspLog(4, "x");
  const std::string after = LocalTime();
  const std::string found = log.Text().substr(0, before.size());
  EXPECT_LE(before, found);
  EXPECT_LE(found, after);
}

TEST_F(Log, MessageIsCutAt2047BytesAndTheLineStillEnds) {
  LogCapture log;
  LspLog(0, "%s", std::string(3000, 'm').c_str());
  EXPECT_EQ(LastMessage(log.Text()), std::string(2047, 'm') + "\n");
}

TEST_F(Log, CommonMessageIsCutAt102399Bytes) {
  LogCapture log;
  CommonLog(4, "tag", "%s", std::string(103000, 'c').c_str());
  EXPECT_EQ(LastMessage(log.Text(), "[tag]"), std::string(102399, 'c') + "\n");
}

TEST_F(Log, CommonMessageOfAnyLengthIsComplete) {
  LogCapture log;
  for (const std::size_t size : {2046u, 2047u, 2048u, 2049u, 50000u, 102398u}) {
    CommonLog(4, "tag", "%s", std::string(size, 'c').c_str());
    EXPECT_EQ(LastMessage(log.Text(), "[tag]"), std::string(size, 'c') + "\n") << size;
  }
}

TEST_F(Log, LongCommonMessageIsCutAsAnyOtherWhereThereIsNoMemory) {
  LogCapture log;
  const std::string text(5000, 'c');
  {
    const test::OutOfMemory none(1, 4096);
    CommonLog(4, "tag", "%s", text.c_str());
    EXPECT_TRUE(test::OutOfMemory::WasFelt());
  }
  EXPECT_EQ(LastMessage(log.Text(), "[tag]"), std::string(2047, 'c') + "\n");
}

// How far down a call has used the stack: it is painted before and looked at afterwards, from the
// same frame.
constexpr std::size_t kPainted = 300 * 1024;
constexpr std::size_t kFrameSlack = 256;  // the two frames need not be laid out alike
constexpr unsigned char kPaint = 0x5a;

__attribute__((noinline, no_sanitize_address)) void PaintStack() {
  unsigned char area[kPainted];
  std::memset(area, kPaint, sizeof area);
  asm volatile("" : : "r"(area) : "memory");
}
__attribute__((noinline, no_sanitize_address)) std::size_t StackUsed() {
  unsigned char area[kPainted];
  asm volatile("" : "=m"(area));  // reads the old content, for all the compiler knows
  std::size_t clean = kFrameSlack;
  while (clean < kPainted && area[clean] == kPaint) ++clean;
  return kPainted - clean;
}

// The threads are the host's: some programs give them 64 KiB.
TEST_F(Log, LinesNeedLittleStackHoweverLongTheyAre) {
  LogCapture log;
  const std::string text(100'000, 'c');
  PaintStack();
  CommonLog(4, "tag", "%s", text.c_str());
  EXPECT_LT(StackUsed(), 24'000u);
  PaintStack();
  CommonLog(4, "tag", "%s", "short");
  EXPECT_LT(StackUsed(), 24'000u);
  PaintStack();
  LspLog(4, "%s", text.c_str());
  EXPECT_LT(StackUsed(), 24'000u);
}

TEST_F(Log, EmptyTagLeavesNoTagPart) {
  LogCapture log;
  CommonLog(4, "", "[Shared_mem_obj]x");
  const std::string text = log.Text();
  EXPECT_TRUE(std::regex_match(text, std::regex(R"(\[[^\]]*\]\[-?\d+\]\[4\]\[Shared_mem_obj\]x)"
                                                "\n")))
      << text;
}

TEST_F(Log, NullFormatDoesNothing) {
  LogCapture log;
  const TraceCapture trace;
  const char* volatile none = nullptr;  // volatile: the compiler would refuse a plain null
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
  LspLog(5, none);
  CommonLog(5, "tag", none);
  LspTrace(none);
#pragma GCC diagnostic pop
  EXPECT_EQ(log.Text(), "");
  EXPECT_TRUE(trace.lines().empty());
}

TEST_F(Log, CallSiteWritesFromTheThresholdUp) {
  struct {
    common::u32 log_level;
    const char* expected;
  } const rows[] = {{0, "045"}, {1, "45"}, {4, "45"}, {5, "5"}, {6, ""}, {7, ""}, {0xffffffff, ""}};
  for (const auto& row : rows) {
    LogCapture log(row.log_level);
    LSP_LOG(0, "%d", 0);
    LSP_LOG(4, "%d", 4);
    LSP_LOG(5, "%d", 5);
    std::string written;
    const std::string text = log.Text();
    for (std::size_t at = text.find("[lsp]"); at != std::string::npos;
         at = text.find("[lsp]", at + 1))
      written += text[at + 5];
    EXPECT_EQ(written, row.expected) << "log_level " << row.log_level;
  }
}

TEST_F(Log, SilentLevelEvaluatesNoArgument) {
  LogCapture log(5);
  int evaluated = 0;
  LSP_LOG(4, "%d", ++evaluated);
  COMMON_LOG(0, "tag", "%d", ++evaluated);
  EXPECT_EQ(evaluated, 0);
  LSP_LOG(5, "%d", ++evaluated);
  EXPECT_EQ(evaluated, 1);
}

TEST_F(Log, FileLevelDropsLinesThatPassedTheCallSite) {
  LogCapture log;
  common::GetLogFile().SetLevel(5);
  LspLog(4, "dropped");
  LspLog(5, "written");
  EXPECT_FALSE(log.Contains("dropped"));
  EXPECT_TRUE(log.Contains("written"));
}

TEST_F(Log, LastErrorSurvives) {
  LogCapture log;
  const TraceCapture trace;
  SetLastError(10035);
  LspLog(5, "%s", std::string(2000, 'x').c_str());
  EXPECT_EQ(GetLastError(), 10035u);
  LspLog(5, "%s", std::string(2000, 'x').c_str());  // this one writes to the disk
  EXPECT_EQ(GetLastError(), 10035u);
  CommonLog(5, "tag", "x");
  EXPECT_EQ(GetLastError(), 10035u);
  LspTrace("x");
  EXPECT_EQ(GetLastError(), 10035u);
}

TEST_F(Log, LinesWithoutAnOpenFileGoNowhere) {
  common::GetLogFile().Shut();
  SetLastError(7);
  LspLog(5, "nobody reads this");
  EXPECT_EQ(GetLastError(), 7u);
}

// A line may be lost to a busy lock, but never torn.
TEST_F(Log, LinesOfManyThreadsAreNotMixed) {
  LogCapture log;
  test::RunThreads(8, [](int index) {
    for (int i = 0; i < 100; ++i)
      LspLog(4, "<%s>",
             std::string(static_cast<std::size_t>(20 + index), char('a' + index)).c_str());
  });
  const std::string text = log.Text();
  const std::regex whole(
      R"(\[[^\]]*\]\[-?\d+\]\[4\]\[lsp\]<(a{20}|b{21}|c{22}|d{23}|e{24}|f{25}|g{26}|h{27})>)");
  int lines = 0;
  for (std::size_t start = 0; start < text.size(); ++lines) {
    const std::size_t end = text.find('\n', start);
    ASSERT_NE(end, std::string::npos);
    ASSERT_TRUE(std::regex_match(text.substr(start, end - start), whole))
        << text.substr(start, end - start);
    start = end + 1;
  }
  EXPECT_GT(lines, 0);
  EXPECT_LE(lines, 800);
}

TEST(Trace, TextIsWrittenWithPrefixAndNewline) {
  const TraceCapture trace;
  LspTrace("InitLog: %s", "path");
  EXPECT_EQ(trace.lines(), std::vector<std::string>{"[LspTrace]InitLog: path\n"});
}

TEST(Trace, MessageIsCutAt2047Bytes) {
  const TraceCapture trace;
  LspTrace("%s", std::string(3000, 't').c_str());
  ASSERT_EQ(trace.lines().size(), 1u);
  EXPECT_EQ(trace.lines()[0], "[LspTrace]" + std::string(2047, 't') + "\n");
}

TEST_F(FunctionTrace, NameIsLoggedWithoutTheNamespace) {
  struct {
    const char* name;
    std::string logged;
  } const rows[] = {
      {"moru_vyr::lsp::WSPGetPeerName", "WSPGetPeerName"},
      {"moru_vyr::lsp::", "moru_vyr::lsp::"},  // 15 characters stay whole …
      {"abcdefghijklmn:", "abcdefghijklmn:"},  // … whatever comes before the end
      {"abcdefghijklmn:o", "o"},               // the colon alone decides
      {"TcpProvider::OnCreateLocalServer", "TcpProvider::OnCreateLocalServer"},
      {"", ""},
  };
  for (const auto& row : rows) {
    LogCapture log;
    { const common::FunctionTrace trace(row.name); }
    EXPECT_TRUE(log.Contains("[0][lsp]" + row.logged + " begin\n")) << row.name;
    EXPECT_TRUE(log.Contains("[0][lsp]" + row.logged + " end\n")) << row.name;
  }
}

TEST_F(FunctionTrace, NameIsKeptIn64Bytes) {
  LogCapture log;
  { const common::FunctionTrace trace(std::string(100, 'n').c_str()); }
  EXPECT_TRUE(log.Contains("]" + std::string(63, 'n') + " begin\n"));
}

TEST_F(FunctionTrace, SilentAboveLevelZero) {
  LogCapture log(1);
  { const common::FunctionTrace trace("f"); }
  EXPECT_EQ(log.Text(), "");
}

TEST_F(FunctionTrace, TheLevelAtConstructionDecides) {
  LogCapture log(0);
  {
    const common::FunctionTrace trace("f");
    common::SetLogThreshold(4);
  }
  EXPECT_TRUE(log.Contains("f end\n"));
}

}  // namespace
