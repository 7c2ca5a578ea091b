// The replaced entries that create, connect and close sockets, over a scripted next provider. At
// stake: the game's arguments must reach the next provider, and its answers the game, whatever is
// logged about it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "hooks/downcall_table.h"
#include "hooks/hook_entries.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Generic;
using test::WordsOf;

std::string Hex(const void* pointer) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer)));
  return text;
}

struct StreamHooks : testing::Test {
  // A socket with a record, made as the application makes it.
  u32 MakeSocket(int type = 1, int protocol = 6) {
    EXPECT_EQ(WSPSocket(AF_INET, type, protocol, nullptr, 0, 1, &error), next.socket);
    next.calls.clear();
    return Record().token;
  }
  SocketRecord Record() { return GetSocketMap().Get(next.socket); }
  std::string Tail(u32 token) {
    return "socket=" + std::to_string(next.socket) + ", token=" + std::to_string(token) + "\n";
  }
  // The call failed because it found no next provider: in both places, or in one.
  void ExpectNetDown(bool last_error_too) {
    EXPECT_EQ(error, 10050);
    EXPECT_EQ(WSAGetLastError(), last_error_too ? 10050 : 4711);
    EXPECT_TRUE(next.calls.empty());
  }
  void ForgetErrors() {
    error = 0;
    WSASetLastError(4711);
  }

  test::ScriptedProvider next;
  const sockaddr_in server = Address("198.51.100.20", 8080);
  INT error = 0;
  static constexpr SOCKET kUnknown = 0x999;
};

TEST_F(StreamHooks, SocketPassesItsArgumentsAndRecordsTheResult) {
  WSAPROTOCOL_INFOW info{};
  EXPECT_EQ(WSPSocket(AF_INET, 2, 17, &info, 3, 5, &error), next.socket);
  ASSERT_EQ(next.calls.size(), 1u);
  EXPECT_EQ(next.Last().arguments, WordsOf(AF_INET, 2, 17, &info, 3, 5));
  const SocketRecord record = Record();
  EXPECT_EQ(record.socket, next.socket);
  EXPECT_EQ(record.type, SOCK_DGRAM);
  EXPECT_EQ(record.protocol, IPPROTO_UDP);
  EXPECT_EQ(record.next_proc_table, GetDowncallTable(17, nullptr));
}

TEST_F(StreamHooks, SocketLogsItself) {
  test::LogCapture log(4);
  WSAPROTOCOL_INFOW info{};
  WSPSocket(AF_INET, 1, 6, &info, 0, 1, &error);
  const std::string first =
      "WSPSocket: err=0, af=2,type=TCP, overlapped=true, protocol=6, lppro_info=" + Hex(&info) +
      ", group=0, flag=1, downcall_type=6, " + Tail(Record().token);
  EXPECT_TRUE(log.Contains("[4][lsp]" + first)) << log.Text();
  GetSocketMap().Remove(next.socket);
  WSPSocket(AF_INET, 3, 1, nullptr, 0, 0, &error);
  EXPECT_TRUE(
      log.Contains("err=0, af=2,type=RAW, overlapped=false, protocol=1, "
                   "lppro_info=0x00000000, group=0, flag=0, downcall_type=6, "))
      << log.Text();
}

TEST_F(StreamHooks, TokensCountUpAndFailedSocketsLeaveGaps) {
  const u32 first = MakeSocket();
  GetSocketMap().Remove(next.socket);
  next.result = -1;
  next.error = 10024;
  EXPECT_EQ(WSPSocket(AF_INET, 1, 6, nullptr, 0, 1, &error), INVALID_SOCKET);
  EXPECT_EQ(error, 10024);
  EXPECT_EQ(WSPAccept(kUnknown, nullptr, nullptr, nullptr, 0, &error), INVALID_SOCKET);
  next.result = 0;
  EXPECT_EQ(MakeSocket(), first + 2);  // the failed WSPSocket took one, the failed WSPAccept none
}

TEST_F(StreamHooks, SocketWithoutAnyTableFails) {
  for (const int protocol : {6, 17, 0}) {
    const WSPPROC_TABLE empty{};
    const WSPUPCALLTABLE upcalls{};
    SaveDowncallTable(protocol, &upcalls, &empty, nullptr);
  }
  test::LogCapture log(5);
  ForgetErrors();
  EXPECT_EQ(WSPSocket(AF_INET, 1, 6, nullptr, 0, 1, &error), INVALID_SOCKET);
  ExpectNetDown(true);
  ForgetErrors();
  EXPECT_EQ(WSPAccept(kUnknown, nullptr, nullptr, nullptr, 0, &error), INVALID_SOCKET);
  ExpectNetDown(true);
  EXPECT_EQ(WSPSocket(AF_INET, 1, 6, nullptr, 0, 1, nullptr), INVALID_SOCKET);
  EXPECT_TRUE(log.Contains("WSPSocket: create socket failed! can't find downcall table.\n"));
  EXPECT_TRUE(log.Contains("WSPAccept: create socket failed! can't find downcall table.\n"));
}

