// Probes at the reference node, a flow that moves from one node to another, and the path between a
// client and a node: delay, loss, duplicates and reordering, separately for each kind and
// direction.
#include <algorithm>
#include <set>

#include "tests/scenario/node_flow_world.h"

namespace {
using namespace node_test;  // NOLINT: the verbs of these tests
using node::Behaviour;

class NodeProbe : public NodeFlowWorld {
 protected:
  bool Runs(std::function<void(RawFlow&)> body) {
    StartEcho();
    OnClient([body = std::move(body)] {
      RawFlow flow;
      ASSERT_TRUE(flow.Opens());
      body(flow);
    });
    return RunToTheEnd();
  }
  // Sends that many data datagrams, one every 10 ms; returns what comes back, and when.
  static std::vector<Wrapped> Plays(RawFlow& flow, int count) {
    for (int i = 0; i < count; ++i) {
      flow.Sends(std::to_string(i));
      Sleep(10);
    }
    return flow.ReceivesAll(2000);
  }
  static std::vector<Wrapped> PlaysProbes(RawFlow& flow, int count) {
    for (int i = 0; i < count; ++i) {
      flow.Probes(static_cast<unsigned>(i + 1));
      Sleep(10);
    }
    return flow.ReceivesAll(2000);
  }
  static double Since(unsigned long begin) { return static_cast<double>(GetTickCount() - begin); }
  // Milliseconds until something comes.
  static double TimeTo(RawFlow& flow) {
    const unsigned long begin = GetTickCount();
    EXPECT_TRUE(flow.Receives(10'000).came());
    return Since(begin);
  }

  node::SimNode node{world, node_host};
};

SCENARIO_F(NodeProbe, OneRelayAnswersAsZero) {
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    flow.Probes(5);
    const Wrapped answer = flow.Receives();
    EXPECT_EQ(answer.flags, 8u);
    EXPECT_EQ(answer.relay_idx, 0u);
    EXPECT_EQ(answer.seq, 5u);
    EXPECT_EQ(answer.lost, 0u);
    EXPECT_EQ(answer.source, "203.0.113.9:27015");
    EXPECT_EQ(answer.payload,
              std::string("\x8f\xbd\x3a\x25\x05\0\0\0\x7b\x68\xe5\xcf\x8b\x01\0\0", 16));
    EXPECT_EQ(answer.from, flow.data_ip + ":" + std::to_string(flow.data_port));
    EXPECT_FALSE(flow.Receives(200).came());
  }));
  EXPECT_TRUE(heard.empty());
}

SCENARIO_F(NodeProbe, TwoRelaysAnswerAsOneAndTwo) {
  node.behaviour().relays = 2;
  node.behaviour().hop_delay_ms = 30;
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    flow.Probes(5);
    const unsigned long begin = GetTickCount();
    const Wrapped first = flow.Receives();
    EXPECT_EQ(first.relay_idx, 1u);
    EXPECT_NEAR(Since(begin), 20, 2);
    const Wrapped second = flow.Receives();
    EXPECT_EQ(second.relay_idx, 2u);
    EXPECT_NEAR(Since(begin), 80, 2);
    EXPECT_EQ(second.payload, first.payload);
    flow.Sends("data crosses the hop too");
    EXPECT_NEAR(TimeTo(flow), 20 + 60 + 20, 2);
  }));
}

SCENARIO_F(NodeProbe, TheHopLosesOnlyDatagramsThatCrossIt) {
  node.behaviour().relays = 2;
  node.behaviour().hop_loss = 100;
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    const std::vector<Wrapped> answers = PlaysProbes(flow, 20);
    ASSERT_EQ(answers.size(), 20u);
    for (const Wrapped& one : answers) EXPECT_EQ(one.relay_idx, 1u);
    EXPECT_EQ(Plays(flow, 20).size(), 0u);
  }));
}

SCENARIO_F(NodeProbe, ARelayMayCallItselfAnything) {
  node.behaviour().relay_idx = 3;
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    flow.Probes(1);
    EXPECT_EQ(flow.Receives().relay_idx, 3u);
  }));
}

// A longer header comes before the 16 bytes by which a client recognises an answer.
SCENARIO_F(NodeProbe, AnswersKeepTheirPayloadAfterALongerHeader) {
  node.behaviour().head_len = 28;
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    flow.Probes(1);
    const Wrapped answer = flow.Receives();
    EXPECT_EQ(answer.bytes.size(), 28u + 16u);
    EXPECT_EQ(answer.payload.substr(0, 4), "\x8f\xbd\x3a\x25");
  }));
}

// --- moving -----------------------------------------------------------------------------------

