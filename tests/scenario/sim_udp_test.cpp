// Datagrams and pings on the simulated network.
#include "tests/scenario/sim_sockets.h"

namespace {
using namespace sim_test;  // NOLINT: the verbs of these tests

using SimUdp = TwoHosts;

// Every datagram that comes within the time, in order of arrival.
std::vector<std::string> Arrivals(SOCKET s, int ms) {
  std::vector<std::string> all;
  while (ReadableWithin(s, ms)) all.push_back(Received(s));
  return all;
}
SOCKET UdpAt(int port) {
  const SOCKET s = Udp();
  EXPECT_EQ(BindTo(s, "0.0.0.0", port), 0);
  return s;
}
void SendNumbers(int count, const char* to, int port) {
  Sleep(1);
  const SOCKET s = Udp();
  for (int i = 0; i < count; ++i) {
    EXPECT_GT(SendTextTo(s, std::to_string(i), to, port), 0);
    Sleep(1);
  }
}

SCENARIO_F(SimUdp, KeepsMessageBoundariesAndReportsTheSender) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = UdpAt(9);
        char buffer[100];
        sockaddr_in from = {};
        int size = sizeof from;
        EXPECT_EQ(recvfrom(s, buffer, sizeof buffer, 0, Raw(from), &size), 3);
        EXPECT_STREQ(inet_ntoa(from.sin_addr), kClient);
        EXPECT_EQ(ntohs(from.sin_port), 1234);
        EXPECT_EQ(Received(s), "");
        EXPECT_EQ(Received(s), "four");
      },
      [] {
        Sleep(1);
        const SOCKET s = UdpAt(1234);
        EXPECT_EQ(SendTextTo(s, "one", kServer, 9), 3);
        EXPECT_EQ(SendTextTo(s, "", kServer, 9), 0);
        EXPECT_EQ(SendTextTo(s, "four", kServer, 9), 4);
      }));
}

SCENARIO_F(SimUdp, ATooLongDatagramIsCutAnd10040) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = UdpAt(9);
        char buffer[4] = {};
        EXPECT_EQ(ErrorOf(recv(s, buffer, 3, 0)), WSAEMSGSIZE);
        EXPECT_STREQ(buffer, "abc");
        EXPECT_EQ(Received(s), "next");
      },
      [] {
        Sleep(1);
        const SOCKET s = Udp();
        SendTextTo(s, "abcdef", kServer, 9);
        SendTextTo(s, "next", kServer, 9);
        EXPECT_EQ(ErrorOf(SendTextTo(s, std::string(65508, 'x'), kServer, 9)), WSAEMSGSIZE);
        EXPECT_EQ(ErrorOf(SendTextTo(s, "x", "0.0.0.0", 9)), WSAEADDRNOTAVAIL);
        EXPECT_EQ(ErrorOf(SendText(s, "x")), WSAENOTCONN);
      }));
}

SCENARIO_F(SimUdp, AnUnboundSocketCannotReceive) {
  EXPECT_EQ(Received(Udp()), "error 10022");
  const SOCKET s = Udp();
  EXPECT_EQ(Readiness(s), "w");
}

SCENARIO_F(SimUdp, AFullReceiveBufferDrops) {
  size_t arrived = 0;
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = UdpAt(9);
        SetIntOption(s, SO_RCVBUF, 1000);
        Sleep(1000);
        arrived = Arrivals(s, 100).size();
      },
      [] {
        Sleep(1);
        const SOCKET s = Udp();
        for (int i = 0; i < 20; ++i) SendTextTo(s, std::string(100, 'x'), kServer, 9);
      }));
  EXPECT_EQ(arrived, 10u);
}

SCENARIO_F(SimUdp, AConnectedSocketReceivesFromItsPeerOnly) {
  const SOCKET stranger = UdpAt(77);
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = UdpAt(9);
        EXPECT_EQ(Received(s), "hello");
        SendTextTo(s, "peer", kClient, 1234);
      },
      [&] {
        Sleep(1);
        const SOCKET s = UdpAt(1234);
        ASSERT_EQ(ConnectTo(s, kServer, 9), 0);
        world.Spawn(world.home(), "stranger",
                    [&] { SendTextTo(stranger, "stranger", kClient, 1234); });
        Sleep(100);
        EXPECT_EQ(SendText(s, "hello"), 5);
        EXPECT_EQ(Received(s), "peer");
        sockaddr_in name = {};
        int size = sizeof name;
        EXPECT_EQ(getsockname(s, Raw(name), &size), 0);
        EXPECT_STREQ(inet_ntoa(name.sin_addr), kClient);
      }));
}

SCENARIO_F(SimUdp, AnUnreachablePortIs10054AtTheNextReceive) {
  ASSERT_TRUE(Run([] {},
                  [] {
                    const SOCKET s = UdpAt(1234);
                    SendTextTo(s, "anyone?", kServer, 9);
                    EXPECT_EQ(Readiness(s, 0), "w");
                    Sleep(100);
                    EXPECT_EQ(Readiness(s, 0), "rw");
                    EXPECT_EQ(Received(s), "error 10054");
                    EXPECT_FALSE(ReadableWithin(s, 100));
                  }));
}

// SIO_UDP_CONNRESET travels through the provider's ioctl entry, as in a program.
SCENARIO_F(SimUdp, UnreachablePortsCanBeIgnored) {
  ASSERT_TRUE(Run([] {},
                  [] {
                    const SOCKET s = UdpAt(1234);
                    u_long off = 0;
                    ASSERT_EQ(ioctlsocket(s, static_cast<long>(SIO_UDP_CONNRESET), &off), 0);
                    SendTextTo(s, "anyone?", kServer, 9);
                    EXPECT_FALSE(ReadableWithin(s, 500));
                  }));
}

