// Malicious and faulty clients: the node drops them within its limits, and serves the others
// meanwhile.
#include "tests/scenario/node_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class NodeUnderAttack : public NodeWorld {
 protected:
  // The node still works.
  void ExpectServes() {
    std::string received;
    OnClient([&] { received = Fetches("still there"); });
    ASSERT_TRUE(RunToTheEnd());
    EXPECT_EQ(received, "still there") << node.AllEvents();
  }

  static constexpr int kControlPort = 7101;
  node::SimNode node{world, node_host, node::SimNode::kPort, kControlPort};
};

SCENARIO_F(NodeUnderAttack, ARequestThatBreaksOffAnywhereIsDropped) {
  StartEchoServer();
  const std::string request = RequestBytes();
  for (std::size_t size = 0; size < request.size(); ++size) {
    OnClient([&, size] {
      const SOCKET s = Joins();
      SendText(s, request.substr(0, size));
      closesocket(s);
    });
  }
  ASSERT_TRUE(RunToTheEnd());
  RunFor(1s);
  EXPECT_EQ(node.Count("request"), 0u);
  EXPECT_EQ(node.Count("closed"), request.size());
  ExpectServes();
}

SCENARIO_F(NodeUnderAttack, AnUnreadableRequestEndsTheConnectionWithoutAnAnswer) {
  StartEchoServer();
  const struct {
    std::size_t at;
    char byte;
    const char* problem;
  } cases[] = {{0, 0x79, "wrong magic"},
               {3, 0x65, "wrong magic"},
               {5, 72, "pkg_len does not fit the version"},
               {5, 74, "pkg_len does not fit the version"},
               {5, 10, "pkg_len does not fit the version"},
               {5, 0, "pkg_len does not fit the version"},
               {4, 0x7f, "pkg_len does not fit the version"},
               {7, 1, "pkg_len does not fit the version"},
               {27, '\xe0', "names no game server"}};
  for (const auto& one : cases) {
    std::string request = RequestBytes(), heard = "nothing";
    request[one.at] = one.byte;
    OnClient([&] {
      const SOCKET s = Joins();
      SendText(s, request);
      heard = Received(s);
    });
    ASSERT_TRUE(RunToTheEnd());
    EXPECT_EQ(node.Last("bad_request").Text("problem"), one.problem);
    EXPECT_TRUE(heard.empty() || heard == "error 10054") << heard;
  }
  EXPECT_EQ(node.Count("request"), 0u);
  ExpectServes();
}

