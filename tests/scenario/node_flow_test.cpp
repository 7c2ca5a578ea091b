// Datagrams through the reference node: each reaches the server that it names, from one address
// for the whole flow, and each answer comes back wrapped, numbered and with its true source.
#include "tests/scenario/node_flow_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class NodeFlow : public NodeFlowRun {};

SCENARIO_F(NodeFlow, CarriesBothDirectionsWithNumbersAndSources) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    EXPECT_EQ(flow.data_ip, kNode);
    for (const char* text : {"one", "", "three"}) {
      flow.Sends(text);
      const Wrapped echoed = flow.Receives();
      EXPECT_EQ(echoed.payload, text);
      EXPECT_EQ(echoed.source, "203.0.113.9:27015");
      EXPECT_EQ(echoed.from, flow.data_ip + ":" + std::to_string(flow.data_port));
      EXPECT_EQ(echoed.seq, flow.next_seq - 1);
      EXPECT_EQ(echoed.token, flow.token);
      EXPECT_EQ(echoed.version, 1u);
      EXPECT_EQ(echoed.head_len, 20u);
      EXPECT_EQ(echoed.flags, 0u);
      EXPECT_EQ(echoed.lost, 101u);
    }
    flow.Ends();
    Sleep(100);
  }));
  ASSERT_EQ(heard.size(), 3u);
  EXPECT_EQ(heard[0].from, heard[2].from);
  EXPECT_EQ(heard[0].from, node.Last("flow_opened").Text("from"));
  const node::Event closed = node.Last("flow_closed");
  EXPECT_EQ(closed.Text("reason"), "the client ended it");
  EXPECT_EQ(closed.Number("datagrams_to_server"), 3u);
  EXPECT_EQ(closed.Number("bytes_to_server"), 8u);
  EXPECT_EQ(closed.Number("datagrams_to_client"), 3u);
  EXPECT_EQ(closed.Number("bytes_to_client"), 8u);
}

// The payload's length does not matter, from the smallest to the largest.
SCENARIO_F(NodeFlow, CarriesDatagramsOfEverySize) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    for (const std::size_t size : {0u, 1u, 2028u, 2029u, 65487u}) {
      flow.Sends(Pattern(size));
      const Wrapped echoed = flow.Receives();
      EXPECT_TRUE(echoed.came() && echoed.payload == Pattern(size)) << size;
    }
  }));
}

SCENARIO_F(NodeFlow, EachDatagramGoesToItsOwnDestination) {
  StartEcho(27016);
  sim::Host& other = world.AddHost("other", {"203.0.113.10"});
  world.SpawnOn(other, "other", [&] {
    const SOCKET s = Udp();
    BindTo(s, "0.0.0.0", 99);
    sockaddr_in from = {};
    int size = sizeof from;
    char bytes[100];
    const int count = recvfrom(s, bytes, sizeof bytes, 0, Raw(from), &size);
    sendto(s, bytes, count, 0, Raw(from), size);
  });
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    flow.Sends("first port");
    EXPECT_EQ(flow.Receives().source, "203.0.113.9:27015");
    flow.Sends("second port", 27016);
    EXPECT_EQ(flow.Receives().source, "203.0.113.9:27016");
    flow.Sends("another server", 99, "203.0.113.10");
    EXPECT_EQ(flow.Receives().source, "203.0.113.10:99");
  }));
  EXPECT_EQ(heard[0].from, heard[1].from);
}

// A sender to which the client has never written does not reach it, however it learned the address.
SCENARIO_F(NodeFlow, UnknownSendersDoNotReachTheClient) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    const std::string upstream = node.Last("flow_opened").Text("from");
    const int port = std::stoi(upstream.substr(upstream.find(':') + 1));
    SendTextTo(Udp(), "let me in", kNode, port);
    EXPECT_FALSE(flow.Receives(500).came());
    flow.Ends();
    Sleep(100);
  }));
  EXPECT_EQ(node.Last("flow_closed").Number("strays"), 1u);
}

