// What the worlds of random games, nodes and faults have in common: how many there are, what is
// drawn in them, and whether the relay has released everything.
#pragma once
#include "tests/scenario/sim_sockets.h"
//
#include <algorithm>
#include <cstdlib>
#include <functional>
#include <string>

#include "port/sim/sockets.h"

namespace swarm_test {

// How many worlds a run takes; VYR_SWARM_SEEDS=5000 asks for that many.
inline unsigned SwarmSeeds(unsigned usual) {
  const char* const wanted = std::getenv("VYR_SWARM_SEEDS");
  return wanted != nullptr ? static_cast<unsigned>(std::strtoul(wanted, nullptr, 10)) : usual;
}

// Behind its beginning, text in which bytes of any other place would show.
inline std::string Noise(const std::string& begin, uint64_t seed, size_t size) {
  sim::Random random(seed);
  std::string text = begin;
  while (text.size() < size) text += std::to_string(random.Next()) + ' ';
  text.resize(std::max(size, begin.size()));
  return text;
}

// The draws of one world, which its seed decides, in a fixture that has a game, two nodes and a
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

  // Every link there is, each as drawn for it.
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

  // What the game and its relay have open.
  size_t HomeSockets() const { return this->world.sockets().CountOf(this->world.home()); }
};

}  // namespace swarm_test