SCENARIO_F(NodeUnderAttack, ASlowRequestIsReadAndAnEndlessOneIsNot) {
  StartEchoServer();
  std::string answer;
  OnClient([&] {
    const SOCKET s = Joins();
    for (const char byte : RequestBytes()) {
      SendText(s, std::string(1, byte));
      Sleep(50);  // 3.65 s in all
    }
    answer = ReceivedExactly(s, kAnswerSize);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(Summary(answer), "result 0, version 3, 41 bytes");

  DWORD ended_after_ms = 0;
  OnClient([&] {
    const SOCKET s = Joins();
    const DWORD joined = GetTickCount();
    SendText(s, RequestBytes().substr(0, 72));
    EXPECT_EQ(Received(s), "");
    ended_after_ms = GetTickCount() - joined;
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_NEAR(ended_after_ms, 5000, 50);
  EXPECT_EQ(node.Last("closed").Text("reason"), "no request in time");
}

SCENARIO_F(NodeUnderAttack, ARefusedClientThatStaysIsClosed) {
  node.AnswersWith(9);
  OnClient([&] {
    const SOCKET s = Asks();
    Sleep(60'000);
    closesocket(s);
  });
  RunFor(10s);
  EXPECT_EQ(node.Last("closed").Text("reason"), "refused; the client stayed");
}

// A thousand silent clients keep the others out for five seconds, not for ever.
SCENARIO_F(NodeUnderAttack, TheSilentOnesAreBoundedInNumberAndTime) {
  StartEchoServer();
  world.SpawnOn(client_host, "crowd", [] {
    Sleep(5);
    for (int i = 0; i < 300; ++i) {
      const SOCKET s = Tcp();
      NonBlocking(s);
      ConnectTo(s, kNode, node::SimNode::kPort);
    }
    Sleep(600'000);
  });
  RunFor(1s);
  EXPECT_LE(node.Count("accepted"), 256u);
  EXPECT_GE(node.Count("accepted"), 128u);
  RunFor(15s);
  ExpectServes();
}

// Otherwise anyone could control the node through the node itself.
SCENARIO_F(NodeUnderAttack, TheNodesOwnPortsAreNotGameServers) {
  for (const int port : {kControlPort, static_cast<int>(node::SimNode::kPort)}) {
    std::string answer;
    OnClient([&] {
      const SOCKET s = Joins();
      SendText(s, RequestFor(kNode, port));
      answer = ReceivedExactly(s, kAnswerSize);
    });
    ASSERT_TRUE(RunToTheEnd());
    EXPECT_EQ(Summary(answer), "result 1, version 3, 41 bytes");
  }
}

SCENARIO_F(NodeUnderAttack, AClientThatGivesUpFreesItsSlotAndTheServer) {
  node.AnswersAfter(60'000);
  std::string at_server = "nothing";
  OnServer([&] { at_server = Received(AcceptFrom(ListenAt(kServerPort))); });
  OnClient([] {
    const SOCKET s = Asks();
    Sleep(5000);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(at_server, "");
  EXPECT_EQ(node.Last("closed").Text("reason"), "the client left before it had its answer");
}

SCENARIO_F(NodeUnderAttack, AClientThatResetsBeforeItsAnswerIsForgotten) {
  node.AnswersAfter(60'000);
  std::string at_server = "nothing";
  OnServer([&] { at_server = Received(AcceptFrom(ListenAt(kServerPort))); });
  OnClient([] {
    const SOCKET s = Asks();
    Sleep(1000);
    ResetOnClose(s);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(at_server, "error 10054");
  EXPECT_EQ(node.Last("closed").Text("reason"), "client error 10054");
}

SCENARIO_F(NodeUnderAttack, GarbageOfEveryKindDoesNoHarm) {
  StartEchoServer();
  for (int i = 0; i < 60; ++i) {
    OnClient([this] {
      std::string bytes(1 + world.random().Below(3000), '\0');
      for (char& byte : bytes) byte = static_cast<char>(world.random().Below(256));
      if (world.random().Below(2) == 0) bytes = RequestBytes().substr(0, 8) + bytes;
      const SOCKET s = Joins();
      SendText(s, bytes);
      if (world.random().Below(2) == 0) shutdown(s, SD_SEND);
      Sleep(static_cast<DWORD>(world.random().Below(7000)));
      closesocket(s);
    });
  }
  ASSERT_TRUE(RunToTheEnd());
  RunFor(10s);
  EXPECT_EQ(node.Count("closed"), 60u);
  ExpectServes();
}

// --- the control port -----------------------------------------------------------------------

class NodeControl : public NodeUnderAttack {
 protected:
  static SOCKET JoinsControl() {
    Sleep(5);
    const SOCKET s = Tcp();
    EXPECT_EQ(ConnectTo(s, kNode, kControlPort), 0);
    return s;
  }
  static std::string Says(SOCKET s, const std::string& line) {
    SendText(s, line + "\n");
    return Received(s);
  }
};

SCENARIO_F(NodeControl, ChangesTheNodeWhileItRuns) {
  StartEchoServer();
  std::string answers[2];
  OnClient([&] {
    const SOCKET control = JoinsControl();
    EXPECT_EQ(Says(control, R"({"command":"set","result":9})"), "{\"ok\":true}\n");
    answers[0] = ReceivedExactly(Asks(), kAnswerSize);
    EXPECT_EQ(Says(control, R"({"command":"restore"})"), "{\"ok\":true}\n");
    answers[1] = ReceivedExactly(Asks(), kAnswerSize);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(Summary(answers[0]), "result 9, version 3, 41 bytes");
  EXPECT_EQ(Summary(answers[1]), "result 0, version 3, 41 bytes");
}

SCENARIO_F(NodeControl, AnswersLinesInOrderInPiecesOfAnySize) {
  std::string replies;
  OnClient([&] {
    const SOCKET control = JoinsControl();
    const std::string lines =
        "{\"command\":\"set\",\"isp\":4}\r\nnonsense\n\n{\"command\":\"restore\"}";
    for (const char byte : lines) SendText(control, std::string(1, byte));
    shutdown(control, SD_SEND);
    replies = ReceivedAll(control);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(replies, "{\"ok\":true}\n{\"ok\":false,\"error\":\"not JSON\"}\n{\"ok\":true}\n");
}

SCENARIO_F(NodeControl, EndsConnectionsAndTheNode) {
  StartEchoServer();
  std::string received;
  OnClient([&] {
    const SOCKET s = Asks();
    ReceivedExactly(s, kAnswerSize);
    const SOCKET control = JoinsControl();
    EXPECT_NE(Says(control, R"({"command":"connections"})").find("\"state\":\"carrying\""),
              std::string::npos);
    EXPECT_EQ(Says(control, R"({"command":"reset"})"), "{\"ok\":true,\"connections\":1}\n");
    received = Received(s);
    EXPECT_EQ(Says(control, R"({"command":"stop"})"), "{\"ok\":true}\n");
    Sleep(100);
    EXPECT_EQ(ConnectTo(Tcp(), kNode, node::SimNode::kPort), WSAECONNREFUSED);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(received, "error 10054");
}

SCENARIO_F(NodeControl, AnEndlessLineEndsTheConnection) {
  std::string received = "nothing";
  OnClient([&] {
    const SOCKET control = JoinsControl();
    SendText(control, std::string(200'000, ' '));
    received = Received(control);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_TRUE(received.empty() || received == "error 10054") << received;
}

}  // namespace
