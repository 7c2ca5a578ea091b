// Entries that are replaced only where something is mended, over a scripted next provider: what
// they pass on, what they note about the socket, and that they fail like all others where there is
// no provider.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "common/process_info.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/postponed_target.h"
#include "hooks/relayed_names.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/support/mended.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

constexpr SOCKET kStrange = 0x999;  // has no record

test::Words selected;  // the arguments of the last call
int select_result = 0;

int WSPAPI SelectEvents(SOCKET s, WSAEVENT event, long events, LPINT) {
  selected = test::WordsOf(s, event, events);
  return select_result;
}
int WSPAPI SelectMessages(SOCKET s, HWND window, unsigned int message, long events, LPINT) {
  selected = test::WordsOf(s, window, message, events);
  return select_result;
}

sockaddr_in answer{};  // the name that the provider gives

int WSPAPI AnswerWithName(SOCKET, sockaddr* name, LPINT size, LPINT) {
  if (name != nullptr) {
    std::memcpy(name, &answer, std::min(static_cast<std::size_t>(*size), sizeof answer));
  }
  return select_result;
}
int WSPAPI Control(SOCKET, DWORD, LPVOID, DWORD, LPVOID, DWORD, LPDWORD, LPWSAOVERLAPPED,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT) {
  return select_result;
}

struct MendedEntries : testing::Test {
  MendedEntries() {
    selected.clear();
    select_result = 0;
    tcp.lpWSPEventSelect = SelectEvents;
    tcp.lpWSPAsyncSelect = SelectMessages;
    tcp.lpWSPGetSockName = AnswerWithName;
    tcp.lpWSPGetPeerName = AnswerWithName;
    tcp.lpWSPIoctl = Control;
    HookBlockingModes(&table);
    HookRelayedNames(&table);
    HookOverlappedResult(&table);
    EXPECT_EQ(WSPSocket(AF_INET, 1, 6, nullptr, 0, 1, &error), next.socket);
  }
  int SelectsEvents(SOCKET s) { return table.lpWSPEventSelect(s, event, 0x21, &error); }
  int SelectsMessages(SOCKET s) { return table.lpWSPAsyncSelect(s, window, 1025, 0x21, &error); }
  int Controls(DWORD code, void* in, DWORD size) {
    DWORD bytes = 0;
    return table.lpWSPIoctl(next.socket, code, in, size, nullptr, 0, &bytes, nullptr, nullptr,
                            nullptr, &error);
  }
  bool IsNonBlocking() { return GetSocketMap().Get(next.socket).non_blocking; }

  const test::Mended mended{kMendRefusal | kMendNames | kMendOverlappedDatagram |
                            kMendDatagramMatch};
  test::ScriptedProvider next;
  WSPPROC_TABLE& tcp = common::GetProcessInfo().tcp_proc_table;
  WSPPROC_TABLE table{};
  INT error = 0;
  const WSAEVENT event = reinterpret_cast<WSAEVENT>(0x44);
  const HWND window = reinterpret_cast<HWND>(0x55);
};

// A program that asks for events has a socket that does not block, and its connects are treated so.
TEST_F(MendedEntries, ASocketWithEventsIsNonBlocking) {
  EXPECT_FALSE(IsNonBlocking());
  EXPECT_EQ(SelectsEvents(next.socket), 0);
  EXPECT_EQ(selected, test::WordsOf(next.socket, event, 0x21));
  EXPECT_TRUE(IsNonBlocking());
}

TEST_F(MendedEntries, ASocketWithMessagesIsNonBlocking) {
  EXPECT_EQ(SelectsMessages(next.socket), 0);
  EXPECT_EQ(selected, test::WordsOf(next.socket, window, 1025u, 0x21));
  EXPECT_TRUE(IsNonBlocking());
}

TEST_F(MendedEntries, ASelectThatFailsLeavesTheSocketBlocking) {
  select_result = SOCKET_ERROR;
  EXPECT_EQ(SelectsEvents(next.socket), SOCKET_ERROR);
  EXPECT_EQ(SelectsMessages(next.socket), SOCKET_ERROR);
  EXPECT_FALSE(IsNonBlocking());
}

