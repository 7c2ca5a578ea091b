// Game sockets that are connected. At stake: such a socket is connected to its relay, or to the
// server itself, and never to anything else.
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "hooks/udp_relay.h"
#include "port/shared/faults.h"
#include "udp/udp_package_queue.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using Texts = std::vector<std::string>;

class UdpConnected : public UdpSpiedWorld {
 protected:
  // "198.51.100.10:27015"
  static std::string PeerOf(SOCKET s) {
    sockaddr_in peer = {};
    int size = sizeof peer;
    if (getpeername(s, Raw(peer), &size) != 0) return "none";
    return std::string(inet_ntoa(peer.sin_addr)) + ":" + std::to_string(ntohs(peer.sin_port));
  }
};

SCENARIO_F(UdpConnected, AConnectedSocketIsConnectedToItsRelayAndSaysSo) {
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(RecordOf(s).relay_state, kRelayRunning);
  EXPECT_TRUE(RecordOf(s).udp_connect_mode);
  EXPECT_EQ(RecordOf(s).relay_records[0].ip, 0u) << "what was decided is not kept";
  EXPECT_TRUE(Logged("dest=198.51.100.10:27015, " + test::UdpConnectMode(true) +
                     "socket=" + std::to_string(s)));
  EXPECT_EQ(PeerOf(s), "127.0.0.1:" + std::to_string(ntohs(RecordOf(s).relay_addr.sin_port)));
  EXPECT_EQ(GameSent(), Texts{"open"});
  // The relay does not know where it is connected to: nothing arrives.
  EXPECT_EQ(SendText(s, "lost"), 4);
  RunFor(1s);
  EXPECT_TRUE(heard.empty()) << AllHeard();
  EXPECT_TRUE(Logged(test::kFlowWithoutServer));
  closesocket(s);
  RunFor(100ms);
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
}

SCENARIO_F(UdpConnected, WhereNoDestinationIsNamedItIsThatOfTheSocket) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(sendto(s, "lost", 4, 0, nullptr, 0), 4);
  RunFor(100ms);
  EXPECT_EQ(GameSent(), (Texts{"open", ":lost"}));
  EXPECT_TRUE(Logged(test::kFlowWithoutServer)) << "kept: which the relay does not know";
}

SCENARIO_F(UdpConnected, ReceivingOnAConnectedSocketLeavesTheQueueAlone) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(Sends(s, "named"), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  EXPECT_EQ(Received(s), "named");
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "198.51.100.10:27015");
}

SCENARIO_F(UdpConnected, ASocketThatIsConnectedAfterItsFirstDatagramIsNotInConnectMode) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_FALSE(RecordOf(s).udp_connect_mode);
  sent.clear();
  EXPECT_EQ(SendText(s, "unqueued"), 8);
  RunFor(1s);
  EXPECT_TRUE(Logged("FindPackageAddr failed, token=")) << log_text();
  EXPECT_EQ(Heard(), Texts{"first"});
}

SCENARIO_F(UdpConnected, ARefusedSocketIsConnectedDirectly) {
  Starts();
  const SOCKET s = Udp();
  port::FailCall("WSPSocket", 1, WSAENOBUFS);
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused);
  EXPECT_EQ(SendText(s, "plain"), 5);
  RunFor(1s);
  EXPECT_EQ(Heard("game"), Texts{"plain"});
  const SOCKET unlisted = Udp();
  EXPECT_EQ(ConnectTo(unlisted, kUnlisted, kPort), 0);
  EXPECT_EQ(RecordOf(unlisted).relay_state, kRelayNotAsked);
  EXPECT_EQ(PeerOf(unlisted), "198.51.100.14:27015");
  // A datagram that names no destination leaves the state as it is: it is no reason to ask.
  sent.clear();
  EXPECT_EQ(sendto(unlisted, "x", 1, 0, nullptr, 0), 1);
  EXPECT_EQ(GameSent(), Texts{":x"});
  EXPECT_EQ(RecordOf(unlisted).relay_state, kRelayNotAsked);
}

SCENARIO_F(UdpConnected, AConnectWithoutAPlaceForTheRelaysAddressGoesDirect) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "relayed"), "relayed from 198.51.100.10:27015");
  const sockaddr_in server_address = At(kServer, kPort);
  EXPECT_FALSE(HandleUdpConnect(RecordOf(s), &server_address, nullptr));
}

// A destination is decided again at each connect, whatever the state of the socket is by then.
SCENARIO_F(UdpConnected, ARelayedSocketIsConnectedDirectlyToWhatIsNotWanted) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "relayed"), "relayed from 198.51.100.10:27015");
  EXPECT_EQ(ConnectTo(s, kUnlisted, kPort), 0);
  EXPECT_EQ(PeerOf(s), "198.51.100.14:27015");
  EXPECT_EQ(SendText(s, "plain"), 5);
  RunFor(100ms);
  EXPECT_EQ(Heard("game"), Texts{"plain"}) << AllHeard();
  EXPECT_TRUE(Logged(test::UdpConnectMode(false) + "socket="));
}

