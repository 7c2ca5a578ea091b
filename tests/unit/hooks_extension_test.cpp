// Extension functions: what WSPIoctl answers, and the ConnectEx that applications get.
#include <gtest/gtest.h>
#include <mswsock.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "hooks/extension_functions.h"
#include "hooks/hook_entries.h"
#include "sockets/socket_map.h"
#include "tests/support/end_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/mended.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Generic;
using test::WordsOf;

struct ExtensionHooks : testing::Test {
  ExtensionHooks() {
    WSPSocket(AF_INET, 1, 6, nullptr, 0, 1, &error);
    next.calls.clear();
    const SocketRecord record = GetSocketMap().Get(next.socket);
    tail =
        "socket=" + std::to_string(next.socket) + ", token=" + std::to_string(record.token) + "\n";
  }
  int Query(const GUID& id, SOCKET s) {
    GUID copy = id;
    return WSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &copy, sizeof copy, &function,
                    sizeof function, &returned, nullptr, nullptr, nullptr, &error);
  }

  test::ScriptedProvider next;
  const sockaddr_in server = Address("198.51.100.20", 8080);
  INT error = 0;
  std::string tail;
  LPFN_CONNECTEX function = nullptr;
  DWORD returned = 0;
};

TEST_F(ExtensionHooks, IoctlPassesItsArguments) {
  char in[4] = {}, out[4] = {};
  WSAOVERLAPPED overlapped{};
  WSATHREADID thread{};
  next.result = -1;
  next.error = 10045;
  test::LogCapture log(0);
  EXPECT_EQ(WSPIoctl(next.socket, 0x8004667e, in, 4, out, 3, &returned, &overlapped, nullptr,
                     &thread, &error),
            -1);
  EXPECT_EQ(error, 10045);
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket, 0x8004667eu, &in[0], 4, &out[0], 3,
                                           &returned, &overlapped, nullptr, &thread));
  EXPECT_EQ(log.Text(), "");
}

TEST_F(ExtensionHooks, IoctlOfAnUnknownSocketFailsSilently) {
  test::LogCapture log(0);
  error = 31;
  WSASetLastError(4711);
  EXPECT_EQ(Query(WSAID_CONNECTEX, 0x999), -1);
  EXPECT_EQ(error, 31);
  EXPECT_EQ(WSAGetLastError(), 4711);
  EXPECT_TRUE(next.calls.empty());
  EXPECT_EQ(log.Text(), "");
}

// A process whose sockets may not be relayed keeps the real function.
TEST_F(ExtensionHooks, WithoutARelayTheRealConnectExIsReturned) {
  test::LogCapture log(0);
  EXPECT_EQ(Query(WSAID_CONNECTEX, next.socket), 0);
  EXPECT_NE(function, nullptr);
  EXPECT_NE(function, &WSPConnectEx);
  EXPECT_EQ(log.Text(), "");
}

// The colon is a wide one, in the log's own encoding.
constexpr char kFunctionIs[] =
    "[0][lsp][Main]WSPIoctl\xA3\xBA"
    "extension function is ";

TEST_F(ExtensionHooks, EveryFunctionIsRecognisedAndOnlyConnectExIsReplaced) {
  struct Case {
    GUID id;
    const char* name;
    bool replaced;
  };
  const Case cases[] = {
      {WSAID_CONNECTEX, "ConnectEx", true},
      {WSAID_ACCEPTEX, "WSPAcceptEx", false},
      {WSAID_TRANSMITFILE, "TransmitFile", false},
      {WSAID_DISCONNECTEX, "DisconnectEx", false},
      {WSAID_TRANSMITPACKETS, "TransmitPackets", false},
      {WSAID_WSARECVMSG, "WsaRecvMsg", false},
      {WSAID_WSASENDMSG, "WSPWsaSendMsg", false},
      {WSAID_GETACCEPTEXSOCKADDRS, "GetAcceptExSockaddrs", false},
      {{1, 2, 3, {4}}, "unknown", false},
  };
  for (const Case& expected : cases) {
    test::LogCapture log(0);
    LPFN_CONNECTEX out = nullptr;
    AnswerExtensionQuery(&expected.id, sizeof expected.id, &out);
    EXPECT_EQ(out, expected.replaced ? &WSPConnectEx : nullptr) << expected.name;
    const std::string line = std::string(kFunctionIs) + expected.name + "\n";
    EXPECT_TRUE(log.Contains(line)) << log.Text();
  }
}

