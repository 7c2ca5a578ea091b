#include "node/node_figures.h"

#include "metrics/metrics_text.h"
#include "node/node.h"

namespace node {
namespace {

using metrics::Labels;
using metrics::MetricsText;
using metrics::Type;
using Figures = NodeFigures;

constexpr const char* kProtocolNames[] = {"tcp", "udp"};

Figures::Protocol ProtocolOf(const Event& event) {
  return event.Number("connection") != 0 ? Figures::kTcp : Figures::kUdp;
}

void AddByProtocol(MetricsText* text, const char* name, const char* help,
                   const std::array<u64, Figures::kProtocols>& values) {
  text->Family(name, Type::kCounter, help);
  for (int i = 0; i < Figures::kProtocols; ++i)
    text->Sample({{"protocol", kProtocolNames[i]}}, values[static_cast<std::size_t>(i)]);
}

void AddConnections(MetricsText* text, const Figures& figures) {
  text->Family("vyr_node_connections_accepted_total", Type::kCounter, "Connections of clients.");
  text->Sample({}, figures.accepted);
  text->Family("vyr_node_connections_ended_total", Type::kCounter,
               "Connections that have ended, in order or by a reset.");
  for (const char* how : {"closed", "reset"}) {
    const auto found = figures.ended.find(how);
    text->Sample({{"how", how}}, found != figures.ended.end() ? found->second : 0);
  }
  text->Family("vyr_node_connections", Type::kGauge, "Connections that are open.");
  text->Sample({}, figures.open_connections);
}

void AddNegotiations(MetricsText* text, const Figures& figures) {
  AddByProtocol(text, "vyr_node_requests_total", "Requests that were read.", figures.requests);
  AddByProtocol(text, "vyr_node_bad_requests_total", "Requests that are none.",
                figures.bad_requests);
  AddByProtocol(text, "vyr_node_agreements_total", "Answers that agreed to carry.", figures.agreed);
  AddByProtocol(text, "vyr_node_garbage_answers_total", "Answers of garbage, as told.",
                figures.garbage);
  text->Family("vyr_node_refusals_total", Type::kCounter,
               "Answers that refused, by the result in them.");
  for (const auto& [of, count] : figures.refusals)
    text->Sample({{"protocol", kProtocolNames[of.first]}, {"result", std::to_string(of.second)}},
                 count);
  AddByProtocol(text, "vyr_node_server_failures_total",
                "Requests whose game server could not be reached.", figures.server_failures);
}

void AddTraffic(MetricsText* text, const Figures& figures) {
  const FlowCounts& flows = figures.flows;
  text->Family("vyr_node_flows_opened_total", Type::kCounter, "Flows of datagrams.");
  text->Sample({}, figures.flows_opened);
  text->Family("vyr_node_flows_closed_total", Type::kCounter, "Flows that have ended.");
  text->Sample({}, figures.flows_closed);
  text->Family("vyr_node_flows", Type::kGauge, "Flows that are open.");
  text->Sample({}, figures.open_flows);
  text->Family("vyr_node_bytes_total", Type::kCounter, "Bytes of games that were carried.");
  const auto bytes = [&](Figures::Protocol protocol, const char* direction, u64 count) {
    text->Sample({{"protocol", kProtocolNames[protocol]}, {"direction", direction}}, count);
  };
  bytes(Figures::kTcp, "to_server", figures.streams.to_server);
  bytes(Figures::kTcp, "to_client", figures.streams.to_client);
  bytes(Figures::kUdp, "to_server", flows.bytes_to_server);
  bytes(Figures::kUdp, "to_client", flows.bytes_to_client);
  text->Family("vyr_node_datagrams_total", Type::kCounter, "Datagrams of games that were carried.");
  text->Sample({{"direction", "to_server"}}, flows.datagrams_to_server);
  text->Sample({{"direction", "to_client"}}, flows.datagrams_to_client);
}

void AddProbes(MetricsText* text, const Figures& figures) {
  const FlowCounts& flows = figures.flows;
  text->Family("vyr_node_probes_total", Type::kCounter, "Probes that arrived.");
  text->Sample({}, flows.probes);
  text->Family("vyr_node_probe_answers_total", Type::kCounter,
               "Answers to probes; with two relays a probe has two.");
  text->Sample({}, flows.probe_answers);
  text->Family("vyr_node_dropped_datagrams_total", Type::kCounter,
               "Datagrams that the impairments took.");
  text->Sample({{"lane", "data_up"}}, flows.dropped_up);
  text->Sample({{"lane", "data_down"}}, flows.dropped_down);
  text->Sample({{"lane", "probe_up"}}, flows.dropped_probes);
  text->Sample({{"lane", "probe_down"}}, flows.dropped_probe_answers);
  text->Family("vyr_node_stray_datagrams_total", Type::kCounter,
               "Datagrams from servers that the client never wrote to.");
  text->Sample({}, flows.strays);
  text->Family("vyr_node_undelivered_datagrams_total", Type::kCounter,
               "Datagrams with an invalid destination, or refused by a socket.");
  text->Sample({}, flows.undelivered);
  text->Family("vyr_node_unknown_datagrams_total", Type::kCounter,
               "Datagrams that belong to no flow, as the events have told.");
  text->Sample({}, figures.unknown_datagrams);
}

void AddBehaviour(MetricsText* text, const Figures& figures) {
  text->Family("vyr_node_misbehaved_total", Type::kCounter,
               "How often the node did, as told, something else than a good one.");
  for (const auto& [what, count] : figures.misbehaved)
    text->Sample({{"behaviour", what.first}, {"value", what.second}}, count);
  text->Family("vyr_node_behaviour", Type::kGauge,
               "1 for each behaviour that is not the default now.");
  const Behaviour usual;
  for (const BehaviourField& field : BehaviourFields()) {
    if (figures.behaviour.*field.member == usual.*field.member) continue;
    text->Sample({{"behaviour", field.name}, {"value", ValueText(field, figures.behaviour)}},
                 u64{1});
  }
  text->Family("vyr_node_errors_total", Type::kCounter, "Failures of the node itself.");
  text->Sample({}, figures.errors);
}

}  // namespace

const std::array<FlowCountRow, 12>& FlowCountRows() {
  using C = FlowCounts;
  static constexpr std::array<FlowCountRow, 12> kRows = {{
      {"datagrams_to_server", &C::datagrams_to_server},
      {"bytes_to_server", &C::bytes_to_server},
      {"datagrams_to_client", &C::datagrams_to_client},
      {"bytes_to_client", &C::bytes_to_client},
      {"probes", &C::probes},
      {"probe_answers", &C::probe_answers},
      {"dropped_up", &C::dropped_up},
      {"dropped_down", &C::dropped_down},
      {"dropped_probes", &C::dropped_probes},
      {"dropped_probe_answers", &C::dropped_probe_answers},
      {"strays", &C::strays},
      {"undelivered", &C::undelivered},
  }};
  static_assert(sizeof(FlowCounts) == 12 * sizeof(u64));
  return kRows;
}

std::string ValueText(const BehaviourField& field, const Behaviour& behaviour) {
  const std::int64_t value = behaviour.*field.member;
  const std::string word = field.WordFor(value);
  return word.empty() ? std::to_string(value) : word;
}

void NodeFigures::Misbehaved(const char* name, const Behaviour& now) {
  ++misbehaved[{name, ValueText(*FindBehaviourField(name), now)}];
}

void NodeFigures::Add(const Event& event, const Behaviour& now) {
  const Protocol protocol = ProtocolOf(event);
  if (event.name == "accepted") {
    ++accepted;
    if (now.on_accept != Behaviour::kServe) Misbehaved("on_accept", now);
  } else if (event.name == "request") {
    AddRequest(protocol, now);
  } else if (event.name == "bad_request") {
    ++bad_requests[protocol];
  } else if (event.name == "server_failed") {
    ++server_failures[protocol];
  } else if (event.name == "answered") {
    AddAnswer(protocol, event);
  } else if (event.name == "closed" || event.name == "flow_closed") {
    AddEnd(event, now);
  } else if (event.name == "flow_opened") {
    ++flows_opened;
  } else if (event.name == "dropped") {
    unknown_datagrams += event.Number("datagrams");
  } else if (event.name == "error") {
    ++errors;
  }
}

// In the order in which the behaviours are looked at: the first that is not the default decides.
void NodeFigures::AddRequest(Protocol protocol, const Behaviour& now) {
  ++requests[protocol];
  if (protocol == kUdp && now.on_accept != Behaviour::kServe) return Misbehaved("on_accept", now);
  if (now.on_request != Behaviour::kAnswer) return Misbehaved("on_request", now);
  if (now.result != 0) return Misbehaved("result", now);
  if (now.server != Behaviour::kConnect) return Misbehaved("server", now);
}

void NodeFigures::AddAnswer(Protocol protocol, const Event& event) {
  if (event.Number("garbage") != 0) {
    ++garbage[protocol];
  } else if (const u64 result = event.Number("result"); result != 0) {
    ++refusals[{protocol, result}];
  } else {
    ++agreed[protocol];
  }
}

void NodeFigures::AddEnd(const Event& event, const Behaviour& now) {
  if (event.name == "flow_closed") {
    ++flows_closed;
    for (const FlowCountRow& row : FlowCountRows()) flows.*row.member += event.Number(row.name);
    return;
  }
  const std::string how = event.Text("how");
  ++ended[how];
  const u64 up = event.Number("bytes_to_server"), down = event.Number("bytes_to_client");
  streams.to_server += up;
  streams.to_client += down;
  const bool is_spent =
      now.reset_after_bytes >= 0 && up + down >= static_cast<u64>(now.reset_after_bytes);
  if (is_spent && how == "reset") Misbehaved("reset_after_bytes", now);
}

void NodeFigures::AddOpen(const Node& node) {
  const StreamBytes bytes = node.OpenStreamBytes();
  streams.to_server += bytes.to_server;
  streams.to_client += bytes.to_client;
  const FlowCounts counts = node.OpenFlowCounts();
  for (const FlowCountRow& row : FlowCountRows()) flows.*row.member += counts.*row.member;
  open_connections = node.connections();
  open_flows = node.flows();
  behaviour = node.behaviour();
}

std::string MetricsOf(const NodeFigures& figures, const std::string& version) {
  MetricsText text;
  text.Family("vyr_node_build_info", Type::kGauge, "Always 1.");
  text.Sample({{"version", version}}, u64{1});
  AddConnections(&text, figures);
  AddNegotiations(&text, figures);
  AddTraffic(&text, figures);
  AddProbes(&text, figures);
  AddBehaviour(&text, figures);
  return text.text();
}

}  // namespace node
