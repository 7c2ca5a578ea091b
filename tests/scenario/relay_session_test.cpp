// A session whose events the test raises one at a time: how it handles those that make no sense in
// its state, and, to the millisecond, how long a node may take.
#include "port/sim/scenario.h"
#include "tests/support/log_texts.h"
//
#include <string>

#include "protocol/nego_response.h"
#include "stream/tcp_provider.h"
#include "tests/support/hand_turned.h"
#include "tests/support/loopback.h"
#include "tests/support/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's

constexpr u32 kGameIdc = 11;
constexpr char kAbsentServer[] = "198.51.100.10";  // which this world does not have

// Two nodes, both played by the test, and a connection of the game that is being made to the first.
class SessionByHand : public test::RoutePolicy {
 protected:
  SessionByHand() {
    for (int i = 0; i < 2; ++i) {
      sockaddr_in address;
      nodes[i].Reset(test::BoundSocket(SOCK_STREAM, &address));
      EXPECT_EQ(listen(nodes[i], 1), 0);
      ProxyRecord& proxy = test::AddProxy(image, static_cast<u32>(i + 1), "127.0.0.1");
      proxy.proxy_port = ntohs(address.sin_port);
      proxy.surport_isps = 1;
    }
    RouteEntry& entry = test::AddRoute(image.route_sets[0], kGameIdc, test::Ref(1));
    entry.top_refs[0] = test::Ref(1);
    entry.top_refs[1] = test::Ref(2);
    LoadIps({{kGameIdc, test::Ip(kAbsentServer)}});
    Publish();
    EXPECT_TRUE(provider.Init(&loop, &route));
    Join();
  }
  ~SessionByHand() override {
    game.Close();
    for (int i = 0; i < 500 && !log.Contains(test::kObsoleteClosed); ++i) {
      loop.Turn();
      provider.OnUpdate(0);
    }
    provider.Uninit();
  }

  void TestBody() override {}  // scenarios have theirs

  void Join() {
    sockaddr_in own, server = {};
    game.Reset(test::BoundSocket(SOCK_STREAM, &own));
    server.sin_family = AF_INET;
    server.sin_port = htons(80);
    server.sin_addr.s_addr = test::Ip(kAbsentServer);
    sockaddr* relay_addr = nullptr;
    int relay_len = 0;
    ASSERT_TRUE(
        provider.RequestTcpRelaySession(game, own.sin_port, &server, &relay_addr, &relay_len, 9));
    ASSERT_EQ(connect(game, relay_addr, relay_len), 0);
    ASSERT_TRUE(TurnUntil("[TCP]ConnectToRemoteServer remote socket="));
  }
  bool TurnUntil(const std::string& line) {
    for (int i = 0; i < 500 && !log.Contains(line); ++i) loop.Turn();
    return log.Contains(line);
  }
  // The socket that the last such line names.
  SOCKET RemoteSocket(const std::string& line = "[TCP]ConnectToRemoteServer remote socket=") {
    const std::string text = log.Text();
    return static_cast<SOCKET>(std::stoul(text.substr(text.rfind(line) + line.size())));
  }
  IRelaySocketDelegate& Remote() { return *loop.delegates.at(RemoteSocket()); }
  bool IsClosed() { return log.Contains(test::kObsoleteClosed); }
  int Failures() {
    const std::string text = log.Text(), line = "OnNegotiationFailed, reason=202, token=9\n";
    int lines = 0;
    for (size_t at = text.find(line); at != text.npos; at = text.find(line, at + 1)) ++lines;
    return lines;
  }
  // The node accepts the connection and answers the request.
  void Accept(test::OwnSocket* node_end) {
    node_end->Reset(accept(nodes[0], nullptr, nullptr));
    ASSERT_TRUE(TurnUntil("[TCP]Negotiation request is sent successfully"));
    char request[73];
    ASSERT_TRUE(test::BecomesReadable(*node_end));
    ASSERT_EQ(recv(*node_end, request, sizeof request, 0), 73);
  }
  void Answer(SOCKET node_end) {
    NegoResponse response;
    response.body.client_isp = 1;
    u8 wire[sizeof response];
    response.Pack(wire);
    ASSERT_EQ(send(node_end, reinterpret_cast<const char*>(wire), sizeof wire, 0), 41);
    ASSERT_TRUE(TurnUntil("[TCP]Negotiation is successful"));
  }

