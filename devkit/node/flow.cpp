#include "node/flow.h"

#include <algorithm>

namespace node {
namespace {

using moru_vyr::lsp::kNegoFlagSwitch;
using moru_vyr::lsp::NegoRequestBody;
using moru_vyr::lsp::SessionGuid;

// Flows and lanes share a seed, but each has a random sequence of its own.
u64 SeedOf(u64 seed, u64 flow, u64 lane) { return seed << 32 ^ flow << 8 ^ lane; }

template <class... Members>
Impairment From(const Behaviour& behaviour, Members... members) {
  const u32 values[] = {static_cast<u32>(behaviour.*members)...};
  return {.delay_ms = values[0],
          .jitter_ms = values[1],
          .loss = values[2],
          .duplicate = values[3],
          .reorder = values[4],
          .reorder_by_ms = static_cast<u32>(behaviour.reorder_by_ms)};
}

}  // namespace

Flow::Flow(u64 flow_id, u32 flow_token, const Address& from, const NegoRequestBody& body,
           Socket socket, u64 seed, u64 now)
    : id(flow_id),
      token(flow_token),
      client(from),
      request(body),
      upstream(std::move(socket)),
      opened_at(now),
      active_at(now),
      lanes{Lane(SeedOf(seed, flow_id, kDataUp)), Lane(SeedOf(seed, flow_id, kDataDown)),
            Lane(SeedOf(seed, flow_id, kProbeUp)), Lane(SeedOf(seed, flow_id, kProbeDown)),
            Lane(SeedOf(seed, flow_id, kHop))} {}

void Flow::WritesTo(u32 ip) {
  if (!HasWrittenTo(ip) && servers_.size() < kMostServers) servers_.push_back(ip);
}

bool Flow::HasWrittenTo(u32 ip) const {
  return std::find(servers_.begin(), servers_.end(), ip) != servers_.end();
}

Event Flow::Tell(const char* name) const { return Event{name}.With("flow", id); }

void Flow::DescribeOrigin(Event* event) const {
  if ((request.flags & kNegoFlagSwitch) == 0) return;
  event->With("replaces_node_id", request.last_node.node_id)
      .With("replaces_node", Address{request.last_node.ip, request.last_node.port}.Text())
      .With("replaces_token", request.last_node.accl_token);
}

Event Flow::Describe(const char* name) const {
  char guid[SessionGuid::kTextSize];
  return Tell(name)
      .With("client", client.Text())
      .With("game", Address{request.game_ip, request.game_port}.Text())
      .With("guid", request.guid.ToString(guid, sizeof guid))
      .With("token", token)
      .With("datagrams_to_server", counts.datagrams_to_server)
      .With("bytes_to_server", counts.bytes_to_server)
      .With("datagrams_to_client", counts.datagrams_to_client)
      .With("bytes_to_client", counts.bytes_to_client)
      .With("probes", counts.probes)
      .With("probe_answers", counts.probe_answers)
      .With("dropped_up", counts.dropped_up)
      .With("dropped_down", counts.dropped_down)
      .With("dropped_probes", counts.dropped_probes)
      .With("dropped_probe_answers", counts.dropped_probe_answers)
      .With("held_up", held[kDataUp])
      .With("held_down", held[kDataDown])
      .With("held_probes", held[kProbeUp])
      .With("held_probe_answers", held[kProbeDown])
      .With("strays", counts.strays)
      .With("undelivered", counts.undelivered)
      .With("lost_by_client", lost_by_client);
}

Impairment ImpairmentOf(const Behaviour& behaviour, Flow::LaneName lane) {
  using Of = Behaviour;
  switch (lane) {
    case Flow::kDataUp:
      return From(behaviour, &Of::data_up_delay_ms, &Of::data_up_jitter_ms, &Of::data_up_loss,
                  &Of::data_up_duplicate, &Of::data_up_reorder);
    case Flow::kDataDown:
      return From(behaviour, &Of::data_down_delay_ms, &Of::data_down_jitter_ms, &Of::data_down_loss,
                  &Of::data_down_duplicate, &Of::data_down_reorder);
    case Flow::kProbeUp:
      return From(behaviour, &Of::probe_up_delay_ms, &Of::probe_up_jitter_ms, &Of::probe_up_loss,
                  &Of::probe_up_duplicate, &Of::probe_up_reorder);
    case Flow::kProbeDown:
      return From(behaviour, &Of::probe_down_delay_ms, &Of::probe_down_jitter_ms,
                  &Of::probe_down_loss, &Of::probe_down_duplicate, &Of::probe_down_reorder);
    default:
      return {.delay_ms = static_cast<u32>(behaviour.hop_delay_ms),
              .loss = static_cast<u32>(behaviour.hop_loss)};
  }
}

}  // namespace node
