// Every way in which the reference node mistreats a datagram flow on demand: each does what it
// says, and nothing else.
#include <functional>

#include "tests/scenario/node_flow_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class NodeFlowHostile : public NodeFlowRun {};

SCENARIO_F(NodeFlowHostile, RequestsAreHandledAsConfigured) {
  const struct {
    std::int64_t Behaviour::*what;
    std::int64_t value;
    const char* answer;
  } cases[] = {
      {&Behaviour::on_accept, Behaviour::kMute, ""},
      {&Behaviour::on_request, Behaviour::kSilent, ""},
      {&Behaviour::on_request, Behaviour::kCloseThen, ""},
      {&Behaviour::on_request, Behaviour::kResetThen, ""},
      {&Behaviour::server, Behaviour::kRefuse, "result 1, version 3, 41 bytes"},
      {&Behaviour::server, Behaviour::kHang, "result 0, version 3, 41 bytes"},
      {&Behaviour::result, 9, "result 9, version 3, 41 bytes"},
      {&Behaviour::answer_version, 1, "result 0, version 1, 29 bytes"},
      {&Behaviour::answer_version, 2, "result 0, version 2, 41 bytes"},
      {&Behaviour::answer_bytes, 40, "result 0, version 3, 40 bytes, pkg_len 41"},
      {&Behaviour::pkg_len, 42, "result 0, version 3, 41 bytes, pkg_len 42"},
      {&Behaviour::magic, 0x12345678, "result 0, version 3, 41 bytes, wrong magic"},
      {&Behaviour::answer_delay_ms, 700, ""},
  };
  ASSERT_TRUE(Runs([&] {
    for (const auto& one : cases) {
      node.Behaves();
      node.behaviour().*one.what = one.value;
      RawFlow flow;
      flow.Asks();
      const std::string answer = flow.Answer(500);
      EXPECT_EQ(answer.empty() ? "" : Summary(answer), one.answer);
    }
    node.Behaves();
    node.AnswersGarbage(300);
    RawFlow flow;
    flow.Asks();
    EXPECT_EQ(flow.Answer().size(), 300u);
  }));
}

SCENARIO_F(NodeFlowHostile, ARefusedRequestOpensNothing) {
  node.AnswersWith(9);
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    flow.Asks();
    flow.Answer();
    flow.Sends("am I in?");
    EXPECT_FALSE(flow.Receives(200).came());
  }));
  EXPECT_EQ(node.Count("flow_opened"), 0u);
  EXPECT_TRUE(heard.empty());
}

SCENARIO_F(NodeFlowHostile, AnswersWithAnyProviderMaskAndToken) {
  node.ServesIsps(0x80000001);
  node.behaviour().token = 0xDEADBEEF;
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    flow.Asks();
    EXPECT_EQ(Big32(flow.Answer(), 15), 0x80000001u);
    EXPECT_EQ(flow.token, 0xDEADBEEFu);
    flow.Sends("x");
    EXPECT_EQ(flow.Receives().token, 0xDEADBEEFu);
    // If all flows have the same token, it means the client's newest flow.
    std::string another = RequestBytes();
    another[40] = 'x';
    ASSERT_TRUE(flow.Opens(another));
    flow.Sends("y");
    EXPECT_EQ(flow.Receives().payload, "y");
  }));
  EXPECT_EQ(node.Last("flow_closed").Text("reason"), "its token went to another flow");
}

SCENARIO_F(NodeFlowHostile, AnswersFromAnotherPort) {
  node.behaviour().answer_from = Behaviour::kOther;
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    std::string from;
    flow.Asks();
    EXPECT_EQ(Summary(flow.Answer(1000, &from)), "result 0, version 3, 41 bytes");
    EXPECT_NE(from, std::string(kNode) + ":7001");
    EXPECT_EQ(from.rfind(std::string(kNode) + ":", 0), 0u) << from;
  }));
}

SCENARIO_F(NodeFlowHostile, AnswersMoreThanOnce) {
  node.behaviour().answers = 2;
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    flow.Asks();
    const std::string first = flow.Answer();
    EXPECT_EQ(flow.Answer(), first);
    EXPECT_EQ(flow.Answer(100), "");
  }));
  EXPECT_EQ(node.Count("flow_opened"), 1u);
}

