// The whole world's three nodes and the links between its hosts: what they are like, and what
// happens to them.
#include "tests/scenario/swarm_nodes.h"
#include "tests/scenario/whole_world.h"

namespace whole_test {
namespace {

using node::Behaviour;
using sim::Random;

// What may be wrong with a node that carries datagrams, and with those of its own.
constexpr uint64_t kWaysOfDatagrams = 6;

void SpoilDatagrams(uint64_t way, Random* random, Behaviour* it) {
  switch (way) {
    case 0:
      it->header = Less(random, 6);
      break;
    case 1:
      it->data_from = Behaviour::kOther;
      break;
    case 2:
      it->data_token = Less(random, 10);
      break;
    case 3:
      it->data_up_loss = it->data_down_loss = it->probe_up_loss = it->probe_down_loss =
          Less(random, 80);
      break;
    case 4:
      it->answer_from = Behaviour::kOther;
      break;
    case 5:
      it->head_len = 20 + Less(random, 100);
      break;
    default:
      break;
  }
}

Behaviour AnyBehaviour(uint64_t variant) {
  constexpr uint64_t kBreaks = kWaysToAnswer;
  constexpr uint64_t kDatagrams = kBreaks + kWaysToBreak;
  Random random(variant);
  Behaviour it;
  const uint64_t way = random.Below(kDatagrams + kWaysOfDatagrams + 1);
  if (way == kWrongLength) {
    it.pkg_len = WrongLength(&random, random.Below(2) == 0);
  } else if (way < kBreaks) {
    SpoilAnswer(way, &random, &it);
  } else if (way < kDatagrams) {
    BreakConnections(way - kBreaks, &random, &it);
  } else {
    SpoilDatagrams(way - kDatagrams, &random, &it);
  }
  if (random.Below(100) < 30) it.answer_delay_ms = Less(&random, 7000);
  if (random.Below(100) < 20) it.answers = 2;
  HurryOrDelay(&random, &it);
  if (random.Below(100) < 30) it.data_down_jitter_ms = it.data_up_jitter_ms = Less(&random, 40);
  if (random.Below(100) < 20) it.data_up_reorder = 20;
  return it;
}

sim::LinkOptions AnyLink(uint64_t variant) {
  Random random(variant);
  sim::LinkOptions link;
  link.delay = std::chrono::milliseconds(random.Below(80));
  if (random.Below(2) == 0) link.jitter = std::chrono::milliseconds(random.Below(30));
  if (random.Below(100) < 20) link.reorder = 0.1;
  if (random.Below(100) < 20) link.bytes_per_second = 200'000 + random.Below(2'000'000);
  switch (random.Below(5)) {
    case 0:
      link.loss = 0.02;
      break;
    case 1:
      link.loss = 0.3;
      break;
    case 2:
      link.partitioned = true;
      break;
    default:
      break;
  }
  return link;
}

}  // namespace

sim::Host& WholeWorld::HostOf(size_t which) {
  sim::Host* const hosts[] = {&a_host, &b_host, &c_host_, &server_host};
  return *hosts[which];
}

node::Behaviour& WholeWorld::BehaviourOf(size_t which) {
  return which == 0 ? a.behaviour() : which == 1 ? b.behaviour() : c_behaviour_;
}

// A node of our own, since a SimNode cannot be started again.
void WholeWorld::StartNode(size_t which) {
  sim::Host& host = HostOf(which);
  node::NodeOptions options;
  options.listen = {host.addresses().front(), static_cast<common::u16>(7001 + which)};
  Behaviour* const behaviour = &BehaviourOf(which);
  node_processes_[which] = &world.SpawnOn(host, "node-" + host.name(), [this, options, behaviour] {
    for (;; Sleep(100)) {
      node::Node node(
          options, [](const node::Event&) {}, behaviour);
      std::string problem;
      if (!node.Start(&problem)) continue;  // a fault
      for (;;) node.Step(node_step_ms_);
    }
  });
}

void WholeWorld::NodeBehaves(size_t which, uint64_t variant) {
  BehaviourOf(which) = AnyBehaviour(variant);
}

void WholeWorld::NodeDies(size_t which, sim::Duration time) {
  world.Kill(*node_processes_[which]);
  world.After(time, [this, which] {
    if (!node_processes_[which]->alive) StartNode(which);
  });
}

void WholeWorld::ChangeLink(size_t which, uint64_t variant) {
  sim::LinkOptions link = AnyLink(variant);
  if (which == kServerHost) {
    world.SetLink(world.home().host, server_host, link);
    return;
  }
  world.SetLink(variant % 3 == 0 ? server_host : world.home().host, HostOf(which), link);
}

}  // namespace whole_test
