// The replaced entries that name an address with each datagram. At stake: the address and the
// datagram must reach the next provider, and its answer the game, unchanged.
#include <gtest/gtest.h>

#include <cstring>

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

struct DatagramHooks : testing::Test {
  DatagramHooks() {
    WSPSocket(AF_INET, 2, 17, nullptr, 0, 1, &error);
    next.calls.clear();
    const SocketRecord record = GetSocketMap().Get(next.socket);
    tail =
        "socket=" + std::to_string(next.socket) + ", token=" + std::to_string(record.token) + "\n";
  }
  int SendTo(const sockaddr_in* to) {
    return WSPSendTo(next.socket, &buffer, 1, &bytes, 4, reinterpret_cast<const sockaddr*>(to), 16,
                     &overlapped, nullptr, &thread, &error);
  }
  int RecvFrom(sockaddr_in* from) {
    return WSPRecvFrom(next.socket, &buffer, 1, &bytes, &flags, reinterpret_cast<sockaddr*>(from),
                       &from_size, &overlapped, nullptr, &thread, &error);
  }
  void Fail(int with) {
    next.result = -1;
    next.error = with;
  }
  static int LinesOf(const test::LogCapture& log, const std::string& part) {
    const std::string text = log.Text();
    int lines = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
      ++lines;
    return lines;
  }
  std::string Rest() {
    char text[200];
    const auto low = [](const void* p) {
      return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(p));
    };
    std::snprintf(text, sizeof text, "ol=0x%08x, crt=0x00000000, pthd=0x%08x, ", low(&overlapped),
                  low(&thread));
    return text + tail;
  }
  std::string Pointer() {
    char text[32];
    std::snprintf(text, sizeof text, "%p", static_cast<void*>(&buffer));
    return text;
  }

  test::ScriptedProvider next;
  const sockaddr_in server = Address("198.51.100.20", 27015);
  INT error = 0;
  std::string tail;
  char data[8] = {};
  WSABUF buffer{sizeof data, data};
  DWORD bytes = 99;
  DWORD flags = 2;
  INT from_size = 16;
  WSAOVERLAPPED overlapped{};
  WSATHREADID thread{};
};

TEST_F(DatagramHooks, SendToPassesItsArgumentsAndLeavesTheCountAlone) {
  next.stores_bytes = false;
  EXPECT_EQ(SendTo(&server), 0);
  EXPECT_EQ(next.Last().name, "WSPSendTo");
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket, &buffer, 1, &bytes, 4, &server, 16,
                                           &overlapped, nullptr, &thread));
  EXPECT_EQ(bytes, 99u);
}

// The caller says how much of an address is valid, and the next provider judges it.
TEST_F(DatagramHooks, SendToPassesTheLengthOfTheAddressAsItIs) {
  sockaddr_in room[16] = {server};
  for (const int size : {-1, 0, 2, 15, 16, 17, 32, 129, 256}) {
    EXPECT_EQ(WSPSendTo(next.socket, &buffer, 1, &bytes, 4, Generic(room[0]), size, &overlapped,
                        nullptr, &thread, &error),
              0);
    EXPECT_EQ(next.Last().arguments[6], test::Word(size)) << size;
  }
}

TEST_F(DatagramHooks, SendToLogsItsDestination) {
  next.bytes = 8;
  test::LogCapture log(0);
  for (int i = 0; i < 7; ++i) EXPECT_EQ(SendTo(&server), 0);
  EXPECT_EQ(LinesOf(log,
                    "[0][lsp]WSPSendTo: ret=0, err=0, dst=198.51.100.20:27015, "
                    "relay_send=false, pbuf=" +
                        Pointer() + ", buf_cnt=1, sent_bytes=8, flag=4, " + Rest()),
            7)
      << log.Text();
}

TEST_F(DatagramHooks, SendToWithoutADestinationPassesNull) {
  test::LogCapture log(0);
  EXPECT_EQ(SendTo(nullptr), 0);
  EXPECT_EQ(next.Last().arguments[5], 0u);
  EXPECT_TRUE(log.Contains("dst=NULL:0, relay_send=false, "));
}

TEST_F(DatagramHooks, RecvFromPassesItsArgumentsAndLeavesTheCountAlone) {
  next.stores_bytes = false;
  sockaddr_in from{};
  EXPECT_EQ(RecvFrom(&from), 0);
  EXPECT_EQ(next.Last().name, "WSPRecvFrom");
  EXPECT_EQ(next.Last().arguments, WordsOf(next.socket, &buffer, 1, &bytes, &flags, &from,
                                           &from_size, &overlapped, nullptr, &thread));
  EXPECT_EQ(bytes, 99u);
}

