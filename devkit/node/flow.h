// One flow of datagrams: a client's socket on one side, a socket of its own towards game servers
// on the other, so that a server sees one address per flow from the first datagram to the last.
#pragma once
#include <array>
#include <string>
#include <vector>

#include "node/behaviour.h"
#include "node/event.h"
#include "node/lane.h"
#include "node/loss_meter.h"
#include "node/socket.h"
#include "protocol/nego_request.h"

namespace node {

struct FlowCounts {
  u64 datagrams_to_server = 0, bytes_to_server = 0;  // payload that was sent on
  u64 datagrams_to_client = 0, bytes_to_client = 0;
  u64 probes = 0, probe_answers = 0;
  u64 dropped_up = 0, dropped_down = 0;               // data, by the impairments
  u64 dropped_probes = 0, dropped_probe_answers = 0;  // by the impairments
  u64 strays = 0;       // from an address to which the client never wrote
  u64 undelivered = 0;  // with an invalid destination, or refused by a socket
};

class Flow {
 public:
  enum LaneName { kDataUp, kDataDown, kProbeUp, kProbeDown, kHop, kLanes };

  // A flow that talks to more servers than this receives from the first of them only.
  static constexpr std::size_t kMostServers = 64;

  Flow(u64 id, u32 token, const Address& client, const moru_vyr::lsp::NegoRequestBody& request,
       Socket upstream, u64 seed, u64 now);

  // The first records that the client writes to an address, the second returns whether it did.
  void WritesTo(u32 ip);
  bool HasWrittenTo(u32 ip) const;

  Event Tell(const char* name) const;
  // Adds what identifies the flow and what it has carried.
  Event Describe(const char* name) const;
  // Adds which link of which node this flow continues, if it was moved here.
  void DescribeOrigin(Event* event) const;

  const u64 id;
  const u32 token;
  const Address client;
  const moru_vyr::lsp::NegoRequestBody request;  // host order
  const Socket upstream;
  const u64 opened_at;
  u64 active_at;          // when the last datagram of the client arrived
  u64 next_unasked = 0;   // 0: not decided
  u32 next_seq = 1;       // towards the client
  u8 lost_by_client = 0;  // as last reported by the client
  LossMeter upload;
  std::array<Lane, kLanes> lanes;
  std::array<u64, kLanes> held = {};  // datagrams that are delayed now; lost if the flow ends first
  FlowCounts counts;

 private:
  std::vector<u32> servers_;
};

// What a lane does now; the hop has only delay and loss.
Impairment ImpairmentOf(const Behaviour& behaviour, Flow::LaneName lane);

}  // namespace node