TEST_F(StreamHooks, AcceptRecordsATcpStreamWhateverTheListenerIs) {
  sockaddr_in peer{};
  INT size = sizeof peer;
  test::LogCapture log(4);
  EXPECT_EQ(WSPAccept(kUnknown, reinterpret_cast<sockaddr*>(&peer), &size, nullptr, 7, &error),
            next.socket);
  EXPECT_EQ(next.Last().name, "WSPAccept");
  EXPECT_EQ(next.Last().arguments, WordsOf(kUnknown, &peer, &size, nullptr, 7));
  EXPECT_EQ(Record().type, SOCK_STREAM);
  EXPECT_EQ(Record().protocol, IPPROTO_TCP);
  EXPECT_EQ(Record().next_proc_table, GetDowncallTable(6, nullptr));
  EXPECT_TRUE(log.Contains("WSPAccept: err=0, accept_socket=" + std::to_string(next.socket) +
                           ", listen socket=" + std::to_string(kUnknown) +
                           ", token=" + std::to_string(Record().token) + "\n"));
}

TEST_F(StreamHooks, AFailedAcceptIsADetail) {
  next.result = -1;
  next.error = 10035;
  test::LogCapture log(0);
  EXPECT_EQ(WSPAccept(kUnknown, nullptr, nullptr, nullptr, 0, &error), INVALID_SOCKET);
  EXPECT_TRUE(log.Contains("[0][lsp]WSPAccept: err=10035, accept_socket=-1, listen socket=" +
                           std::to_string(kUnknown) + "\n"))
      << log.Text();
}

TEST_F(StreamHooks, BindPassesThroughAndLogsThePort) {
  const u32 token = MakeSocket();
  test::LogCapture log(4);
  next.result = -1;
  next.error = 10048;
  EXPECT_EQ(WSPBind(next.socket, Generic(server), sizeof server, &error), -1);
  EXPECT_EQ(next.Last().name, "WSPBind");
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket, &server, sizeof server));
  EXPECT_EQ(error, 10048);
  EXPECT_TRUE(log.Contains("WSPBind: ret=-1, err=10048, port=8080, " + Tail(token)));
  EXPECT_EQ(Record().local_port, 0);
}

TEST_F(StreamHooks, BindWithoutANextProviderSaysConnectAndKeepsTheLastError) {
  test::LogCapture log(5);
  ForgetErrors();
  EXPECT_EQ(WSPBind(kUnknown, Generic(server), sizeof server, &error), -1);
  ExpectNetDown(false);
  EXPECT_TRUE(log.Contains(test::NoNextProvider("WSPConnect") + std::to_string(kUnknown) + "\n"));
  MakeSocket();
  ForgetErrors();
  EXPECT_EQ(WSPBind(next.socket, nullptr, 16, &error), -1);
  ExpectNetDown(false);
  EXPECT_EQ(WSPBind(kUnknown, nullptr, 16, nullptr), -1);
}

TEST_F(StreamHooks, ConnectPassesItsArgumentsAsTheyCame) {
  const u32 token = MakeSocket();
  WSABUF caller{}, callee{};
  auto* const sqos = reinterpret_cast<LPQOS>(0x30);
  auto* const gqos = reinterpret_cast<LPQOS>(0x40);
  test::LogCapture log(5);
  next.result = -1;
  next.error = 10035;
  EXPECT_EQ(WSPConnect(next.socket, Generic(server), 28, &caller, &callee, sqos, gqos, &error), -1);
  ASSERT_EQ(next.calls.size(), 1u);
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket, &server, 28, &caller, &callee, sqos, gqos));
  EXPECT_EQ(error, 10035);
  EXPECT_TRUE(log.Contains("[5][lsp]WSPConnect: ret=-1, err=10035, dest=198.51.100.20:8080, " +
                           test::UdpConnectMode(false) + Tail(token)))
      << log.Text();
}

