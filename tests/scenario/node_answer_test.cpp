// What a client sees of each behaviour of the reference node, up to the answer. Tests of the
// library depend on it: with a node that did not follow its behaviour they would prove nothing.
#include "tests/scenario/node_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class NodeAnswer : public NodeWorld {
 protected:
  // Sends a request and returns what comes back and after how many milliseconds, until the end of
  // the stream or of `ms`.
  struct Heard {
    std::string bytes;
    DWORD first_ms = 0, last_ms = 0;
    bool ended = false;
  };
  Heard AsksAndListens(DWORD ms, int version = 3) {
    Heard heard;
    OnClient([&, ms] {
      const SOCKET s = Asks(version);
      const DWORD asked = GetTickCount();
      while (GetTickCount() - asked < ms &&
             ReadableWithin(s, static_cast<int>(ms - (GetTickCount() - asked)))) {
        const std::string more = Received(s);
        heard.last_ms = GetTickCount() - asked;
        if (heard.bytes.empty()) heard.first_ms = heard.last_ms;
        heard.ended = more.empty() || more.rfind("error", 0) == 0;
        heard.bytes += more;
        if (heard.ended) break;
      }
      closesocket(s);
    });
    EXPECT_TRUE(RunToTheEnd());
    RunFor(1s);
    return heard;
  }

  node::SimNode node{world, node_host};
};

SCENARIO_F(NodeAnswer, IsSentWhenTheServerIsConnected) {
  StartEchoServer();
  const Heard heard = AsksAndListens(1000);
  EXPECT_EQ(Summary(heard.bytes), "result 0, version 3, 41 bytes");
  EXPECT_EQ(heard.first_ms, 40u);  // two round trips of 20 ms: to the node, and on to the server
  EXPECT_FALSE(heard.ended);
  EXPECT_EQ(node.Last("connected").Text("server"), "203.0.113.9:27015");
}

SCENARIO_F(NodeAnswer, NamesTheClientAndTheNode) {
  StartEchoServer();
  node.ServesIsps(4).behaviour().node_id = 3001;
  const std::string answer = AsksAndListens(1000).bytes;
  EXPECT_EQ(Big32(answer, 11), 1u);           // the first token
  EXPECT_EQ(Big32(answer, 15), 4u);           // client_isp
  EXPECT_EQ(Big32(answer, 19), 0xc000024du);  // client_ip, 192.0.2.77
  EXPECT_EQ(Big32(answer, 23), 0xc6336414u);  // accl_data_ip, 198.51.100.20
  EXPECT_EQ(Big16(answer, 27), 7001u);
  EXPECT_EQ(Big16(answer, 29), 3001u);  // last_node
}

SCENARIO_F(NodeAnswer, EventsContainTheWholeRequest) {
  StartEchoServer();
  for (const int version : {1, 2, 3}) {
    const std::string answer = AsksAndListens(200, version).bytes;
    EXPECT_EQ(Summary(answer), "result 0, version 3, 41 bytes");
    const node::Event request = node.Last("request");
    EXPECT_EQ(request.Number("version"), static_cast<unsigned>(version));
    EXPECT_EQ(request.Number("retry"), 1u);
    EXPECT_EQ(request.Number("uin"), 10001u);
    EXPECT_EQ(request.Number("game_id_low"), 7u);
    EXPECT_EQ(request.Text("game"), "203.0.113.9:27015");
    EXPECT_EQ(request.Text("guid"), "00112233-4455-6677-8899-AABBCCDDEEFF");
    EXPECT_EQ(request.Number("game_idc"), version >= 2 ? 42u : 0u);
    EXPECT_EQ(request.Number("game_id"), version >= 3 ? 0x500000007u : 0u);
  }
}

