// What a node is worth to a flow: the way through it against the direct way.
#pragma once

#include <optional>
#include <string>

#include "client/watch/flow.h"

namespace client {

struct Worth {
  enum class Basis { kUnknown, kTables, kMeasured };

  Basis basis = Basis::kUnknown;
  std::optional<uint32_t> direct;  // milliseconds, by the tables
  std::optional<uint32_t> taken;   // milliseconds, through the node
  std::optional<uint32_t> direct_lost;
  std::optional<double> taken_lost;
  bool direct_is_in_force = false;  // or that of the tables when the flow began
  std::string why;                  // what is missing, or where the figure comes from

  std::optional<int64_t> saves() const;  // below 0: the direct way would be faster
};

// The delay through a node is that of the probes to it and what the tables give from there to the
// game server, or that of the probes through two relays if that is more. Where nothing was
// measured, it is what the tables give, and says so. Nothing is estimated.
Worth WorthOf(const Stay& stay);

// The same with the delays of some of the probes in place of those of all.
std::optional<double> TakenDelay(std::optional<double> front, std::optional<double> back,
                                 const TableFigures& tables);

// "saves 37 ms", "costs 5 ms", "saves nothing", "unknown"; what stands in the tables alone in
// brackets.
std::string WorthWords(const Worth& worth);

}  // namespace client