SCENARIO_F(NodeProbe, ItsAnswerNamesTheLastNodeOfThePath) {
  node.behaviour().node_id = 3001;
  OnClient([&] {
    RawFlow flow;
    flow.Asks();
    std::string answer = flow.Answer();
    EXPECT_EQ(Big16(answer, 29), 3001u);
    EXPECT_EQ(Big16(answer, 31), static_cast<unsigned>(flow.data_port));
    EXPECT_EQ(Big32(answer, 33), 0xC6336414u);
    EXPECT_EQ(Big32(answer, 37), flow.token);
    node.behaviour().last_node_ip = 0xC6336415;
    node.behaviour().last_node_port = 9100;
    flow.Asks();
    answer = flow.Answer();
    EXPECT_EQ(Big16(answer, 31), 9100u);
    EXPECT_EQ(Big32(answer, 33), 0xC6336415u);
  });
  ASSERT_TRUE(RunToTheEnd());
}

// The request of a flow that moves names the node that it leaves, and so do the events.
SCENARIO_F(NodeProbe, ReportsWhichLinkAMovedFlowReplaces) {
  StartEcho();
  OnClient([&] {
    RawFlow old_link, new_link;
    ASSERT_TRUE(old_link.Opens());
    old_link.Sends("over the old one");
    old_link.Receives();
    std::string request = RequestBytes();
    request[13] = 2;
    request.replace(49, 12, std::string("\x0b\xb9\x23\x8c\xc6\x33\x64\x15\xa1\xb2\xc3\xd4", 12));
    ASSERT_TRUE(new_link.Opens(request));
    new_link.Probes(1);
    EXPECT_EQ(new_link.Receives().flags, 8u);
    new_link.Sends("over the new one");
    EXPECT_EQ(new_link.Receives().seq, 1u);
    old_link.Ends();
    Sleep(50);
  });
  ASSERT_TRUE(RunToTheEnd());
  for (const char* name : {"flow_opened", "first_data"}) {
    const node::Event event = node.Last(name);
    EXPECT_EQ(event.Number("replaces_node_id"), 3001u) << name;
    EXPECT_EQ(event.Text("replaces_node"), "198.51.100.21:9100") << name;
    EXPECT_EQ(event.Number("replaces_token"), 0xA1B2C3D4u) << name;
  }
  EXPECT_EQ(node.Count("first_data"), 4u);
  EXPECT_EQ(node.Last("first_data").Text("direction"), "to_client");
  EXPECT_EQ(node.Last("flow_closed").Number("token"), 1u);
}

// --- the path between -------------------------------------------------------------------------

SCENARIO_F(NodeProbe, EachKindAndDirectionIsDelayedApart) {
  const struct {
    std::int64_t Behaviour::*delay;
    double data, probe;
  } cases[] = {{&Behaviour::data_up_delay_ms, 140, 20},
               {&Behaviour::data_down_delay_ms, 140, 20},
               {&Behaviour::probe_up_delay_ms, 40, 120},
               {&Behaviour::probe_down_delay_ms, 40, 120}};
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    for (const auto& one : cases) {
      node.Behaves();
      node.behaviour().*one.delay = 100;
      flow.Sends("x");
      EXPECT_NEAR(TimeTo(flow), one.data, 2);
      flow.Probes(1);
      EXPECT_NEAR(TimeTo(flow), one.probe, 2);
      Sleep(200);
    }
  }));
}

// What is delayed when its flow ends is never sent, and is told apart from what has been sent.
SCENARIO_F(NodeProbe, TellsWhatAFlowsEndFindsOnItsWay) {
  node.behaviour().data_down_delay_ms = node.behaviour().probe_down_delay_ms = 500;
  node.behaviour().probe_down_duplicate = 100;
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    flow.Sends("answered in time");
    flow.Probes(1);
    EXPECT_EQ(flow.ReceivesAll(1000).size(), 3u);
    flow.Sends("answered too late");
    flow.Probes(2);
    flow.Probes(3);
    Sleep(200);
    flow.Ends();
    EXPECT_FALSE(flow.Receives(1000).came());
  }));
  const node::Event closed = node.Last("flow_closed");
  EXPECT_EQ(closed.Number("datagrams_to_client"), 2u);
  EXPECT_EQ(closed.Number("held_down"), 1u);
  EXPECT_EQ(closed.Number("probe_answers"), 3u);
  EXPECT_EQ(closed.Number("held_probe_answers"), 2u);
  EXPECT_EQ(closed.Number("held_up") + closed.Number("held_probes"), 0u);
}

