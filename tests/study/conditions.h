// What happens to the player's link, and the settings with which the library watches it.
#pragma once
#include <string>
#include <vector>

#include "abi/acc_config_formats.h"
#include "port/sim/sim.h"

namespace study {

// The player's way to a node, each way: 10 ms, a swing of 3 ms, and this share lost.
sim::LinkOptions HealthyLink(double loss);

// Shares of 1 that a link without trouble loses.
struct Losses {
  double up = 0, down = 0;
};

struct Trouble {
  const char* name;
  const char* words;
  bool node_down = false;
  double loss_up = 0, loss_down = 0;
  int delay_ms = 0;      // more, over both ways
  int jitter_ms = 0;     // up to so much more, each way
  bool at_both = false;  // affects the other node's path as well

  sim::LinkOptions Up() const { return Link(loss_up); }
  sim::LinkOptions Down() const { return Link(loss_down); }

 private:
  sim::LinkOptions Link(double loss) const;
};
const std::vector<Trouble>& Troubles();

struct Settings {
  const char* name;
  const char* words;
  void (*apply)(moru_vyr::lsp::AccConfigRecord*);
  // The minimum that they configure.
  int burst_ms, trial_ms;
  common::u32 mended = 0;  // bits of MendingRecord::mended
};
const std::vector<Settings>& AllSettings();

// Null: none has the name.
template <class Condition>
const Condition* Find(const std::vector<Condition>& all, const std::string& name) {
  for (const Condition& one : all) {
    if (name == one.name) return &one;
  }
  return nullptr;
}

}  // namespace study
