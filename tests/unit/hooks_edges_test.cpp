// Edge cases of the replaced entries, over a scripted next provider. At stake: nothing is read
// beyond what the caller says is there, and what is logged about a socket is its own.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/unit/scripted_provider.h"

namespace moru_vyr::lsp {
namespace {

using test::Address;
using test::Generic;

struct HookEdges : testing::Test {
  void Make(int type = 1, int protocol = 6, DWORD socket_flags = 1) {
    EXPECT_EQ(WSPSocket(AF_INET, type, protocol, nullptr, 0, socket_flags, &error), next.socket);
    next.calls.clear();
  }
  SocketRecord Record() { return GetSocketMap().Get(next.socket); }
  std::string Tail() {
    return "socket=" + std::to_string(next.socket) + ", token=" + std::to_string(Record().token) +
           "\n";
  }
  void Fail(int with) {
    next.result = -1;
    next.error = with;
  }
  int SendTo(const sockaddr* to, int size) {
    return WSPSendTo(next.socket, &buffer, 1, &bytes, 0, to, size, nullptr, nullptr, nullptr,
                     &error);
  }
  int RecvFrom() {
    return WSPRecvFrom(next.socket, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, nullptr,
                       nullptr, &error);
  }
  int Send() {
    return WSPSend(next.socket, &buffer, 1, &bytes, 0, nullptr, nullptr, nullptr, &error);
  }
  int Recv() {
    return WSPRecv(next.socket, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, &error);
  }

  test::ScriptedProvider next;
  const sockaddr_in server = Address("198.51.100.20", 8080);
  INT error = 0;
  char data[8] = {};
  WSABUF buffer{sizeof data, data};
  DWORD bytes = 0, flags = 0;
};

// --- addresses ------------------------------------------------------------------------------

// The padding of an address is not needed to print it.
TEST_F(HookEdges, AnAddressWithoutItsPaddingIsPrinted) {
  Make();
  test::LogCapture log(4);
  for (const int size : {8, 15}) {
    EXPECT_EQ(WSPBind(next.socket, Generic(server), size, &error), 0);
    EXPECT_EQ(next.Last().arguments[2], static_cast<std::uintptr_t>(size));
  }
  EXPECT_EQ(WSPBind(next.socket, Generic(server), 7, &error), 0);
  const std::string text = log.Text();
  const std::string line = "WSPBind: ret=0, err=0, port=8080, " + Tail();
  EXPECT_NE(text.find(line), text.rfind(line)) << text;
  EXPECT_TRUE(log.Contains("WSPBind: ret=0, err=0, port=0, " + Tail())) << text;
}

// A provider that reads no more of an address than there is.
std::string read_below;
int WSPAPI SendToThatReadsWhatThereIs(SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, const sockaddr* to,
                                      int size, LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                                      LPWSATHREADID, LPINT) {
  read_below.assign(reinterpret_cast<const char*>(to), static_cast<size_t>(size));
  return 0;
}

// It lies at the very end of memory that may be read.
TEST_F(HookEdges, AShortDestinationIsNotReadBeyondItsEnd) {
  common::GetProcessInfo().udp_proc_table.lpWSPSendTo = SendToThatReadsWhatThereIs;
  Make(2, 17);
  const auto* const first = reinterpret_cast<const char*>(&server);
  const std::vector<char> place(first, first + 8);
  EXPECT_EQ(SendTo(reinterpret_cast<const sockaddr*>(place.data()), 8), 0);
  EXPECT_EQ(read_below, std::string(first, 8));
}

TEST_F(HookEdges, APeerWithoutASizeIsPrintedAsNone) {
  Make();
  next.address = server;
  sockaddr_in peer{};
  test::LogCapture log(4);
  EXPECT_EQ(WSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(&peer), nullptr, &error), 0);
  EXPECT_TRUE(log.Contains("WSPGetPeerName: ret=0, err=0, peer=0.0.0.0:0, " + Tail()))
      << log.Text();
}

// A provider that finds no room for an address, and says how much it would have needed.
int WSPAPI PeerThatDoesNotFit(SOCKET, struct sockaddr*, LPINT size, LPINT error) {
  *size = sizeof(sockaddr_in);
  *error = WSAEFAULT;
  return SOCKET_ERROR;
}

TEST_F(HookEdges, APeerThatDoesNotFitIsNotReadBeyondItsPlace) {
  common::GetProcessInfo().tcp_proc_table.lpWSPGetPeerName = PeerThatDoesNotFit;
  Make();
  std::vector<char> place(4);
  INT size = 4;
  test::LogCapture log(4);
  EXPECT_EQ(WSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(place.data()), &size, &error),
            SOCKET_ERROR);
  EXPECT_TRUE(log.Contains("WSPGetPeerName: ret=-1, err=10014, peer=0.0.0.0:0, " + Tail()))
      << log.Text();
}