TEST_F(DatagramHooks, RecvFromHandsBackTheSourceAndLogsIt) {
  next.address = Address("198.51.100.30", 27016);
  next.bytes = 5;
  sockaddr_in from{};
  test::LogCapture log(0);
  EXPECT_EQ(RecvFrom(&from), 0);
  EXPECT_EQ(std::memcmp(&from, &next.address, sizeof from), 0);
  EXPECT_TRUE(log.Contains(
      "[0][lsp]WSPRecvFrom end: ret=0, err=0, from=198.51.100.30:27016, pbuf=" + Pointer() +
      ", buf_cnt=1, recv_bytes=5, flag=2, " + Rest()))
      << log.Text();
  EXPECT_EQ(RecvFrom(nullptr), 0);
  EXPECT_TRUE(log.Contains("from=NULL:0, "));
}

// No bytes from a datagram socket is an empty datagram and no failure.
TEST_F(DatagramHooks, AnEmptyDatagramIsADetail) {
  next.bytes = 0;
  sockaddr_in from{};
  test::LogCapture log(4);
  EXPECT_EQ(RecvFrom(&from), 0);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(DatagramHooks, EachCallHasItsOwnRuleForWhatIsAFailure) {
  struct Case {
    int error;
    int send_lines;
    int recv_lines;
  };
  for (const Case& expected : {Case{10054, 5, 5}, Case{997, 0, 5}, Case{10035, 0, 0}}) {
    test::LogCapture log(4);
    Fail(expected.error);
    sockaddr_in from{};
    for (int i = 0; i < 7; ++i) {
      EXPECT_EQ(SendTo(&server), -1);
      EXPECT_EQ(error, expected.error);
      EXPECT_EQ(RecvFrom(&from), -1);
      EXPECT_EQ(error, expected.error);
    }
    EXPECT_EQ(LinesOf(log, "[4][lsp]WSPSendTo: ret=-1, err="), expected.send_lines)
        << expected.error;
    EXPECT_EQ(LinesOf(log, "[4][lsp]WSPRecvFrom end: ret=-1, err="), expected.recv_lines)
        << expected.error;
  }
}

TEST_F(DatagramHooks, UnknownSocketsFailInBothPlaces) {
  constexpr SOCKET kUnknown = 0x999;
  test::LogCapture log(5);
  WSASetLastError(0);
  EXPECT_EQ(WSPSendTo(kUnknown, &buffer, 1, &bytes, 0, Generic(server), 16, nullptr, nullptr,
                      nullptr, &error),
            -1);
  EXPECT_EQ(error, 10050);
  EXPECT_EQ(WSAGetLastError(), 10050);
  error = 0;
  WSASetLastError(0);
  EXPECT_EQ(WSPRecvFrom(kUnknown, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, nullptr,
                        nullptr, &error),
            -1);
  EXPECT_EQ(error, 10050);
  EXPECT_EQ(WSAGetLastError(), 10050);
  EXPECT_TRUE(next.calls.empty());
  EXPECT_TRUE(log.Contains(test::NoNextProvider("WSPSendTo") + "2457\n"));
  EXPECT_TRUE(log.Contains(test::NoNextProvider("WSPRecvFrom") + "2457\n"));
}

// A relay that was refused, one that runs, a destination that is known: none of it matters
// while no socket may be relayed.
TEST_F(DatagramHooks, RelayFieldsOfTheRecordChangeNothingWithoutARelay) {
  const sockaddr_in relay = Address("127.0.0.1", 4000);
  GetSocketMap().SetRelayAddr(next.socket, &relay, nullptr, nullptr);
  GetSocketMap().SaveRelayRecord(next.socket, &server, true);
  EXPECT_EQ(SendTo(&server), 0);
  EXPECT_EQ(next.Last().arguments[5], test::Word(&server));
  next.address = relay;
  sockaddr_in from{};
  EXPECT_EQ(RecvFrom(&from), 0);
  EXPECT_EQ(std::memcmp(&from, &relay, sizeof from), 0);
  EXPECT_EQ(WSPCloseSocket(next.socket, &error), 0);
  EXPECT_EQ(next.calls.size(), 3u);  // and no message to the relay at the end
}

}  // namespace
}  // namespace moru_vyr::lsp