// As the platform's documentation has them, whatever the headers of this build say.
TEST_F(ExtensionHooks, IdentitiesAreThePlatforms) {
  const struct {
    GUID here, there;
  } rows[] = {
      {WSAID_CONNECTEX,
       {0x25a207b9, 0xddf3, 0x4660, {0x8e, 0xe9, 0x76, 0xe5, 0x8c, 0x74, 0x06, 0x3e}}},
      {WSAID_ACCEPTEX,
       {0xb5367df1, 0xcbac, 0x11cf, {0x95, 0xca, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92}}},
      {WSAID_TRANSMITFILE,
       {0xb5367df0, 0xcbac, 0x11cf, {0x95, 0xca, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92}}},
      {WSAID_DISCONNECTEX,
       {0x7fda2e11, 0x8630, 0x436f, {0xa0, 0x31, 0xf5, 0x36, 0xa6, 0xee, 0xc1, 0x57}}},
      {WSAID_TRANSMITPACKETS,
       {0xd9689da0, 0x1f90, 0x11d3, {0x99, 0x71, 0x00, 0xc0, 0x4f, 0x68, 0xc8, 0x76}}},
      {WSAID_WSARECVMSG,
       {0xf689d7c8, 0x6f1f, 0x436b, {0x8a, 0x53, 0xe5, 0x4f, 0xe3, 0x51, 0xc3, 0x22}}},
      {WSAID_WSASENDMSG,
       {0xa441e712, 0x754f, 0x43ca, {0x84, 0xa7, 0x0d, 0xee, 0x44, 0xcf, 0x60, 0x6d}}},
      {WSAID_GETACCEPTEXSOCKADDRS,
       {0xb5367df2, 0xcbac, 0x11cf, {0x95, 0xca, 0x00, 0x80, 0x5f, 0x48, 0xa1, 0x92}}},
  };
  for (const auto& row : rows)
    EXPECT_EQ(std::memcmp(&row.here, &row.there, sizeof(GUID)), 0) << row.there.Data1;
}

TEST_F(ExtensionHooks, OnlySixteenBytesAreCompared) {
  test::LogCapture log(0);
  const GUID id = WSAID_CONNECTEX;
  LPFN_CONNECTEX out = nullptr;
  for (const DWORD size : {0u, 12u, 15u, 17u}) AnswerExtensionQuery(&id, size, &out);
  AnswerExtensionQuery(nullptr, sizeof id, &out);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(log.Text(), "");
  AnswerExtensionQuery(&id, sizeof id, nullptr);  // nowhere to put it
}

void WSPAPI NeverCompleted(DWORD, DWORD, LPWSAOVERLAPPED, DWORD) {}

// A raw socket may be relayed whatever the process's modes are.
TEST_F(ExtensionHooks, AFailedQueryLogsAllItsArguments) {
  WSPCloseSocket(next.socket, &error);
  WSPSocket(AF_INET, 3, 1, nullptr, 0, 1, &error);
  GUID id = WSAID_CONNECTEX;
  WSAOVERLAPPED overlapped{};
  WSATHREADID thread{};
  thread.ThreadHandle = reinterpret_cast<HANDLE>(std::uintptr_t{85});
  next.result = -1;
  next.error = 10014;
  returned = 3;
  test::LogCapture log(0);
  EXPECT_EQ(WSPIoctl(next.socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function, 4,
                     &returned, &overlapped, NeverCompleted, &thread, &error),
            -1);
  EXPECT_EQ(function, &WSPConnectEx);
  const auto low = [](auto* pointer) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x",
                  static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer)));
    return std::string(text);
  };
  const std::string text = log.Text();
  const std::size_t failure = text.find(
      "[0][lsp]WSPIoctl:ret=-1, err=10014, io_control_code=0xc8000006, inbuffer=" + low(&id) +
      ", inbuffer_bytes=16, outbuffer=" + low(&function) +
      ", outbuffer_bytes=4, bytes_return=3, overlap=" + low(&overlapped) + ", comp_route=" +
      low(NeverCompleted) + ", thread_handle=85, socket=" + std::to_string(next.socket) + "\n");
  ASSERT_NE(failure, text.npos) << text;
  EXPECT_GT(text.find("extension function is ConnectEx"), failure);
  next.result = 0;
  EXPECT_EQ(WSPIoctl(next.socket, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, &function,
                     sizeof function, &returned, nullptr, nullptr, &thread, &error),
            0);
  EXPECT_EQ(log.Text().find("[lsp]WSPIoctl:ret=", failure + 4), text.npos)
      << "a success is not told";
}

