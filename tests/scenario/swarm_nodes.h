// What the nodes of random worlds do to streams. The caller draws which of these ways it is, from a
// number that is larger than there are ways: the rest stands for nodes that behave.
#pragma once
#include <cstdint>

#include "node/behaviour.h"
#include "port/sim/random.h"

namespace swarm_test {

inline std::int64_t Less(sim::Random* random, uint64_t n) {
  return static_cast<std::int64_t>(random->Below(n));
}

// Ways to spoil the answer to a request.
inline constexpr uint64_t kWrongLength = 6;
inline constexpr uint64_t kWaysToAnswer = 11;

// Not 11 to 40: the rest of such an answer would be the stream's first bytes.
inline std::int64_t WrongLength(sim::Random* random, bool is_short) {
  return is_short ? Less(random, 11) : 42 + Less(random, 100);
}

// All but kWrongLength.
inline void SpoilAnswer(uint64_t way, sim::Random* random, node::Behaviour* it) {
  using node::Behaviour;
  switch (way) {
    case 0:
      it->on_request = Behaviour::kSilent;
      break;
    case 1:
      it->on_request = Behaviour::kCloseThen;
      break;
    case 2:
      it->on_request = Behaviour::kResetThen;
      break;
    case 3:
      it->on_request = Behaviour::kGarbage;
      it->garbage_bytes = 1 + Less(random, 100);
      break;
    case 4:
      it->result = 1 + Less(random, 255);
      break;
    case 5:
      it->isp = Less(random, 4);
      break;
    case 7:
      it->split_bytes = 1 + Less(random, 40);
      it->split_gap_ms = Less(random, 50);
      break;
    case 8:
      it->server = random->Below(2) == 0 ? Behaviour::kRefuse : Behaviour::kHang;
      break;
    case 9:
      it->answer_version = 1 + Less(random, 3);
      break;
    case 10:
      it->on_accept = Behaviour::kMute;
      break;
    default:
      break;
  }
}

// Ways to break connections.
inline constexpr uint64_t kWaysToBreak = 4;

inline void BreakConnections(uint64_t way, sim::Random* random, node::Behaviour* it) {
  using node::Behaviour;
  switch (way) {
    case 0:
      it->on_accept = Behaviour::kClose;
      break;
    case 1:
      it->on_accept = Behaviour::kReset;
      break;
    case 2:
      it->reset_after_bytes = Less(random, 100'000);
      break;
    case 3:
      it->freeze = 1;
      break;
    default:
      break;
  }
}

// Some nodes answer before they have reached the server, and some are slow.
inline void HurryOrDelay(sim::Random* random, node::Behaviour* it) {
  const bool reaches_server = it->server == node::Behaviour::kConnect;
  if (reaches_server && random->Below(100) < 20) it->answer_when = node::Behaviour::kAtOnce;
  if (random->Below(100) < 20) it->delay_to_server_ms = Less(random, 200);
  if (random->Below(100) < 20) it->delay_to_client_ms = Less(random, 200);
}

}  // namespace swarm_test
