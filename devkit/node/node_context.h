// What the parts of a node share: its limits, its addresses, and the sink for events.
#pragma once
#include "node/behaviour.h"
#include "node/clock.h"
#include "node/event.h"
#include "node/socket.h"

namespace node {

// In milliseconds, except for counts.
struct Limits {
  u32 connections = 256;
  u32 request_ms = 5000;        // from the accept to the last byte of the request
  u32 connect_ms = 4000;        // to the game server
  u32 end_ms = 5000;            // after a refusal, until the client has closed
  u32 half_close_ms = 300'000;  // without a byte, once one side has ended
  u32 flows = 256;              // of datagrams
  u32 flow_idle_ms = 300'000;   // without a datagram from the client
};

// Outlives its users.
struct NodeContext {
  const Behaviour* behaviour = nullptr;
  Limits limits = {};
  Address own = {};      // where clients connect and send requests
  Address data = {};     // where they send the datagrams of a flow
  Address control = {};  // port 0: there is none
  Address metrics = {};  // the same
  u32 source_ip = 0;     // of traffic to game servers; 0: the system chooses
  u32 next_token = 1;
  EventSink emit = {};
  Clock clock = {};

  u32 MakeToken() {
    const auto fixed = static_cast<u32>(behaviour->token);
    return fixed != 0 ? fixed : next_token++;
  }

  // Clients must not reach the control port or the metrics through the node, nor the node through
  // itself.
  bool IsOwn(const Address& server) const {
    const auto matches = [&](const Address& mine) {
      return mine.port != 0 && mine.port == server.port &&
             (mine.ip == 0 || mine.ip == server.ip || (mine.loopback() && server.loopback()));
    };
    return matches(own) || matches(data) || matches(control) || matches(metrics);
  }
};

}  // namespace node
