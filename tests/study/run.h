// One run: a game that plays through node A, and its outcome.
#pragma once
#include <cstdint>
#include <string>

#include "tests/study/conditions.h"

namespace study {

// Milliseconds from the start of the trouble; below 0: it did not happen.
struct Outcome {
  std::string failure;  // empty: the run came to its end
  int noticed = -1;     // the first burst of probes was asked for
  int fired = -1;       // the judge asked for a switch
  int answered = -1;    // the other node answered its request
  int verified = -1;    // … and passed
  int over_b = -1;      // the first of the game's datagrams came over it
  int played = -1;      // the game has the answer to one that went over it
  int trials = 0;
  int before = 0;                            // trials before the trouble began
  int later_trials = 0, later_switches = 0;  // in the time afterwards that was asked for
};
// How long things take, in seconds.
struct Spans {
  int before = 15;     // of healthy play
  int limit = 60;      // after which a run has not switched
  int afterwards = 0;  // once it has, with the trouble as it is
};
Outcome RunTrouble(uint64_t seed, const Trouble& trouble, const Settings& settings,
                   const Spans& spans);

struct Health {
  std::string failure;
  double flow_hours = 0;
  int bursts = 0, trials = 0, switches = 0;
  int probes = 0;       // of RunLinks
  int flows_moved = 0;  // at least once: the effects of a move can cause further ones
};
// That many flows at once, each through A, for that long.
Health RunHealthy(uint64_t seed, const Losses& losses, const Settings& settings, int flows,
                  int minutes);

// The same of links on their own; see links.h.
Health RunLinks(uint64_t seed, const Losses& losses, const Settings& settings, int links,
                int minutes);

}  // namespace study