SCENARIO_F(SimUdp, LossLosesItsShare) {
  sim::LinkOptions lossy = link();
  lossy.loss = 0.3;
  Link(lossy);
  std::vector<std::string> arrived;
  ASSERT_TRUE(
      Run([&] { arrived = Arrivals(UdpAt(9), 500); }, [] { SendNumbers(500, kServer, 9); }));
  EXPECT_GT(arrived.size(), 300u);
  EXPECT_LT(arrived.size(), 400u);
}

SCENARIO_F(SimUdp, DuplicationDoublesAndReorderingOvertakes) {
  sim::LinkOptions odd = link();
  odd.duplicate = 0.2;
  odd.reorder = 0.2;
  odd.reorder_by = 10ms;
  Link(odd);
  std::vector<std::string> arrived;
  ASSERT_TRUE(
      Run([&] { arrived = Arrivals(UdpAt(9), 500); }, [] { SendNumbers(300, kServer, 9); }));
  EXPECT_GT(arrived.size(), 330u);
  EXPECT_LT(arrived.size(), 390u);
  int backwards = 0;
  for (size_t i = 1; i < arrived.size(); ++i)
    backwards += std::stoi(arrived[i]) < std::stoi(arrived[i - 1]);
  EXPECT_GT(backwards, 30);
}

SCENARIO_F(SimUdp, JitterDelaysButKeepsTheOrder) {
  sim::LinkOptions shaky = link();
  shaky.jitter = 50ms;
  Link(shaky);
  std::vector<std::string> arrived;
  ASSERT_TRUE(
      Run([&] { arrived = Arrivals(UdpAt(9), 500); }, [] { SendNumbers(100, kServer, 9); }));
  ASSERT_EQ(arrived.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(arrived[static_cast<size_t>(i)], std::to_string(i));
}

SCENARIO_F(SimUdp, EachDirectionHasItsOwnLink) {
  sim::LinkOptions hole = link();
  hole.partitioned = true;
  world.SetLinkOneWay(server, client, hole);
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = UdpAt(9);
        EXPECT_EQ(Received(s), "ping");
        SendTextTo(s, "pong", kClient, 1234);
      },
      [] {
        Sleep(1);
        const SOCKET s = UdpAt(1234);
        SendTextTo(s, "ping", kServer, 9);
        EXPECT_FALSE(ReadableWithin(s, 1000));
      }));
}

SCENARIO_F(SimUdp, ASlowLinkQueuesAndThenDrops) {
  sim::LinkOptions slow = link();
  slow.bytes_per_second = 12'800;  // one of these datagrams takes 10 ms
  slow.queue_bytes = 640;          // five of them
  Link(slow);
  std::vector<sim::Duration> arrivals;
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = UdpAt(9);
        while (ReadableWithin(s, 500)) {
          Received(s);
          arrivals.push_back(world.now());
        }
      },
      [] {
        Sleep(1);
        const SOCKET s = Udp();
        for (int i = 0; i < 10; ++i) SendTextTo(s, std::string(100, 'x'), kServer, 9);
      }));
  ASSERT_EQ(arrivals.size(), 5u);
  EXPECT_EQ(arrivals[0], 21ms);
  EXPECT_EQ(arrivals[4], 61ms);
}

// Type 8, code 0, checksum, identifier 1, sequence 2, "ab".
std::string EchoRequest() {
  std::string message(
      "\x08\x00\x00\x00\x00\x01\x00\x02"
      "ab",
      10);
  uint32_t sum = 0;
  for (size_t i = 0; i < message.size(); i += 2)
    sum += static_cast<uint32_t>(static_cast<uint8_t>(message[i]) << 8 |
                                 static_cast<uint8_t>(message[i + 1]));
  sum = (sum & 0xffff) + (sum >> 16);
  message[2] = static_cast<char>(~sum >> 8 & 0xff);
  message[3] = static_cast<char>(~sum & 0xff);
  return message;
}

SCENARIO_F(SimUdp, APingIsAnsweredWithTheIpHeaderInFront) {
  ASSERT_TRUE(Run([] {},
                  [] {
                    const SOCKET s = Ping();
                    ASSERT_EQ(SendTextTo(s, EchoRequest(), kServer, 0), 10);
                    const std::string reply = Received(s);
                    ASSERT_EQ(reply.size(), 30u);
                    EXPECT_EQ(reply[0], 0x45);
                    EXPECT_EQ(reply[9], 1);
                    EXPECT_EQ(reply[20], 0);  // echo reply
                    EXPECT_EQ(reply.substr(24), EchoRequest().substr(4));
                    in_addr source = {};
                    std::memcpy(&source, reply.data() + 12, 4);
                    EXPECT_STREQ(inet_ntoa(source), kServer);
                  }));
  EXPECT_EQ(world.now(), 20ms);
}

SCENARIO_F(SimUdp, APingIntoABlackHoleHasNoAnswer) {
  world.Partition(client, server);
  ASSERT_TRUE(Run([] {},
                  [] {
                    const SOCKET s = Ping();
                    SendTextTo(s, EchoRequest(), kServer, 0);
                    EXPECT_FALSE(ReadableWithin(s, 5000));
                  }));
}

SCENARIO_F(SimUdp, AHostThatIsDownIsSilent) {
  server.down = true;
  ASSERT_TRUE(Run([] {},
                  [] {
                    const SOCKET s = UdpAt(1234);
                    SendTextTo(s, "anyone?", kServer, 9);
                    EXPECT_FALSE(ReadableWithin(s, 5000));
                  }));
}

}  // namespace