SCENARIO_F(NodeFlow, EveryFlowHasAnAddressOfItsOwn) {
  ASSERT_TRUE(Runs([&] {
    std::vector<RawFlow> flows(30);
    for (RawFlow& flow : flows) ASSERT_TRUE(flow.Opens());
    for (RawFlow& flow : flows) flow.Sends(std::to_string(flow.token));
    for (RawFlow& flow : flows) {
      EXPECT_EQ(flow.Receives().payload, std::to_string(flow.token));
      EXPECT_FALSE(flow.Receives(10).came());
    }
  }));
  std::map<std::string, int> sources;
  for (const Heard& one : heard) ++sources[one.from];
  EXPECT_EQ(sources.size(), 30u);
}

// A client that repeats its request has lost an answer, and keeps its flow.
SCENARIO_F(NodeFlow, ARepeatedRequestGetsTheSameFlow) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    const unsigned token = flow.token;
    ASSERT_TRUE(flow.Opens());
    EXPECT_EQ(flow.token, token);
    RawFlow same_guid_from_another_port;
    ASSERT_TRUE(same_guid_from_another_port.Opens());
    EXPECT_NE(same_guid_from_another_port.token, token);
  }));
  EXPECT_EQ(node.Count("flow_opened"), 2u);
}

SCENARIO_F(NodeFlow, AnEndedFlowIsForgotten) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    flow.Ends();
    flow.Sends("too late");
    EXPECT_FALSE(flow.Receives().came());
  }));
  EXPECT_TRUE(heard.empty());
  EXPECT_EQ(node.Last("dropped").Text("problem"), "no flow of this client has its token");
}

SCENARIO_F(NodeFlow, ASilentFlowEndsByItself) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    Sleep(100'000);
    flow.Probes(1);
    Sleep(299'000);
    EXPECT_EQ(node.Count("flow_closed"), 0u);
    Sleep(2'000);
  }));
  EXPECT_EQ(node.Last("flow_closed").Text("reason"), "the client is silent");
}

SCENARIO_F(NodeFlow, AnotherClientsTokenIsRefused) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow, thief;
    ASSERT_TRUE(flow.Opens());
    thief.token = flow.token;
    thief.data_ip = flow.data_ip;
    thief.data_port = flow.data_port;
    thief.Sends("mine");
    thief.Ends();
    EXPECT_FALSE(flow.Receives(200).came());
    flow.Sends("still here");
    EXPECT_EQ(flow.Receives().payload, "still here");
  }));
  EXPECT_EQ(heard.size(), 1u);
}

// Datagrams that do not belong to a flow are dropped silently, and the flow goes on.
SCENARIO_F(NodeFlow, BadDatagramsAreDropped) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    std::string bad = flow.Header(0, 1);
    for (std::size_t size = 0; size < bad.size(); ++size) flow.SendsBytes(bad.substr(0, size));
    bad[1] = 19;
    flow.SendsBytes(bad + "header too short");
    bad[1] = 120;
    flow.SendsBytes(bad + "header beyond the end");
    flow.SendsBytes(flow.Header(1, 1) + "unknown flags");
    flow.SendsBytes(flow.Header(0, 1, "224.0.0.1") + "no server");
    flow.SendsBytes(flow.Header(0, 1, kServer, 0) + "no port");
    flow.SendsBytes(flow.Header(0, 1, kNode, node::SimNode::kPort) + RequestBytes());
    flow.SendsBytes(flow.Header(0, 1, kNode, flow.data_port) + "itself");
    EXPECT_FALSE(flow.Receives(200).came());
    flow.Sends("still here");
    EXPECT_EQ(flow.Receives().payload, "still here");
  }));
  EXPECT_EQ(heard.size(), 1u);
  EXPECT_EQ(node.Count("flow_opened"), 1u);
}