// The copy that was queued for it must not be taken for the next datagram's.
SCENARIO_F(UdpConnected, ADatagramThatCannotBeSentIsTakenBack) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  for (const int error : {WSAEWOULDBLOCK, WSA_IO_PENDING, WSAENOBUFS}) {
    port::FailCall("WSPSend", 1, static_cast<DWORD>(error));
    EXPECT_EQ(ErrorOf(SendText(s, "never sent")), error);
    EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "none") << error;
    port::ClearFaults();
  }
}

// From the moment on that a send is pending its buffers may be gone, and with them the bytes to
// look for.
SCENARIO_F(UdpConnected, ASendThatIsPendingIsTakenBackWithoutALookAtItsBuffers) {
  static struct Operation {
    char data[4] = {'s', 'a', 'm', 'e'};
    WSABUF buffer{sizeof data, data};
    DWORD bytes = 0;
    WSAOVERLAPPED overlapped{};
  } * operation;
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  const auto queue = GetRelayMgr().UseQueue(RecordOf(s).send_queue, RecordOf(s).token);
  const sockaddr_in older = At(kServer, 1);
  ASSERT_TRUE(queue->Push("same", 4, &older));
  const auto send = NextProvider().lpWSPSend;
  NextProvider().lpWSPSend = [](SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, LPWSAOVERLAPPED,
                                LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT error) {
    delete operation;
    *error = WSA_IO_PENDING;
    return SOCKET_ERROR;
  };
  operation = new Operation;
  int error = 0;
  EXPECT_EQ(WSPSend(s, &operation->buffer, 1, &operation->bytes, 0, &operation->overlapped, nullptr,
                    nullptr, &error),
            SOCKET_ERROR);
  NextProvider().lpWSPSend = send;
  EXPECT_EQ(error, WSA_IO_PENDING);
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "198.51.100.10:1") << "the other one is left";
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "none");
}

// The address that a call gives may be longer than an IPv4 address is, or too short to be one: its
// length is passed down unchanged, and the library must not read beyond its end.
SCENARIO_F(UdpConnected, TheLengthOfTheAddressIsTheCallersOwn) {
  static int connect_size;
  static std::string connect_bytes;
  static LPWSPCONNECT connect_below;
  Starts();
  connect_below = NextProvider().lpWSPConnect;
  NextProvider().lpWSPConnect = [](SOCKET s, const sockaddr* name, int size, LPWSABUF caller,
                                   LPWSABUF callee, LPQOS sqos, LPQOS gqos, LPINT error) {
    connect_size = size;
    connect_bytes.assign(reinterpret_cast<const char*>(name), static_cast<size_t>(size));
    return connect_below(s, name, size, caller, callee, sqos, gqos, error);
  };
  for (const int size : {16, 20, 28, static_cast<int>(sizeof(sockaddr_storage))}) {
    const sockaddr_in to[16] = {At(kServer, kPort)};
    const SOCKET s = Udp();
    EXPECT_EQ(ErrorOf(connect(s, Raw(to[0]), size)), 0) << size;
    EXPECT_EQ(connect_size, size);
    EXPECT_EQ(PeerOf(s), "127.0.0.1:" + std::to_string(ntohs(RecordOf(s).relay_addr.sin_port)));
  }
  const sockaddr_in to[16] = {At(kServer, kPort)};
  const SOCKET too_long = Udp();
  EXPECT_EQ(ErrorOf(connect(too_long, Raw(to[0]), sizeof to)), 0);
  EXPECT_EQ(connect_size, static_cast<int>(sizeof(sockaddr_storage))) << "guarded";
  const SOCKET too_short = Udp();
  EXPECT_EQ(ErrorOf(connect(too_short, Raw(to[0]), 8)), WSAEFAULT) << "as it is without us";
  EXPECT_EQ(connect_size, 8);
  NextProvider().lpWSPConnect = connect_below;
}

// Another thread closes the socket while it waits for its relay.
SCENARIO_F(UdpConnected, ASocketThatWasClosedMeanwhileIsNotRelayed) {
  Starts();
  const SOCKET s = Udp();
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 300ms);
  int error = 0;
  GameThread([&] { error = ConnectTo(s, kServer, kPort); });
  GameThread([&] {
    Sleep(100);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(error, WSAENOTSOCK);
  EXPECT_TRUE(Logged("[UDP] HandleUdpConnect:SetRelayAddr failed, socket=")) << log_text();
}

}  // namespace