TEST_F(ExtensionHooks, ConnectExNegatesTheRealResult) {
  char data[4] = {};
  DWORD sent = 0;
  OVERLAPPED overlapped{};
  test::LogCapture log(0);
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, data, 4, &sent, &overlapped), FALSE);
  ASSERT_EQ(next.calls.size(), 2u);
  EXPECT_EQ(next.calls[0].name, "WSPIoctl");
  EXPECT_EQ(next.calls[0].arguments[1], 0xC8000006u);
  EXPECT_EQ(next.calls[0].arguments[3], 16u);
  EXPECT_EQ(next.calls[0].arguments[5], sizeof(void*));
  EXPECT_EQ(next.calls[0].arguments[7], 0u);  // not overlapped
  EXPECT_EQ(next.calls[1].name, "ConnectEx");
  EXPECT_EQ(next.calls[1].arguments,
            WordsOf(next.socket, &server, 16, &data[0], 4, &sent, &overlapped));
  EXPECT_TRUE(log.Contains("[0][lsp]WSPConnectEx: WSPConnectEx, lpConnectEx="));
  EXPECT_TRUE(
      log.Contains("[5][lsp]WSPConnectEx: ret=1, err=0, dest=198.51.100.20:8080, port=0, " + tail))
      << log.Text();
}

TEST_F(ExtensionHooks, APendingConnectExReturnsTrueAndKeepsItsError) {
  test::LogCapture log(5);
  next.error = 997;
  OVERLAPPED overlapped{};
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, nullptr, 0, nullptr, &overlapped), TRUE);
  EXPECT_EQ(WSAGetLastError(), 997);
  EXPECT_TRUE(
      log.Contains("WSPConnectEx: ret=0, err=997, dest=198.51.100.20:8080, port=0, " + tail));
}

TEST_F(ExtensionHooks, AMendedConnectExAnswersAsTheNextProvider) {
  test::EndWorker();
  const test::Mended mended(kMendConnectEx);
  OVERLAPPED overlapped{};
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, nullptr, 0, nullptr, &overlapped), TRUE);
  next.error = 997;
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, nullptr, 0, nullptr, &overlapped),
            FALSE);
  EXPECT_EQ(WSAGetLastError(), 997);
  EXPECT_EQ(WSPConnectEx(next.socket, nullptr, 16, nullptr, 0, nullptr, nullptr), FALSE);
  EXPECT_EQ(WSAGetLastError(), WSAEINVAL);
  next.result = -1;
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, nullptr, 0, nullptr, nullptr), FALSE);
  test::EndWorker();  // it may have been started here
}

TEST_F(ExtensionHooks, AMissingConnectExAnswersMinusOne) {
  test::LogCapture log(4);
  next.result = -1;
  WSASetLastError(4711);
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, nullptr, 0, nullptr, nullptr), -1);
  EXPECT_EQ(WSPConnectEx(0x999, Generic(server), 16, nullptr, 0, nullptr, nullptr), -1);
  EXPECT_EQ(WSPConnectEx(next.socket, nullptr, 16, nullptr, 0, nullptr, nullptr), -1);
  EXPECT_EQ(WSAGetLastError(), 4711);
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kNoConnectEx + tail));
  EXPECT_TRUE(log.Contains("[5][lsp]" + test::NoNextProvider("WSPConnectEx") + "2457\n"));
}

}  // namespace
}  // namespace moru_vyr::lsp