// How the client sees the flow with each of these behaviours.
SCENARIO_F(NodeFlowHostile, DatagramsAreBuiltAsConfigured) {
  const auto carried = [&](std::int64_t Behaviour::*what, std::int64_t value) {
    node.Behaves();
    RawFlow flow;
    EXPECT_TRUE(flow.Opens());
    node.behaviour().*what = value;
    flow.Sends("payload");
    return flow.Receives();
  };
  ASSERT_TRUE(Runs([&] {
    Wrapped wrapped = carried(&Behaviour::head_len, 24);
    EXPECT_EQ(wrapped.head_len, 24u);
    EXPECT_EQ(wrapped.payload, "payload");
    EXPECT_EQ(wrapped.bytes.size(), 31u);
    wrapped = carried(&Behaviour::head_len, 255);
    EXPECT_EQ(wrapped.payload, "payload");
    EXPECT_EQ(wrapped.bytes.size(), 262u);
    wrapped = carried(&Behaviour::header, Behaviour::kShortHeader);
    EXPECT_EQ(wrapped.head_len, 19u);
    wrapped = carried(&Behaviour::header, Behaviour::kPastEnd);
    EXPECT_EQ(wrapped.head_len, 255u);
    EXPECT_EQ(wrapped.bytes.size(), 27u);
    wrapped = carried(&Behaviour::header, Behaviour::kCut);
    EXPECT_EQ(wrapped.bytes.size(), 10u);
    wrapped = carried(&Behaviour::header, Behaviour::kEmpty);
    EXPECT_TRUE(wrapped.came() && wrapped.bytes.empty());
    wrapped = carried(&Behaviour::header, Behaviour::kVersion);
    EXPECT_EQ(wrapped.version, 9u);
    EXPECT_EQ(wrapped.payload, "payload");
    wrapped = carried(&Behaviour::data_token, 0x11223344);
    EXPECT_EQ(wrapped.token, 0x11223344u);
    wrapped = carried(&Behaviour::lost, 77);
    EXPECT_EQ(wrapped.lost, 77u);
    wrapped = carried(&Behaviour::data_from, Behaviour::kOther);
    EXPECT_EQ(wrapped.payload, "payload");
    EXPECT_EQ(wrapped.from.rfind(std::string(kNode) + ":", 0), 0u) << wrapped.from;
    node.Behaves();
  }));
  EXPECT_EQ(heard.size(), 10u);
}

SCENARIO_F(NodeFlowHostile, DataComesFromAnUnknownPort) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    node.behaviour().data_from = Behaviour::kOther;
    flow.Sends("x");
    EXPECT_NE(flow.Receives().from, flow.data_ip + ":" + std::to_string(flow.data_port));
  }));
}

SCENARIO_F(NodeFlowHostile, SendsUnsolicitedData) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    node.behaviour().unasked_ms = 100;
    Sleep(1050);
    node.behaviour().unasked_ms = 0;
    const std::vector<Wrapped> all = flow.ReceivesAll(200);
    EXPECT_NEAR(static_cast<double>(all.size()), 10.0, 1.0);
    for (std::size_t i = 0; i < all.size(); ++i) {
      EXPECT_EQ(all[i].source, "192.0.2.66:666");
      EXPECT_EQ(all[i].seq, i + 1);
      EXPECT_EQ(all[i].token, flow.token);
    }
  }));
}

// A node that was restarted: it listens, and knows no flow.
SCENARIO_F(NodeFlowHostile, ForgetsItsFlows) {
  node::SimNode controlled(world, server_host, 7301, 7302);
  std::string listed, forgotten;
  ASSERT_TRUE(Runs([&] {
    Sleep(5);
    RawFlow flow;
    SendTextTo(flow.s, RequestBytes(), kServer, 7301);
    ASSERT_NE(flow.Answer(), "");
    const SOCKET control = Tcp();
    ASSERT_EQ(ConnectTo(control, kServer, 7302), 0);
    SendText(control, "{\"command\":\"flows\"}\n");
    listed = Received(control);
    SendText(control, "{\"command\":\"forget\"}\n");
    forgotten = Received(control);
    flow.Sends("who am I?");
    EXPECT_FALSE(flow.Receives(200).came());
  }));
  EXPECT_NE(listed.find("\"guid\":\"00112233-4455-6677-8899-AABBCCDDEEFF\""), std::string::npos)
      << listed;
  EXPECT_EQ(forgotten, "{\"ok\":true,\"flows\":1}\n");
  EXPECT_EQ(controlled.Count("dropped"), 1u);
}

SCENARIO_F(NodeFlowHostile, StopsCarryingWhileItsServerHangs) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    node.behaviour().server = Behaviour::kHang;
    flow.Sends("lost");
    EXPECT_FALSE(flow.Receives(200).came());
    node.behaviour().server = Behaviour::kConnect;
    flow.Sends("found");
    EXPECT_EQ(flow.Receives().payload, "found");
  }));
}

}  // namespace