SCENARIO_F(NodeAnswer, HasTheFormOfItsVersion) {
  StartEchoServer();
  const struct {
    int version;
    const char* answer;
  } cases[] = {{1, "result 0, version 1, 29 bytes"},
               {2, "result 0, version 2, 41 bytes"},
               {3, "result 0, version 3, 41 bytes"},
               {0, "result 0, version 0, 41 bytes"},
               {65535, "result 0, version 65535, 41 bytes"}};
  for (const auto& one : cases) {
    node.behaviour().answer_version = one.version;
    EXPECT_EQ(Summary(AsksAndListens(200).bytes), one.answer);
  }
}

SCENARIO_F(NodeAnswer, MayLieAboutItself) {
  StartEchoServer();
  node.behaviour().magic = 0x12345678;
  EXPECT_EQ(Summary(AsksAndListens(200).bytes), "result 0, version 3, 41 bytes, wrong magic");
  node.Behaves().behaviour().pkg_len = 10;
  EXPECT_EQ(Summary(AsksAndListens(200).bytes), "result 0, version 3, 41 bytes, pkg_len 10");
  node.Behaves().behaviour().pkg_len = 65535;
  EXPECT_EQ(Summary(AsksAndListens(200).bytes), "result 0, version 3, 41 bytes, pkg_len 65535");
  node.Behaves().behaviour().answer_bytes = 12;
  EXPECT_EQ(Summary(AsksAndListens(200).bytes), "result 0, version 3, 12 bytes, pkg_len 41");
  node.Behaves().behaviour().answer_bytes = 0;
  EXPECT_EQ(AsksAndListens(200).bytes, "");
  node.Behaves();
  EXPECT_EQ(Summary(AsksAndListens(200).bytes), "result 0, version 3, 41 bytes");
}

