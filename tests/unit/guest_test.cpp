// What the library shares with its host: the runtime's random numbers, its locale, its error number
// and the processor's floating-point modes. A game gets the random numbers of its seed and reads
// its own errors, whatever is between it and its sockets.
#include <gtest/gtest.h>
#include <winsock2.h>
//
#include <windows.h>
#include <ws2spi.h>

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <functional>
#include <string>

#include "common/log.h"
#include "common/text.h"
#include "protocol/session_guid.h"
#include "relay/nego_common.h"
#include "route/acc_config.h"
#include "route/init_log.h"
#include "route/route_file.h"
#include "sockets/socket_helpers.h"
#include "sockets/socket_map.h"
#include "tests/support/link_judge.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"
#include "tracker/series_code.h"

#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

namespace moru_vyr::lsp {
namespace {

constexpr SOCKET kSocket = 4321;
constexpr unsigned kSeed = 42;
constexpr int kErrno = 4711;

// Rounding, precision and which exceptions are raised; not which ones were seen.
unsigned FloatModes() {
#if defined(__x86_64__) || defined(__i386__)
  constexpr unsigned kSeen = 0x3f;
  unsigned short x87 = 0;
  asm volatile("fnstcw %0" : "=m"(x87));
  return (_mm_getcsr() & ~kSeen) << 16 ^ x87;
#else
  return 0;
#endif
}

int WSPAPI Bind(SOCKET, const sockaddr*, int, LPINT) { return 0; }

struct Work {
  const char* name;
  std::function<void()> run;
};

class Guest : public testing::TestWithParam<Work> {
 protected:
  Guest() {
    table.lpWSPBind = Bind;
    GetSocketMap().Add(kSocket, kSocketTypeStream, IPPROTO_TCP, 1);
    GetSocketMap().SetNextProcTable(kSocket, &table);
  }
  ~Guest() override {
    GetSocketMap().Remove(kSocket);
    ReplaceAccConfig(AccConfig{});
  }

  WSPPROC_TABLE table{};
};

TEST_P(Guest, DoesNotChangeStateSharedWithItsHost) {
  const test::LogCapture log;
  std::srand(kSeed);
  const int first = std::rand();
  const int second = std::rand();
  const std::string locale = std::setlocale(LC_ALL, nullptr);
  const unsigned modes = FloatModes();
  std::srand(kSeed);
  ASSERT_EQ(std::rand(), first);
  errno = kErrno;
  GetParam().run();
#ifdef _WIN32  // elsewhere the port's own system calls have it
  EXPECT_EQ(errno, kErrno);
#endif
  EXPECT_EQ(std::rand(), second);
  EXPECT_EQ(std::setlocale(LC_ALL, nullptr), locale);
  EXPECT_EQ(FloatModes(), modes);
}

void MakeRequest() {
  AccConfig config;
  common::SetFieldText(config.uin, std::string(40, '9'));  // beyond every number
  ReplaceAccConfig(config);
  MakeNegoRequest(0, 0, 0, SessionGuid{}, AccDecisionInfo{});
}

void JudgeALink() {
  test::LinkJudge link;
  link.Start();
  link.judge.OnUpdate();
}

void OpenALog() {
  const test::TempDir dir;
  AccConfig config;
  common::SetFieldText(config.log_path, dir / "logs\\");
  ReplaceAccConfig(config);
  InitLog();
}

INSTANTIATE_TEST_SUITE_P(
    All, Guest,
    testing::Values(Work{"Binds", [] { BindRandomPort(kSocket, true, nullptr, true); }},
                    Work{"NamesASocket",
                         [] {
                           char text[kSeriesCodeSize];
                           MakeSeriesCode(kSocket, text, sizeof text);
                         }},
                    Work{"NamesAConnection", [] { SessionGuid::Make(); }},
                    Work{"AsksANode", MakeRequest}, Work{"JudgesALink", JudgeALink},
                    Work{"OpensALog", OpenALog},
                    Work{"LogsALine",
                         [] {
                           LSP_LOG(5, "%s %d %u %.1f %llu %Id 0x%08x", "text", -1, 2u, 3.5, 4ull,
                                   kSocket, 5u);
                         }},
                    Work{"ConvertsText",
                         [] {
                           std::wstring wide;
                           std::string narrow;
                           common::u8to16("\xE6\xB8\xB8", &wide);
                           common::u8to16("\x80", &wide);
                           common::u16to8(L"wide", &narrow);
                         }},
                    Work{"LooksForAFile",
                         [] {
                           u8 buffer[1];
                           LoadRouteFromBinFile("C:\\absent\\route.bin", buffer, 1);
                         }}),
    [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace moru_vyr::lsp
