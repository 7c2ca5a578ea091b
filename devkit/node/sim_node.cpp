#include "node/sim_node.h"

namespace node {
namespace {

NodeOptions OptionsFor(const sim::Host& host, u16 port, u16 control_port) {
  NodeOptions options;
  options.listen = {host.addresses().front(), port};
  if (control_port != 0) options.control = Address{host.addresses().front(), control_port};
  return options;
}

}  // namespace

SimNode::SimNode(sim::World& world, sim::Host& host, u16 port, u16 control_port)
    : SimNode(world, host, OptionsFor(host, port, control_port)) {}

SimNode::SimNode(sim::World& world, sim::Host& host, NodeOptions options)
    : options_(std::move(options)) {
  shared_->behaviour = options_.behaviour;
  process_ = &world.SpawnOn(host, "node-" + host.name(),
                            [at = options_, shared = shared_] { Live(at, shared); });
}

SimNode::~SimNode() { shared_->stop = true; }

void SimNode::Live(const NodeOptions& options, const std::shared_ptr<Shared>& shared) {
  Node node(
      options, [shared](const Event& event) { shared->events.push_back(event); },
      &shared->behaviour);
  std::string problem;
  if (!node.Start(&problem)) sim::TheWorld().Fail("node: " + problem);
  while (!shared->stop && !node.stop_asked()) node.Step(kStepMs);
  node.Step(0);  // the reply to the command that ended it
}

SimNode& SimNode::Behaves(const Behaviour& as) {
  behaviour() = as;
  return *this;
}

SimNode& SimNode::StopsAnswering() {
  behaviour().on_request = Behaviour::kSilent;
  return *this;
}

SimNode& SimNode::AnswersAgain() {
  behaviour().on_request = Behaviour::kAnswer;
  return *this;
}

SimNode& SimNode::AnswersWith(u8 result) {
  behaviour().result = result;
  return AnswersAgain();
}

SimNode& SimNode::AnswersAfter(u32 delay_ms) {
  behaviour().answer_delay_ms = delay_ms;
  return AnswersAgain();
}

SimNode& SimNode::AnswersInPiecesOf(u32 bytes, u32 gap_ms) {
  behaviour().split_bytes = bytes;
  behaviour().split_gap_ms = gap_ms;
  return AnswersAgain();
}

SimNode& SimNode::AnswersGarbage(u32 bytes) {
  behaviour().garbage_bytes = bytes;
  behaviour().on_request = Behaviour::kGarbage;
  return *this;
}

SimNode& SimNode::ServesIsps(u32 mask) {
  behaviour().isp = mask;
  return AnswersAgain();
}

SimNode& SimNode::CannotReachServers() {
  behaviour().server = Behaviour::kRefuse;
  return *this;
}

SimNode& SimNode::ResetsAfter(u64 bytes) {
  behaviour().reset_after_bytes = static_cast<std::int64_t>(bytes);
  return *this;
}

SimNode& SimNode::Freezes() {
  behaviour().freeze = 1;
  return *this;
}

SimNode& SimNode::Thaws() {
  behaviour().freeze = 0;
  return *this;
}

SimNode& SimNode::GoesDark() { return Loses(100).StopsAnswering(); }

SimNode& SimNode::ComesBack() { return Loses(0).AnswersAgain(); }

SimNode& SimNode::LosesUp(u32 percent) {
  behaviour().data_up_loss = behaviour().probe_up_loss = percent;
  return *this;
}

SimNode& SimNode::LosesDown(u32 percent) {
  behaviour().data_down_loss = behaviour().probe_down_loss = percent;
  return *this;
}

SimNode& SimNode::DelaysRoundTripBy(u32 delay_ms, u32 jitter_ms) {
  Behaviour& b = behaviour();
  b.data_up_delay_ms = b.probe_up_delay_ms = delay_ms / 2;
  b.data_down_delay_ms = b.probe_down_delay_ms = delay_ms - delay_ms / 2;
  b.data_up_jitter_ms = b.probe_up_jitter_ms = jitter_ms / 2;
  b.data_down_jitter_ms = b.probe_down_jitter_ms = jitter_ms - jitter_ms / 2;
  return *this;
}

std::vector<Event> SimNode::Events(const std::string& name) const {
  std::vector<Event> found;
  for (const Event& event : shared_->events)
    if (event.name == name) found.push_back(event);
  return found;
}

Event SimNode::Last(const std::string& name) const {
  const std::vector<Event> found = Events(name);
  return found.empty() ? Event{} : found.back();
}

std::string SimNode::AllEvents() const {
  std::string all;
  for (const Event& event : shared_->events) all += event.ToText() + "\n";
  return all;
}

}  // namespace node