SCENARIO_F(NodeFlow, ALongerHeaderIsSkipped) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    std::string header = flow.Header(0, 1);
    header[0] = 9;
    header[1] = 24;
    flow.SendsBytes(header + "????payload");
    EXPECT_EQ(flow.Receives().payload, "payload");
  }));
}

SCENARIO_F(NodeFlow, BadRequestsAreNotAnswered) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    const std::string good = RequestBytes();
    for (const std::size_t size : {0u, 9u, 10u, 72u}) {
      flow.Asks(good.substr(0, size));
      EXPECT_EQ(flow.Answer(100), "") << size;
    }
    flow.Asks(good + "x");
    EXPECT_EQ(flow.Answer(100), "");
    flow.Asks(RequestFor("0.0.0.0", 80));
    EXPECT_EQ(flow.Answer(100), "");
    flow.Asks(std::string(5000, 'x'));
    EXPECT_EQ(flow.Answer(100), "");
    for (const int version : {1, 2, 3}) {
      flow.Asks(RequestBytes(version));
      EXPECT_EQ(Summary(flow.Answer(100)), "result 0, version 3, 41 bytes") << version;
    }
  }));
  EXPECT_EQ(node.Count("bad_request"), 6u) << node.AllEvents();
}

SCENARIO_F(NodeFlow, ItsOwnPortsAreNotGameServers) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    flow.Asks(RequestFor(kNode, node::SimNode::kPort));
    EXPECT_EQ(Summary(flow.Answer()), "result 1, version 3, 41 bytes");
  }));
}

class NodeSmall : public NodeFlowWorld {
 protected:
  node::SimNode node{world, node_host, [] {
                       node::NodeOptions options;
                       options.listen = {0xC6336414, node::SimNode::kPort};
                       options.data_port = 9200;
                       options.limits.flows = 2;
                       return options;
                     }()};
};

SCENARIO_F(NodeSmall, TooManyFlowsAreRefused) {
  OnClient([&] {
    RawFlow one, two, three;
    EXPECT_TRUE(one.Opens());
    EXPECT_TRUE(two.Opens());
    EXPECT_EQ(one.data_port, 9200);
    three.Asks();
    EXPECT_EQ(Summary(three.Answer()), "result 1, version 3, 41 bytes");
    one.Ends();
    EXPECT_TRUE(three.Opens());
  });
  ASSERT_TRUE(RunToTheEnd());
}

// Loss on the way up is reported on the way down, soon, and not exaggerated.
SCENARIO_F_SEEDS(NodeFlow, ReportsTheLossOfItsUploadToTheClient, 5) {
  sim::LinkOptions lossy = world.link(client_host, node_host);
  lossy.loss = 0.2;
  std::vector<Wrapped> healthy, bad;
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    const auto plays = [&](int seconds) {
      for (int i = 0; i < seconds * 100; ++i) {
        flow.Sends("x");
        Sleep(10);
      }
      return flow.ReceivesAll(100);
    };
    healthy = plays(6);
    world.SetLinkOneWay(client_host, node_host, lossy);
    bad = plays(6);
  }));
  ASSERT_GT(healthy.size(), 500u);
  ASSERT_GT(bad.size(), 400u);
  EXPECT_EQ(healthy.front().lost, 101u);
  EXPECT_EQ(healthy.back().lost, 0u);
  EXPECT_NEAR(bad.back().lost, 20, 10);
}

SCENARIO_F(NodeFlow, NothingMovesWhileItIsFrozen) {
  ASSERT_TRUE(Runs([&] {
    RawFlow flow;
    ASSERT_TRUE(flow.Opens());
    node.Freezes();
    Sleep(50);
    flow.Sends("later");
    EXPECT_FALSE(flow.Receives(5000).came());
    node.Thaws();
    EXPECT_EQ(flow.Receives().payload, "later");
  }));
}

}  // namespace