// --- opening --------------------------------------------------------------------------------

TEST_F(HookEdges, OnlyItsFlagMakesASocketOverlapped) {
  test::LogCapture log(4);
  Make(1, 6, 0x80);
  EXPECT_TRUE(log.Contains("overlapped=false, protocol=6, ")) << log.Text();
  GetSocketMap().Remove(next.socket);
  Make(1, 6, 0x81);
  EXPECT_TRUE(log.Contains("overlapped=true, protocol=6, ")) << log.Text();
}

u32 token_below = 0;
SOCKET WSPAPI SocketThatTakesAToken(int, int, int, LPWSAPROTOCOL_INFOW, GROUP, DWORD, LPINT) {
  token_below = GetRelayMgr().NextToken();
  return 0x1234;
}

// A provider below may open sockets of its own in the call: theirs are numbered first.
TEST_F(HookEdges, ATokenIsTakenAfterTheNextProviderReturned) {
  common::GetProcessInfo().tcp_proc_table.lpWSPSocket = SocketThatTakesAToken;
  Make();
  EXPECT_EQ(Record().token, token_below + 1);
}

// Closed behind our back, its value comes back: the first record stays, and the line names the
// token that was taken for nothing.
TEST_F(HookEdges, ASocketValueThatComesBackKeepsItsFirstRecord) {
  Make(1, 6);
  const u32 first = Record().token;
  test::LogCapture log(4);
  Make(2, 17);
  EXPECT_EQ(Record().token, first);
  EXPECT_EQ(Record().type, SOCK_STREAM);
  EXPECT_EQ(Record().protocol, IPPROTO_TCP);
  EXPECT_TRUE(log.Contains("socket=" + std::to_string(next.socket) +
                           ", token=" + std::to_string(first + 1) + "\n"))
      << log.Text();
}

TEST_F(HookEdges, ABindThatSucceedsStoresNoPort) {
  Make();
  EXPECT_EQ(WSPBind(next.socket, Generic(server), sizeof server, &error), 0);
  EXPECT_EQ(Record().local_port, 0);
}

// --- ConnectEx ------------------------------------------------------------------------------

// The function comes from an ioctl: of the table it needs that entry alone.
TEST_F(HookEdges, ConnectExNeedsNoConnectOfTheNextProvider) {
  common::GetProcessInfo().tcp_proc_table.lpWSPConnect = nullptr;
  Make();
  EXPECT_EQ(WSPConnectEx(next.socket, Generic(server), 16, nullptr, 0, nullptr, nullptr), FALSE);
  ASSERT_EQ(next.calls.size(), 2u);
  EXPECT_EQ(next.calls[1].name, "ConnectEx");
  EXPECT_NE(next.calls[0].arguments[9], 0u) << "a provider may read the thread's id";
}

// --- pings ----------------------------------------------------------------------------------

// A ping message is expected in the first buffer alone.
TEST_F(HookEdges, APingIsReadFromTheFirstOfItsBuffers) {
  Make(3, 1);
  EXPECT_EQ(
      WSPConnect(next.socket, Generic(server), 16, nullptr, nullptr, nullptr, nullptr, &error), 0);
  next.calls.clear();
  char message[8] = {8, 0, '\xf7', '\xff'};
  WSABUF buffers[2] = {{sizeof message, message}, {sizeof data, data}};
  EXPECT_EQ(WSPSend(next.socket, buffers, 2, &bytes, 0, nullptr, nullptr, nullptr, &error), 0);
  EXPECT_EQ(bytes, 8u);
  EXPECT_TRUE(next.calls.empty()) << "it is held";
  const DWORD begin = GetTickCount();
  while (GetTickCount() - begin < 45) Sleep(1);
  char reply[40] = {};
  WSABUF places[2] = {{sizeof reply, reply}, {sizeof data, data}};
  EXPECT_EQ(WSPRecv(next.socket, places, 2, &bytes, &flags, nullptr, nullptr, nullptr, &error), 0);
  EXPECT_EQ(bytes, 28u);
  EXPECT_EQ(reply[0], 0x45);
  EXPECT_TRUE(next.calls.empty());
  WSPCloseSocket(next.socket, &error);
}

// --- levels ---------------------------------------------------------------------------------