SCENARIO_F(NodeAnswer, MayComeLate) {
  StartEchoServer();
  node.AnswersAfter(3000);
  const Heard heard = AsksAndListens(10'000);
  EXPECT_EQ(Summary(heard.bytes), "result 0, version 3, 41 bytes");
  EXPECT_EQ(heard.first_ms, 3020u);
}

SCENARIO_F(NodeAnswer, MayComeInPieces) {
  StartEchoServer();
  node.AnswersInPiecesOf(1, 50);
  const Heard heard = AsksAndListens(10'000);
  EXPECT_EQ(Summary(heard.bytes), "result 0, version 3, 41 bytes");
  EXPECT_EQ(heard.first_ms, 40u);
  EXPECT_EQ(heard.last_ms, 40u + 40 * 50);
}

SCENARIO_F(NodeAnswer, CanBeWithheld) {
  StartEchoServer();
  node.StopsAnswering();
  const Heard heard = AsksAndListens(30'000);
  EXPECT_EQ(heard.bytes, "");
  EXPECT_FALSE(heard.ended);
  EXPECT_EQ(node.Count("request"), 1u);
  EXPECT_EQ(node.Count("answered"), 0u);
  EXPECT_EQ(node.Last("closed").Text("reason"), "the client left");
  node.AnswersAgain();
  EXPECT_EQ(Summary(AsksAndListens(200).bytes), "result 0, version 3, 41 bytes");
}

SCENARIO_F(NodeAnswer, MayBeGarbage) {
  node.AnswersGarbage(100);
  const Heard heard = AsksAndListens(1000);
  EXPECT_EQ(heard.bytes.size(), 100u);
  EXPECT_NE(Big32(heard.bytes, 0), 0x78DB3964u);
  EXPECT_FALSE(heard.ended);
  EXPECT_EQ(node.Count("connected"), 0u);
}

SCENARIO_F(NodeAnswer, ThatRefusesEndsTheConnection) {
  StartEchoServer();
  node.AnswersWith(9);
  const Heard heard = AsksAndListens(1000);
  EXPECT_EQ(Summary(heard.bytes), "result 9, version 3, 41 bytes");
  EXPECT_TRUE(heard.ended);
  EXPECT_EQ(heard.first_ms, 20u);
  EXPECT_EQ(node.Count("connected"), 0u);
  EXPECT_EQ(node.Last("answered").Number("result"), 9u);
  EXPECT_EQ(node.Last("closed").Text("reason"), "refused");
}

SCENARIO_F(NodeAnswer, ReportsThatTheServerRefused) {
  EXPECT_EQ(Summary(AsksAndListens(1000).bytes), "result 1, version 3, 41 bytes");
  EXPECT_EQ(node.Last("server_failed").Number("error"), static_cast<unsigned>(WSAECONNREFUSED));
  node.behaviour().refused_result = 77;
  EXPECT_EQ(Summary(AsksAndListens(1000).bytes), "result 77, version 3, 41 bytes");
  node.behaviour().refused_result = 0;
  const Heard heard = AsksAndListens(1000);
  EXPECT_EQ(heard.bytes, "");
  EXPECT_TRUE(heard.ended);
}

SCENARIO_F(NodeAnswer, ActsAsIfTheServerRefused) {
  StartEchoServer();
  node.CannotReachServers();
  EXPECT_EQ(Summary(AsksAndListens(1000).bytes), "result 1, version 3, 41 bytes");
}

SCENARIO_F(NodeAnswer, WaitsFourSecondsForASilentServer) {
  world.Partition(node_host, server_host);
  const Heard heard = AsksAndListens(10'000);
  EXPECT_EQ(Summary(heard.bytes), "result 1, version 3, 41 bytes");
  EXPECT_EQ(heard.first_ms, 4020u);
  EXPECT_EQ(node.Last("server_failed").Number("error"), static_cast<unsigned>(WSAETIMEDOUT));
}

SCENARIO_F(NodeAnswer, IsMissingIfTheServerHangs) {
  StartEchoServer();
  node.behaviour().server = Behaviour::kHang;
  const Heard heard = AsksAndListens(30'000);
  EXPECT_EQ(heard.bytes, "");
  EXPECT_FALSE(heard.ended);
  EXPECT_EQ(node.Last("closed").Text("reason"), "the client left before it had its answer");
}

SCENARIO_F(NodeAnswer, CanBeSentBeforeTheServerIsConnected) {
  node.behaviour().answer_when = Behaviour::kAtOnce;
  const Heard heard = AsksAndListens(1000);
  EXPECT_EQ(heard.first_ms, 20u);
  EXPECT_EQ(Summary(heard.bytes.substr(0, kAnswerSize)), "result 0, version 3, 41 bytes");
  EXPECT_EQ(heard.bytes.substr(kAnswerSize), "error 10054");  // nobody listens at the server
}

SCENARIO_F(NodeAnswer, MayBeAnEnd) {
  const struct {
    std::int64_t Behaviour::*field;
    std::int64_t value;
    const char* heard;
  } cases[] = {{&Behaviour::on_accept, Behaviour::kReset, "error 10054"},
               {&Behaviour::on_request, Behaviour::kCloseThen, ""},
               {&Behaviour::on_request, Behaviour::kResetThen, "error 10054"}};
  for (const auto& one : cases) {
    node.Behaves().behaviour().*one.field = one.value;
    const Heard heard = AsksAndListens(1000);
    EXPECT_EQ(heard.bytes, one.heard);
    EXPECT_TRUE(heard.ended);
    EXPECT_EQ(node.Count("answered"), 0u);
  }
}

SCENARIO_F(NodeAnswer, CanBeAnEndWithoutARequest) {
  node.behaviour().on_accept = Behaviour::kClose;
  std::string heard = "nothing";
  OnClient([&] { heard = Received(Joins()); });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(heard, "");
  node.behaviour().on_accept = Behaviour::kMute;
  EXPECT_EQ(AsksAndListens(20'000).bytes, "");
  EXPECT_EQ(node.Count("request"), 0u);
}

SCENARIO_F(NodeAnswer, TokensIncreaseUnlessOneIsSet) {
  StartEchoServer();
  for (const unsigned token : {1u, 2u, 3u}) EXPECT_EQ(Big32(AsksAndListens(200).bytes, 11), token);
  node.behaviour().token = 0xFFFFFFFF;
  EXPECT_EQ(Big32(AsksAndListens(200).bytes, 11), 0xFFFFFFFFu);
}

}  // namespace