TEST_F(StreamHooks, ConnectGrowsQuietAfterFiveLinesAlsoOnSuccess) {
  const u32 token = MakeSocket();
  test::LogCapture log(5);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(
        WSPConnect(next.socket, Generic(server), 16, nullptr, nullptr, nullptr, nullptr, &error),
        0);
  }
  const std::string text = log.Text();
  int lines = 0;
  for (std::size_t at = text.find("WSPConnect: ret=0"); at != std::string::npos;
       at = text.find("WSPConnect: ret=0", at + 1)) {
    ++lines;
  }
  EXPECT_EQ(lines, 5);
  EXPECT_EQ(next.calls.size(), 8u);
  EXPECT_TRUE(
      log.Contains("err=0, dest=198.51.100.20:8080, " + test::UdpConnectMode(false) + Tail(token)));
}

TEST_F(StreamHooks, ConnectWithoutANextProviderKeepsTheLastError) {
  test::LogCapture log(5);
  ForgetErrors();
  EXPECT_EQ(WSPConnect(kUnknown, Generic(server), 16, nullptr, nullptr, nullptr, nullptr, &error),
            -1);
  ExpectNetDown(false);
  MakeSocket();
  ForgetErrors();
  EXPECT_EQ(WSPConnect(next.socket, nullptr, 16, nullptr, nullptr, nullptr, nullptr, &error), -1);
  ExpectNetDown(false);
  EXPECT_TRUE(log.Contains(test::NoNextProvider("WSPConnect")));
}

// An address that is shorter than it claims to be must not be read past its end.
TEST_F(StreamHooks, AShortNameIsNotReadForTheLog) {
  MakeSocket();
  test::LogCapture log(5);
  auto name = std::make_unique<sockaddr>();
  const auto* const edge = reinterpret_cast<const sockaddr*>(
      reinterpret_cast<const char*>(name.get()) + sizeof(sockaddr) - 2);
  EXPECT_EQ(WSPConnect(next.socket, edge, 2, nullptr, nullptr, nullptr, nullptr, &error), 0);
  EXPECT_TRUE(log.Contains("dest=0.0.0.0:0, "));
}

TEST_F(StreamHooks, PeerNameComesFromTheNextProvider) {
  const u32 token = MakeSocket();
  next.address = Address("198.51.100.30", 443);
  sockaddr_in peer{};
  INT size = sizeof peer;
  test::LogCapture log(0);
  EXPECT_EQ(WSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(&peer), &size, &error), 0);
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket, &peer, &size));
  EXPECT_EQ(peer.sin_port, htons(443));
  const std::string text = log.Text();
  const std::size_t begin = text.find("[0][lsp]WSPGetPeerName begin\n");
  const std::size_t line =
      text.find("[4][lsp]WSPGetPeerName: ret=0, err=0, peer=198.51.100.30:443, " + Tail(token));
  const std::size_t end = text.find("[0][lsp]WSPGetPeerName end\n");
  EXPECT_TRUE(begin < line && line < end && end != std::string::npos) << text;
}

TEST_F(StreamHooks, PeerNameOfARedirectedSocketIsWhatTheGameAskedFor) {
  const u32 token = MakeSocket();
  GetSocketMap().SetHandledAddr(next.socket, Generic(server), 16);
  test::LogCapture log(4);
  sockaddr_in peer{};
  INT size = 0;  // the caller's size is not looked at
  error = 31;
  EXPECT_EQ(WSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(&peer), &size, &error), 0);
  EXPECT_EQ(std::memcmp(&peer, &server, sizeof peer), 0);
  EXPECT_EQ(size, 16);
  EXPECT_EQ(error, 31);
  EXPECT_TRUE(next.calls.empty());
  EXPECT_TRUE(log.Contains("WSPGetPeerName: retrive from handled info, peer=198.51.100.20:8080, " +
                           Tail(token)));
  EXPECT_EQ(WSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(&peer), nullptr, &error), 0);
}

TEST_F(StreamHooks, PeerNameWithoutABufferOrARecordFails) {
  MakeSocket();
  GetSocketMap().SetHandledAddr(next.socket, Generic(server), 16);
  INT size = 16;
  ForgetErrors();
  EXPECT_EQ(WSPGetPeerName(next.socket, nullptr, &size, &error), -1);
  ExpectNetDown(true);
  sockaddr_in peer{};
  test::LogCapture log(5);
  ForgetErrors();
  EXPECT_EQ(WSPGetPeerName(kUnknown, reinterpret_cast<sockaddr*>(&peer), &size, &error), -1);
  ExpectNetDown(true);
  EXPECT_TRUE(
      log.Contains(test::NoNextProvider("WSPGetPeerName") + std::to_string(kUnknown) + "\n"));
}