  test::OwnSocket nodes[2];
  test::OwnSocket game;
  test::HandTurned loop;
  TcpProvider provider;
};

// On some systems a refused socket is readable too, before its error is known.
SCENARIO_F(SessionByHand, NothingIsReadBeforeTheConnectionIsEstablished) {
  Remote().OnReadable(RemoteSocket());
  EXPECT_FALSE(IsClosed());
  test::OwnSocket node_end;
  Accept(&node_end);
}

SCENARIO_F(SessionByHand, ANodeHasFiveSecondsAndAnUpdate) {
  provider.OnUpdate(4999);
  provider.OnUpdate(0);
  provider.OnUpdate(1);
  EXPECT_EQ(Failures(), 0);
  provider.OnUpdate(0);
  EXPECT_EQ(Failures(), 1);
}

SCENARIO_F(SessionByHand, AnUpdateHoweverLateIsNotTheEndYet) {
  provider.OnUpdate(60'000);
  EXPECT_EQ(Failures(), 0);
  provider.OnUpdate(1);
  EXPECT_EQ(Failures(), 1);
}

SCENARIO_F(SessionByHand, TheSecondNodeHasFiveSecondsOfItsOwnAndTheServerAllTheTime) {
  provider.OnUpdate(5000);
  provider.OnUpdate(0);
  ASSERT_EQ(Failures(), 1);
  EXPECT_TRUE(log.Contains(test::kNegotiationRetry + "true"));
  provider.OnUpdate(4999);
  provider.OnUpdate(1);
  EXPECT_EQ(Failures(), 1);
  provider.OnUpdate(0);
  EXPECT_EQ(Failures(), 2);
  EXPECT_TRUE(log.Contains(test::kDirectBegins));
  for (int i = 0; i < 5; ++i) provider.OnUpdate(5000);
  EXPECT_EQ(Failures(), 2);
}

// Negotiating counts with connecting.
SCENARIO_F(SessionByHand, AnEstablishedConnectionDoesNotExtendTheTime) {
  provider.OnUpdate(4999);
  test::OwnSocket node_end;
  Accept(&node_end);
  provider.OnUpdate(1);
  EXPECT_EQ(Failures(), 0);
  provider.OnUpdate(0);
  EXPECT_EQ(Failures(), 1);
}

SCENARIO_F(SessionByHand, AfterTheNegotiationThereIsNoTimeLimit) {
  test::OwnSocket node_end;
  Accept(&node_end);
  Answer(node_end);
  for (int i = 0; i < 5; ++i) provider.OnUpdate(5000);
  EXPECT_EQ(Failures(), 0);
  EXPECT_FALSE(IsClosed());
}

// Out-of-band bytes show as an exception, and do not concern the session.
SCENARIO_F(SessionByHand, AnExceptionOfAnEstablishedConnectionIsNoFailure) {
  test::OwnSocket node_end;
  Accept(&node_end);
  Remote().OnException(RemoteSocket());
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kConnectFailureLate + "3, token=9\n"));
  Answer(node_end);
  Remote().OnException(RemoteSocket());
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kConnectFailureLate + "4, token=9\n"));
  EXPECT_FALSE(IsClosed());
  ASSERT_EQ(send(node_end, "hello", 5, 0), 5);
  ASSERT_TRUE(TurnUntil("[TCP]DoLocalWrite. Send data to game client, len=5, socket="));
  char heard[8];
  EXPECT_EQ(recv(game, heard, sizeof heard, 0), 5);
}

SCENARIO_F(SessionByHand, AnExceptionOfAConnectIsTheEnd) {
  Remote().OnException(RemoteSocket());
  EXPECT_TRUE(log.Contains("[4][lsp]" + test::kConnectFailed + "token=9\n"));
  EXPECT_TRUE(IsClosed());
}

// Kept: that is how a request that would have blocked ends.
SCENARIO_F(SessionByHand, AWritableEventWhileANodeIsAskedIsTheEnd) {
  test::OwnSocket node_end;
  Accept(&node_end);
  Remote().OnWritable(RemoteSocket());
  EXPECT_TRUE(IsClosed());
}

}  // namespace