TEST_F(MendedEntries, OnlyAWholeModeThatIsTakenIsNoted) {
  u32 on = 1, off = 0;
  EXPECT_EQ(Controls(0x1234, &on, sizeof on), 0);
  EXPECT_EQ(Controls(static_cast<DWORD>(FIONBIO), nullptr, sizeof on), 0);
  EXPECT_EQ(Controls(static_cast<DWORD>(FIONBIO), &on, 2), 0);
  select_result = SOCKET_ERROR;
  EXPECT_EQ(Controls(static_cast<DWORD>(FIONBIO), &on, sizeof on), SOCKET_ERROR);
  EXPECT_FALSE(IsNonBlocking());
  select_result = 0;
  EXPECT_EQ(Controls(static_cast<DWORD>(FIONBIO), &on, sizeof on), 0);
  EXPECT_TRUE(IsNonBlocking());
  EXPECT_EQ(Controls(static_cast<DWORD>(FIONBIO), &off, sizeof off), 0);
  EXPECT_FALSE(IsNonBlocking());
}

// Only the relay's own address stands for another.
TEST_F(MendedEntries, ANameThatIsNotTheRelaysIsLeftAsItIs) {
  const sockaddr_in server = test::Address("198.51.100.20", 8080);
  GetSocketMap().SetHandledAddr(next.socket, test::Generic(server), sizeof server);
  sockaddr_in other_family = test::Address("127.0.0.1", 9);
  other_family.sin_family = 23;
  for (const sockaddr_in& given : {test::Address("192.0.2.1", 9), other_family}) {
    answer = given;
    sockaddr_in name{};
    INT size = sizeof name;
    EXPECT_EQ(
        table.lpWSPGetSockName(next.socket, reinterpret_cast<sockaddr*>(&name), &size, &error), 0);
    EXPECT_EQ(std::memcmp(&name, &given, sizeof name), 0);
    EXPECT_EQ(
        table.lpWSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(&name), &size, &error), 0);
    EXPECT_EQ(std::memcmp(&name, &given, sizeof name), 0);
  }
}

TEST_F(MendedEntries, APlaceThatIsTooSmallGetsNoOtherName) {
  const sockaddr_in server = test::Address("198.51.100.20", 8080);
  GetSocketMap().SetHandledAddr(next.socket, test::Generic(server), sizeof server);
  answer = test::Address("127.0.0.1", 9);
  char name[16] = {};
  INT size = 8;
  EXPECT_EQ(table.lpWSPGetSockName(next.socket, reinterpret_cast<sockaddr*>(name), &size, &error),
            0);
  EXPECT_EQ(std::memcmp(name, &answer, 8), 0);
  EXPECT_EQ(std::string(name + 8, 8), std::string(8, '\0'));
  EXPECT_EQ(table.lpWSPGetSockName(next.socket, nullptr, nullptr, &error), 0);
  select_result = SOCKET_ERROR;
  size = sizeof name;
  EXPECT_EQ(table.lpWSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(name), &size, &error),
            SOCKET_ERROR);
}

TEST_F(MendedEntries, ASocketWithoutARecordIsPassedOn) {
  EXPECT_EQ(SelectsEvents(kStrange), 0);
  EXPECT_EQ(selected, test::WordsOf(kStrange, event, 0x21));
  EXPECT_EQ(SelectsMessages(kStrange), 0);
  EXPECT_EQ(selected, test::WordsOf(kStrange, window, 1025u, 0x21));
}

TEST_F(MendedEntries, WithoutANextProviderTheNetworkIsDown) {
  tcp.lpWSPEventSelect = nullptr;
  tcp.lpWSPAsyncSelect = nullptr;
  tcp.lpWSPGetOverlappedResult = nullptr;
  const test::LogCapture log(5);
  for (const SOCKET s : {next.socket, kStrange}) {
    error = 0;
    EXPECT_EQ(SelectsEvents(s), SOCKET_ERROR);
    EXPECT_EQ(error, WSAENETDOWN);
    error = 0;
    EXPECT_EQ(SelectsMessages(s), SOCKET_ERROR);
    EXPECT_EQ(error, WSAENETDOWN);
    WSAOVERLAPPED overlapped{};
    DWORD bytes = 0, flags = 0;
    error = 0;
    EXPECT_FALSE(table.lpWSPGetOverlappedResult(s, &overlapped, &bytes, FALSE, &flags, &error));
    EXPECT_EQ(error, WSAENETDOWN);
  }
  error = 0;
  sockaddr_in name{};
  INT size = sizeof name;
  EXPECT_EQ(table.lpWSPGetSockName(kStrange, reinterpret_cast<sockaddr*>(&name), &size, &error),
            SOCKET_ERROR);
  EXPECT_EQ(error, WSAENETDOWN);
  EXPECT_TRUE(log.Contains("WSPGetSockName: next_proc_table invalid, socket=2457\n"));
}

}  // namespace
}  // namespace moru_vyr::lsp