SCENARIO_F_SEEDS(NodeProbe, EachKindAndDirectionLosesItsShare, 3) {
  const struct {
    std::int64_t Behaviour::*loss;
    bool data, up;
  } cases[] = {{&Behaviour::data_up_loss, true, true},
               {&Behaviour::data_down_loss, true, false},
               {&Behaviour::probe_up_loss, false, true},
               {&Behaviour::probe_down_loss, false, false}};
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    for (const auto& one : cases) {
      node.Behaves();
      node.behaviour().*one.loss = 30;
      heard.clear();
      const std::size_t data = Plays(flow, 300).size();
      const std::size_t probes = PlaysProbes(flow, 300).size();
      EXPECT_NEAR(static_cast<double>(one.data ? data : probes), 210, 35);
      EXPECT_EQ(one.data ? probes : data, 300u);
      EXPECT_EQ(heard.size(), one.data && one.up ? data : 300u);
    }
  }));
}

SCENARIO_F(NodeProbe, DuplicatesAreTheSameDatagramTwice) {
  node.behaviour().data_up_duplicate = 100;
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    EXPECT_EQ(Plays(flow, 10).size(), 20u);
    EXPECT_EQ(heard.size(), 20u);
    node.Behaves();
    node.behaviour().data_down_duplicate = 100;
    const std::vector<Wrapped> all = Plays(flow, 10);
    ASSERT_EQ(all.size(), 20u);
    for (std::size_t i = 0; i < 20; i += 2) EXPECT_EQ(all[i].bytes, all[i + 1].bytes);
    EXPECT_EQ(heard.size(), 30u);
  }));
}

SCENARIO_F(NodeProbe, JitterKeepsTheOrderAndDisorderDoesNot) {
  const auto in_order = [](const std::vector<Wrapped>& all) {
    return std::is_sorted(all.begin(), all.end(),
                          [](const Wrapped& a, const Wrapped& b) { return a.seq < b.seq; });
  };
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    node.behaviour().data_down_jitter_ms = 60;
    std::vector<Wrapped> all = Plays(flow, 200);
    EXPECT_EQ(all.size(), 200u);
    EXPECT_TRUE(in_order(all));
    node.Behaves();
    node.behaviour().data_down_reorder = 20;
    node.behaviour().reorder_by_ms = 25;
    all = Plays(flow, 200);
    EXPECT_EQ(all.size(), 200u);
    EXPECT_FALSE(in_order(all));
  }));
}

// With one seed, the same datagrams are lost whatever other impairments are on.
SCENARIO_F(NodeProbe, TheSeedDecidesWhichDatagramsAreLost) {
  StartEcho();
  std::vector<std::set<std::string>> arrived;
  // A flow's number is part of its seed; each of these is the first of its node.
  node::SimNode b(world, server_host), c(world, server_host, 7401);
  OnClient([&] {
    for (const auto& [at, seed, delay] :
         {std::tuple(&node, 7, 0), std::tuple(&b, 7, 40), std::tuple(&c, 8, 0)}) {
      at->behaviour().seed = seed;
      at->behaviour().data_down_loss = 40;
      at->behaviour().data_down_delay_ms = delay;
      Sleep(50);
      RawFlow flow;
      const sockaddr_in to = at->address().Raw();
      const std::string request = RequestBytes();
      sendto(flow.s, request.data(), static_cast<int>(request.size()), 0, Raw(to), sizeof to);
      ASSERT_NE(flow.Answer(), "");
      std::set<std::string> payloads;
      for (const Wrapped& one : Plays(flow, 100)) payloads.insert(one.payload);
      arrived.push_back(payloads);
    }
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(arrived[0], arrived[1]);
  EXPECT_NE(arrived[0], arrived[2]);
}

SCENARIO_F(NodeProbe, ARestoredNodeHasDroppedEarlierDatagrams) {
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    node.GoesDark();
    Sleep(50);
    flow.Sends("gone");
    flow.Probes(1);
    flow.Asks();
    EXPECT_FALSE(flow.Receives(1000).came());
    node.ComesBack();
    Sleep(50);
    EXPECT_FALSE(flow.Receives(1000).came());
    flow.Sends("here");
    EXPECT_EQ(flow.Receives().payload, "here");
  }));
}

SCENARIO_F(NodeProbe, LosesAndDelaysByVerb) {
  ASSERT_TRUE(Runs([&](RawFlow& flow) {
    node.DelaysRoundTripBy(151);
    flow.Sends("x");
    EXPECT_NEAR(TimeTo(flow), 40 + 151, 2);
    flow.Probes(1);
    EXPECT_NEAR(TimeTo(flow), 20 + 151, 2);
    node.Behaves().LosesUp(100);
    flow.Sends("x");
    EXPECT_FALSE(flow.Receives().came());
    EXPECT_EQ(heard.size(), 1u);
    node.Behaves().LosesDown(100);
    flow.Sends("x");
    EXPECT_FALSE(flow.Receives().came());
    EXPECT_EQ(heard.size(), 2u);
  }));
}

}  // namespace