TEST_F(StreamHooks, CloseForgetsTheSocketAndReturnsTheNextProvidersResult) {
  const u32 token = MakeSocket(2, 17);
  test::LogCapture log(4);
  next.result = -1;
  next.error = 10038;
  EXPECT_EQ(WSPCloseSocket(next.socket, &error), -1);
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket));
  EXPECT_EQ(Record().socket, INVALID_SOCKET);
  EXPECT_TRUE(
      log.Contains("WSPCloseSocket: ret=-1, err=10038, protocol=17, type=2, " + Tail(token)));
}

// The value can come back as another thread's socket the moment it is closed below.
TEST_F(StreamHooks, TheRecordIsRemovedBeforeTheSocketIsClosed) {
  MakeSocket();
  next.known_at_close = true;
  EXPECT_EQ(WSPCloseSocket(next.socket, &error), 0);
  EXPECT_FALSE(next.known_at_close);
}

TEST_F(StreamHooks, CloseOfAnUnknownSocketLeavesItOpen) {
  test::LogCapture log(5);
  ForgetErrors();
  EXPECT_EQ(WSPCloseSocket(kUnknown, &error), -1);
  ExpectNetDown(true);
  EXPECT_TRUE(
      log.Contains(test::NoNextProvider("WSPCloseSocket") + std::to_string(kUnknown) + "\n"));
  EXPECT_EQ(WSPCloseSocket(kUnknown, nullptr), -1);
}

TEST_F(StreamHooks, CleanupAnswersWithoutTheNextProvider) {
  test::LogCapture log(0);
  error = 5;
  EXPECT_EQ(WSPCleanup(&error), 0);
  EXPECT_EQ(error, 0);
  EXPECT_EQ(WSPCleanup(nullptr), 0);
  EXPECT_TRUE(next.calls.empty());
  EXPECT_TRUE(log.Contains("[0][lsp]WSPCleanup\n"));
}

// --- bytes on a connected socket -------------------------------------------------------------

struct TransferHooks : StreamHooks {
  TransferHooks() : token(MakeSocket()) {}
  int Send(LPWSABUF buffers) {
    return WSPSend(next.socket, buffers, 1, &bytes, 4, &overlapped, nullptr, &thread, &error);
  }
  int Recv(LPWSABUF buffers) {
    return WSPRecv(next.socket, buffers, 1, &bytes, &flags, &overlapped, nullptr, &thread, &error);
  }
  std::string Places() {
    return "ol=" + Hex(&overlapped) + ", crt=0x00000000, pthd=" + Hex(&thread) + ", ";
  }
  std::string Pointer() {
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<void*>(&buffer));
    return text;
  }
  void Fail(int with) {
    next.result = -1;
    next.error = with;
  }
  int LinesOf(const test::LogCapture& log, const std::string& part) {
    const std::string text = log.Text();
    int lines = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
      ++lines;
    return lines;
  }

  u32 token;
  char data[8] = {};
  WSABUF buffer{sizeof data, data};
  DWORD bytes = 99;
  DWORD flags = 2;
  WSAOVERLAPPED overlapped{};
  WSATHREADID thread{};
};

TEST_F(TransferHooks, SendPassesItsArgumentsAndClearsTheCountFirst) {
  next.stores_bytes = false;
  EXPECT_EQ(Send(&buffer), 0);
  EXPECT_EQ(next.Last().name, "WSPSend");
  EXPECT_EQ(next.Last().arguments,
            WordsOf(next.socket, &buffer, 1, &bytes, 4, &overlapped, nullptr, &thread));
  EXPECT_EQ(bytes, 0u);
}

TEST_F(TransferHooks, ASuccessfulSendIsADetailAndNotFiltered) {
  next.bytes = 8;
  test::LogCapture log(0);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(Send(&buffer), 0);
  EXPECT_EQ(LinesOf(log, "[0][lsp]WSPSend: ret=0, err=0, pbuf=" + Pointer() +
                             ", buf_cnt=1, sent_bytes=8, flag=4, " + Places() + Tail(token)),
            7)
      << log.Text();
}

