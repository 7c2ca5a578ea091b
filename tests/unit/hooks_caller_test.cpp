// What the replaced entries leave of their caller: its last error and errno, which programs read
// long after the call that set them, and its stack, which in some programs' threads is small.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "hooks/downcall_table.h"
#include "hooks/hook_entries.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Generic;

constexpr int kOldLastError = 4711;
constexpr int kOldErrno = 77;

struct NamedCall {
  const char* name;
  std::function<void()> call;
};

struct HookCaller : testing::Test {
  HookCaller() {
    next.bytes = 3;
    next.address = server;
  }

  // Each entry once, with the arguments of a plain program. The socket exists throughout.
  std::vector<NamedCall> EveryEntry() {
    const SOCKET s = next.socket;
    const sockaddr* const to = Generic(server);
    sockaddr* const place = reinterpret_cast<sockaddr*>(&name);
    return {
        {"WSPSocket", [=, this] { WSPSocket(AF_INET, 2, 17, nullptr, 0, 1, &error); }},
        {"WSPAccept", [=, this] { WSPAccept(s, place, &size, nullptr, 0, &error); }},
        {"WSPBind", [=, this] { WSPBind(s, to, sizeof server, &error); }},
        {"WSPConnect",
         [=, this] {
           WSPConnect(s, to, sizeof server, nullptr, nullptr, nullptr, nullptr, &error);
         }},
        {"WSPGetPeerName", [=, this] { WSPGetPeerName(s, place, &size, &error); }},
        {"WSPSend",
         [=, this] { WSPSend(s, &buffer, 1, &count, 0, nullptr, nullptr, nullptr, &error); }},
        {"WSPRecv",
         [=, this] { WSPRecv(s, &buffer, 1, &count, &flags, nullptr, nullptr, nullptr, &error); }},
        {"WSPSendTo",
         [=, this] {
           WSPSendTo(s, &buffer, 1, &count, 0, to, sizeof server, nullptr, nullptr, nullptr,
                     &error);
         }},
        {"WSPRecvFrom",
         [=, this] {
           WSPRecvFrom(s, &buffer, 1, &count, &flags, place, &size, nullptr, nullptr, nullptr,
                       &error);
         }},
        {"WSPIoctl",
         [=, this] {
           WSPIoctl(s, 0x667F, &input, sizeof input, &input, sizeof input, &count, nullptr, nullptr,
                    nullptr, &error);
         }},
        {"WSPCloseSocket",
         [=, this] {
           WSPCloseSocket(s, &error);
           WSPSocket(AF_INET, 2, 17, nullptr, 0, 1, &error);
         }},
    };
  }

  test::ScriptedProvider next;
  const sockaddr_in server = Address("198.51.100.20", 8080);
  sockaddr_in name{};
  INT size = sizeof name;
  INT error = 0;
  char bytes[8] = {};
  WSABUF buffer = {sizeof bytes, bytes};
  DWORD count = 0;
  DWORD flags = 0;
  u32 input = 0;
};

void ExpectErrorsKept(const NamedCall& one) {
  WSASetLastError(kOldLastError);
  errno = kOldErrno;
  one.call();
  const int last_error = WSAGetLastError();
  const int c_error = errno;
  EXPECT_EQ(last_error, kOldLastError) << one.name;
  EXPECT_EQ(c_error, kOldErrno) << one.name;
}

TEST_F(HookCaller, ACallThatSucceedsKeepsTheCallersErrors) {
  common::SetLogThreshold(6);
  for (const NamedCall& one : EveryEntry()) ExpectErrorsKept(one);
}

TEST_F(HookCaller, ACallThatIsLoggedKeepsTheCallersErrors) {
  const test::LogCapture log(0);
  for (const NamedCall& one : EveryEntry()) ExpectErrorsKept(one);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

constexpr std::size_t kLooked = 64 * 1024;
constexpr std::size_t kMostStack = 16 * 1024;
constexpr unsigned char kPaint = 0xA5;

__attribute__((noinline)) void PaintStack() {
  volatile unsigned char area[kLooked];
  for (std::size_t i = 0; i < kLooked; ++i) area[i] = kPaint;
  asm volatile("" : : "r"(&area[0]) : "memory");
}

// How much of the painted area has been written since. Reads what no variable owns, which is the
// point: calls in between have left their frames there.
__attribute__((noinline)) std::size_t UsedStack() {
  volatile unsigned char area[kLooked];
  asm volatile("" : : "r"(&area[0]) : "memory");
  std::size_t untouched = 0;
  while (untouched < kLooked && area[untouched] == kPaint) ++untouched;
  return kLooked - untouched;
}

__attribute__((noinline)) std::size_t StackOf(const std::function<void()>& call) {
  PaintStack();
  call();
  return UsedStack();
}

TEST_F(HookCaller, TheStackOfEachEntryIsSmall) {
  const test::LogCapture log(0);  // formats a line for each, which takes the most
  const std::size_t nothing = StackOf([] {});
  for (const NamedCall& one : EveryEntry()) {
    one.call();  // whatever is made at first use
    const std::size_t used = StackOf(one.call);
    EXPECT_GT(used, nothing) << one.name;
    EXPECT_LT(used, kMostStack) << one.name;
    RecordProperty(std::string("stack_") + one.name, static_cast<int>(used));
  }
}

TEST(StackUse, IsSeen) {
  const std::size_t used = StackOf([] {
    volatile char area[20'000];
    for (char volatile& byte : area) byte = 1;
    asm volatile("" : : "r"(&area[0]) : "memory");
  });
  EXPECT_GT(used, 20'000u);
  EXPECT_LT(used, 30'000u);
}

#endif

}  // namespace
}  // namespace moru_vyr::lsp
