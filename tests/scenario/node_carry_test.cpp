// The reference node between a client and a game server, once it has answered: every byte, in
// order, once, both ways, and each end as it happened.
#include "tests/scenario/node_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class NodeCarry : public NodeWorld {
 protected:
  node::SimNode node{world, node_host};
};

SCENARIO_F(NodeCarry, BothDirectionsByteForByte) {
  StartEchoServer();
  const std::string sent = Pattern(300'000);
  std::string received;
  OnClient([&] { received = Fetches(sent); });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_TRUE(received == sent) << received.size();
  RunFor(1s);
  const node::Event closed = node.Last("closed");
  EXPECT_EQ(closed.Text("reason"), "both sides ended");
  EXPECT_EQ(closed.Number("bytes_to_server"), 300'000u);
  EXPECT_EQ(closed.Number("bytes_to_client"), 300'000u);
}

// What the client has sent too early waits for the server and goes first.
SCENARIO_F(NodeCarry, EarlyBytesAreKept) {
  StartEchoServer();
  node.AnswersAfter(2000);
  std::string received;
  OnClient([&] {
    const SOCKET s = Joins();
    SendText(s, RequestBytes() + "early,");
    ReceivedExactly(s, kAnswerSize);
    SendText(s, "late");
    shutdown(s, SD_SEND);
    received = ReceivedAll(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(received, "early,late");
}

SCENARIO_F(NodeCarry, TheServerMayEndFirst) {
  std::string at_server, at_client;
  OnServer([&] {
    const SOCKET s = AcceptFrom(ListenAt(kServerPort));
    SendText(s, "all I have");
    shutdown(s, SD_SEND);
    at_server = ReceivedAll(s);
  });
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    at_client = ReceivedAll(s);
    Sleep(60'000);  // the other half may live on
    SendText(s, Pattern(100'000));
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(at_client, "all I have");
  EXPECT_EQ(at_server, Pattern(100'000));
}

SCENARIO_F(NodeCarry, AResetIsPassedOnToTheClient) {
  std::string received;
  OnServer([] {
    const SOCKET s = AcceptFrom(ListenAt(kServerPort));
    Received(s);
    ResetOnClose(s);
    closesocket(s);
  });
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    SendText(s, "x");
    received = Received(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(received, "error 10054");
  EXPECT_EQ(node.Last("closed").Text("reason"), "server error 10054");
}

SCENARIO_F(NodeCarry, AResetIsPassedOnToTheServer) {
  std::string received;
  OnServer([&] { received = Received(AcceptFrom(ListenAt(kServerPort))); });
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    ResetOnClose(s);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(received, "error 10054");
}

// A side that sends faster than the other reads is held back; the node does not buffer without
// limit.
SCENARIO_F(NodeCarry, ASlowReaderHoldsTheSenderBack) {
  std::size_t sent = 0;
  std::string received;
  OnServer([&] {
    const SOCKET s = AcceptFrom(ListenAt(kServerPort));
    Sleep(60'000);
    received = ReceivedAll(s);
  });
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    NonBlocking(s);
    const std::string all = Pattern(4'000'000);
    for (const DWORD begin = GetTickCount(); GetTickCount() - begin < 50'000; Sleep(100)) {
      const int count = SendText(s, all.substr(sent, 20'000));
      if (count > 0) sent += static_cast<std::size_t>(count);
    }
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_GT(sent, node::Pipe::kCapacity);
  EXPECT_LT(sent, 2'000'000u);
  EXPECT_TRUE(received == Pattern(4'000'000).substr(0, sent)) << received.size();
}

SCENARIO_F(NodeCarry, DelaysEachDirectionByItself) {
  StartEchoServer();
  node.behaviour().delay_to_server_ms = 100;
  node.behaviour().delay_to_client_ms = 400;
  DWORD round_trip_ms = 0;
  std::string rest;
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    const DWORD before = GetTickCount();
    SendText(s, "ping");
    EXPECT_EQ(Received(s), "ping");
    round_trip_ms = GetTickCount() - before;
    node.Behaves();  // order is kept also when the delay goes
    SendText(s, Pattern(100'000));
    shutdown(s, SD_SEND);
    rest = ReceivedAll(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(round_trip_ms, 540u);
  EXPECT_EQ(rest, Pattern(100'000));
}

SCENARIO_F(NodeCarry, TheEndIsDelayedLikeTheBytes) {
  StartEchoServer();
  node.behaviour().delay_to_client_ms = 400;
  DWORD ended_ms = 0;
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    const DWORD before = GetTickCount();
    shutdown(s, SD_SEND);
    EXPECT_EQ(Received(s), "");
    ended_ms = GetTickCount() - before;
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(ended_ms, 440u);
}

SCENARIO_F(NodeCarry, ResetsAfterSoManyBytes) {
  StartEchoServer();
  node.ResetsAfter(1500);
  std::string received;
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    SendText(s, Pattern(1000));
    Sleep(200);
    received = ReceivedAll(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  const node::Event closed = node.Last("closed");
  EXPECT_EQ(closed.Text("how"), "reset");
  EXPECT_EQ(closed.Number("bytes_to_server") + closed.Number("bytes_to_client"), 1500u);
  EXPECT_EQ(received.substr(received.size() - 11), "error 10054");
}

SCENARIO_F(NodeCarry, ResetsAtOnceAfterNoBytes) {
  StartEchoServer();
  node.ResetsAfter(0);
  std::string received;
  OnClient([&] {
    const SOCKET s = Asks();
    received = ReceivedAll(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(received.substr(received.size() - 11), "error 10054");
}

SCENARIO_F(NodeCarry, StopsWhileItIsFrozen) {
  StartEchoServer();
  DWORD waited_ms = 0;
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    node.Freezes();
    Sleep(100);
    const DWORD before = GetTickCount();
    SendText(s, "hello");
    EXPECT_FALSE(ReadableWithin(s, 20'000));
    node.Thaws();
    EXPECT_EQ(Received(s), "hello");
    waited_ms = GetTickCount() - before;
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_LT(waited_ms, 20'100u);
}

// One side has ended and the other stays silent: without a limit the connection would stay for
// ever.
SCENARIO_F(NodeCarry, AHalfThatIsSilentForLongIsEnded) {
  std::string received;
  OnServer([&] {
    const SOCKET s = AcceptFrom(ListenAt(kServerPort));
    shutdown(s, SD_SEND);
    received = ReceivedAll(s);
  });
  OnClient([&] {
    const SOCKET s = Asks();
    Sleep(400'000);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(received, "error 10054");
  EXPECT_EQ(node.Last("closed").Text("reason"), "one side ended long ago, the other is silent");
}

// More sockets than one select serves.
SCENARIO_F(NodeCarry, AHundredConnectionsAtOnce) {
  StartEchoServer();
  int right = 0;
  for (int i = 0; i < 100; ++i) {
    OnClient([&right, i] {
      const std::string text = std::to_string(i) + ":" + Pattern(5000);
      const SOCKET s = Asks();
      ReceivedExactly(s, kAnswerSize);
      Sleep(1000);  // all open at the same time
      SendText(s, text);
      shutdown(s, SD_SEND);
      if (ReceivedAll(s) == text) ++right;
      closesocket(s);
    });
  }
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(right, 100);
}

SCENARIO_F(NodeCarry, ConnectionsComeFromTheNodesAddress) {
  std::string from;
  OnServer([&] {
    sockaddr_in raw = {};
    int size = sizeof raw;
    accept(ListenAt(kServerPort), Raw(raw), &size);
    from = node::Address::Of(raw).Text();
  });
  OnClient([] { Asks(); });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(from.substr(0, from.find(':')), kNode);
}

// The tick counter wraps while a byte waits in the node.
sim::Options NearTheWrap() {
  sim::Options options;
  options.tick_start = 0xFFFFFFFF - 200;
  return options;
}

SCENARIO_WITH_(NodeCarryAtTheWrap, KeepsItsTimes, NodeWorld, 1, NearTheWrap()) {
  node::SimNode node(world, node_host);
  node.AnswersAfter(500).behaviour().delay_to_client_ms = 300;
  StartEchoServer();
  sim::Duration answered{}, echoed{};
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    answered = world.now();
    SendText(s, "x");
    EXPECT_EQ(Received(s), "x");
    echoed = world.now();
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_GT(answered, 500ms);
  EXPECT_LT(answered, 700ms);
  EXPECT_GT(echoed - answered, 300ms);
  EXPECT_LT(echoed - answered, 400ms);
}

SCENARIO_F_SEEDS(NodeCarry, KeepsEveryByteOnBadLinks, 20) {
  sim::LinkOptions bad;
  bad.delay = 10ms;
  bad.jitter = 5ms;
  bad.loss = 0.03;
  bad.reorder = 0.03;
  world.SetLink(client_host, node_host, bad);
  world.SetLink(node_host, server_host, bad);
  node.AnswersInPiecesOf(7, 3).behaviour().delay_to_server_ms = 15;
  StartEchoServer();
  std::string received[3];
  for (auto& one : received) OnClient([&one] { one = Fetches(Pattern(60'000)); });
  ASSERT_TRUE(RunToTheEnd());
  for (const auto& one : received) EXPECT_TRUE(one == Pattern(60'000)) << one.size();
}

}  // namespace