TEST_F(TransferHooks, EachCallHasItsOwnRuleForWhatIsAFailure) {
  struct Case {
    int error;
    int send_lines;
    int recv_lines;
  };
  for (const Case& expected : {Case{10054, 5, 5}, Case{997, 5, 0}, Case{10035, 0, 0}}) {
    test::LogCapture log(4);
    Fail(expected.error);
    for (int i = 0; i < 7; ++i) {
      EXPECT_EQ(Send(&buffer), -1);
      EXPECT_EQ(error, expected.error);
      EXPECT_EQ(Recv(&buffer), -1);
      EXPECT_EQ(error, expected.error);
    }
    EXPECT_EQ(LinesOf(log, "[4][lsp]WSPSend: ret=-1, err="), expected.send_lines) << expected.error;
    EXPECT_EQ(LinesOf(log, "[4][lsp]WSPRecv: ret=-1, err="), expected.recv_lines) << expected.error;
  }
}

TEST_F(TransferHooks, RecvPassesItsArgumentsAndClearsTheCountFirst) {
  next.stores_bytes = false;
  EXPECT_EQ(Recv(&buffer), 0);
  EXPECT_EQ(next.Last().name, "WSPRecv");
  EXPECT_EQ(next.Last().arguments,
            WordsOf(next.socket, &buffer, 1, &bytes, &flags, &overlapped, nullptr, &thread));
  EXPECT_EQ(bytes, 0u);
}

TEST_F(TransferHooks, ASuccessfulRecvIsADetailAndNotFiltered) {
  next.bytes = 3;
  test::LogCapture log(0);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(Recv(&buffer), 0);
  EXPECT_EQ(LinesOf(log,
                    "[0][lsp]WSPRecv: ret=0, err=0, buf_len=8, buf_cnt=1, recv_bytes=3, "
                    "flag=2, " +
                        Places() + Tail(token)),
            7)
      << log.Text();
}

TEST_F(TransferHooks, APeerThatClosedIsLoggedAsAFailure) {
  next.bytes = 0;
  test::LogCapture log(0);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(Recv(&buffer), 0);
  EXPECT_EQ(LinesOf(log, "[4][lsp]WSPRecv: ret=0, err=0, buf_len=8, buf_cnt=1, recv_bytes=0, "), 5);
  EXPECT_EQ(LinesOf(log, "WSPRecv: ret="), 5);
}

TEST_F(TransferHooks, RecvWithoutBuffersIsLogged) {
  test::LogCapture log(0);
  Fail(10054);
  EXPECT_EQ(Recv(nullptr), -1);
  EXPECT_TRUE(log.Contains(
      "[0][lsp]WSPRecv: buffer is empty, socket=" + std::to_string(next.socket) + "\n"));
  EXPECT_EQ(LinesOf(log, "WSPRecv: ret="), 0);
  EXPECT_EQ(next.calls.size(), 1u);
}

TEST_F(TransferHooks, NullPointersAndNoBuffersAreHarmless) {
  test::LogCapture log(0);
  EXPECT_EQ(WSPSend(next.socket, nullptr, 0, nullptr, 0, nullptr, nullptr, nullptr, nullptr), 0);
  EXPECT_EQ(WSPRecv(next.socket, &buffer, 0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            0);
  EXPECT_TRUE(
      log.Contains("buf_len=0, buf_cnt=0, recv_bytes=0, flag=0, ol=0x00000000, "
                   "crt=0x00000000, pthd=0x00000000, "));
}

TEST_F(TransferHooks, UnknownSocketsFailInBothPlaces) {
  test::LogCapture log(5);
  ForgetErrors();
  EXPECT_EQ(WSPSend(kUnknown, &buffer, 1, &bytes, 0, nullptr, nullptr, nullptr, &error), -1);
  ExpectNetDown(true);
  ForgetErrors();
  EXPECT_EQ(WSPRecv(kUnknown, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, &error), -1);
  ExpectNetDown(true);
  EXPECT_EQ(bytes, 99u);
  const std::string socket = std::to_string(kUnknown);
  EXPECT_TRUE(log.Contains(test::NoNextProvider("WSPSend") + socket + "\n"));
  EXPECT_TRUE(log.Contains(test::NoNextProvider("WSPRecv") + socket + "\n"));
}

TEST_F(TransferHooks, AClosedSocketsFailuresAreCountedAfresh) {
  test::LogCapture log(4);
  Fail(10054);
  for (int i = 0; i < 7; ++i) Send(&buffer);
  next.result = 0;
  EXPECT_EQ(WSPCloseSocket(next.socket, &error), 0);
  const u32 second = MakeSocket();
  EXPECT_NE(second, token);
  Fail(10054);
  for (int i = 0; i < 7; ++i) Send(&buffer);
  EXPECT_EQ(LinesOf(log, "WSPSend: ret=-1"), 10);
}

}  // namespace
}  // namespace moru_vyr::lsp