// The life of a socket is logged at the level of events, whatever happens to it.
TEST_F(HookEdges, TheLifeOfASocketIsLoggedAtTheLevelOfEvents) {
  test::LogCapture log(4);
  Make();
  const std::string tail = Tail();
  sockaddr_in peer{};
  INT size = sizeof peer;
  EXPECT_EQ(WSPBind(next.socket, Generic(server), 16, &error), 0);
  GetSocketMap().SetHandledAddr(next.socket, Generic(server), 16);
  EXPECT_EQ(WSPGetPeerName(next.socket, reinterpret_cast<sockaddr*>(&peer), &size, &error), 0);
  EXPECT_EQ(WSPCloseSocket(next.socket, &error), 0);
  EXPECT_EQ(WSPAccept(0x99, nullptr, nullptr, nullptr, 0, &error), next.socket);
  for (const std::string line :
       {"WSPSocket: err=0, af=2,type=TCP, ", "WSPBind: ret=0, err=0, port=8080, ",
        "WSPGetPeerName: retrive from handled info, peer=198.51.100.20:",
        "WSPCloseSocket: ret=0, err=0, protocol=6, type=1, ", "WSPAccept: err=0, accept_socket="}) {
    EXPECT_TRUE(log.Contains("[4][lsp]" + line)) << line << log.Text();
  }
}

// And a socket without a provider as a failure.
TEST_F(HookEdges, CallsWithoutANextProviderAreLoggedAsFailures) {
  test::LogCapture log(4);
  constexpr SOCKET kUnknown = 0x999;
  sockaddr_in peer{};
  INT size = sizeof peer;
  WSPBind(kUnknown, Generic(server), 16, &error);
  WSPGetPeerName(kUnknown, reinterpret_cast<sockaddr*>(&peer), &size, &error);
  WSPCloseSocket(kUnknown, &error);
  WSPSend(kUnknown, &buffer, 1, &bytes, 0, nullptr, nullptr, nullptr, &error);
  WSPRecv(kUnknown, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, &error);
  WSPSendTo(kUnknown, &buffer, 1, &bytes, 0, Generic(server), 16, nullptr, nullptr, nullptr,
            &error);
  WSPRecvFrom(kUnknown, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, nullptr, nullptr,
              &error);
  for (const std::string call : {"WSPConnect", "WSPGetPeerName", "WSPCloseSocket", "WSPSend",
                                 "WSPRecv", "WSPSendTo", "WSPRecvFrom"}) {
    EXPECT_TRUE(log.Contains("[5][lsp]" + call + ": next_proc_table invalid, socket=2457\n"))
        << call << log.Text();
  }
}

// --- the filter -----------------------------------------------------------------------------

// Each kind of call counts its failures under its own number.
TEST_F(HookEdges, EachCallCountsItsFailuresApart) {
  constexpr int kError = 10054;
  const SocketOperation all[] = {kOperationSend, kOperationSendTo, kOperationRecv,
                                 kOperationRecvFrom, kOperationConnect};
  for (const SocketOperation failing : all) {
    SCOPED_TRACE(failing);
    next.result = 0;
    Make(2, 17);
    const u32 token = Record().token;
    Fail(kError);
    for (int i = 0; i < 5; ++i) {
      switch (failing) {
        case kOperationSend:
          EXPECT_EQ(Send(), -1);
          break;
        case kOperationSendTo:
          EXPECT_EQ(SendTo(Generic(server), 16), -1);
          break;
        case kOperationRecv:
          EXPECT_EQ(Recv(), -1);
          break;
        case kOperationRecvFrom:
          EXPECT_EQ(RecvFrom(), -1);
          break;
        case kOperationConnect:
          EXPECT_EQ(WSPConnect(next.socket, Generic(server), 16, nullptr, nullptr, nullptr, nullptr,
                               &error),
                    -1);
          break;
      }
    }
    for (const SocketOperation other : all) {
      EXPECT_EQ(GetSocketErrorFilter().ShouldLog(other, kError, token), other != failing) << other;
    }
    next.result = 0;
    WSPCloseSocket(next.socket, &error);
  }
}

// --- a socket that may not be relayed -------------------------------------------------------

// Whatever its record says about a relay, none is asked for.
TEST_F(HookEdges, AConnectedSocketThatMayNotBeRelayedSendsNoRequest) {
  Make(2, 17);
  GetSocketMap().SetUdpConnectMode(next.socket, true);
  EXPECT_EQ(Send(), 0);
  ASSERT_EQ(next.calls.size(), 1u);
  EXPECT_EQ(next.calls[0].name, "WSPSend");
  EXPECT_EQ(Record().relay_state, kRelayNotAsked);
}

}  // namespace
}  // namespace moru_vyr::lsp
