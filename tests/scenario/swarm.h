// What the swarms share: the number of their worlds, their random draws, and the check that the
// relay has released everything.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

#include "port/sim/sockets.h"

namespace swarm_test {

// The number of worlds in a run; VYR_SWARM_SEEDS=5000 sets another one.
inline unsigned SwarmSeeds(unsigned usual) {
  const char* const wanted = std::getenv("VYR_SWARM_SEEDS");
  return wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : usual;
}

// A text with that beginning in which a misplaced byte can be detected.
inline std::string Noise(const std::string& begin, uint64_t seed, size_t size) {
  sim::Random random(seed);
  std::string text = begin;
  char number[24];  // printf is optimised, and the tests are not
  while (text.size() < size) {
    std::snprintf(number, sizeof number, "%llu ", static_cast<unsigned long long>(random.Next()));
    text += number;
  }
  text.resize(std::max(size, begin.size()));
  return text;
}

// The random draws of one world, decided by its seed, for a fixture with a game, two nodes and a
// game server.
template <class World>
class Swarm : public World {
 protected:
  uint64_t Below(uint64_t n) { return this->world.random().Below(n); }
  bool Chance(unsigned percent) { return Below(100) < percent; }
  sim::Duration Ms(uint64_t most) { return std::chrono::milliseconds(Below(most + 1)); }

  template <class T, size_t kCount>
  const T& Any(const T (&of)[kCount]) {
    return of[Below(kCount)];
  }

  // Sets each link to properties of its own from `draw`.
  void SetAllLinks(const std::function<sim::LinkOptions()>& draw) {
    sim::Host& home = this->world.home().host;
    for (sim::Host* host : {&this->a_host, &this->b_host, &this->server_host})
      this->world.SetLink(home, *host, draw());
    for (sim::Host* host : {&this->a_host, &this->b_host})
      this->world.SetLink(*host, this->server_host, draw());
  }
  sim::Host& AnyHost() {
    sim::Host* const hosts[] = {&this->a_host, &this->b_host, &this->server_host};
    return *Any(hosts);
  }

  // The number of open sockets of the game and its relay.
  size_t HomeSockets() const { return this->world.sockets().CountOf(this->world.home()); }
};

}  // namespace swarm_test
