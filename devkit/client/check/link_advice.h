// Advice on a game's own settings for measuring links and moving flows.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "abi/acc_config_formats.h"

namespace client {

struct Advice {
  std::string key;  // of the game's record if of_game is set, else of the whole file
  std::string reason;
  bool of_game = true;
};

// A worker looks at its timers about that often at worst, so that a probe leaves up to so much
// later than its interval says.
inline constexpr uint32_t kLongestPassMs = 50;

// How many probes the verdict on a node on trial rests on at most: the first of a burst is the base
// that the others count from, and those before the range are forgotten.
uint64_t TrialProbes(const moru_vyr::lsp::AccConfigRecord& game);

// Settings that prevent every move, whatever is measured.
void AdviseOnGates(const moru_vyr::lsp::AccConfigRecord& game, std::vector<Advice>* found);

// Settings that hide trouble from the measurement, or make it report trouble where there is none.
void AdviseOnMeasuring(const moru_vyr::lsp::AccConfigRecord& game, std::vector<Advice>* found);

}  // namespace client
