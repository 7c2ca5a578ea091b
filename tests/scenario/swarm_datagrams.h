// The datagrams of a swarm: each begins with a number of its own, and the server's answer names
// both the datagram and the server.
#pragma once
#include "tests/scenario/swarm.h"
//
#include <cstdio>
#include <vector>

namespace swarm_test {

inline constexpr size_t kIdSize = 6;

inline std::string IdText(size_t id) {
  char text[24];
  std::snprintf(text, sizeof text, "%06zu", id);
  return text;
}
inline size_t IdOf(const std::string& text, size_t at) {
  return static_cast<size_t>(std::strtoul(text.substr(at, kIdSize).c_str(), nullptr, 10));
}

inline std::string AnswerTo(const std::string& text, const std::string& server) {
  const size_t id = IdOf(text, 0);
  return Noise("R" + text.substr(0, kIdSize) + "@" + server + "|", id,
               id % 7 == 0 ? text.size() : 30 + id % 90);
}

// Counts what the server has received. Null, and a failure, if nobody has sent it.
template <class Said>
Said* CountArrival(const std::string& text, std::vector<Said>* said) {
  const size_t id = text.size() < kIdSize ? said->size() : IdOf(text, 0);
  if (id >= said->size()) {
    ADD_FAILURE() << "the server has received what was never sent: " << text.substr(0, 60);
    return nullptr;
  }
  Said& one = (*said)[id];
  ++one.arrived;
  EXPECT_TRUE(text == one.text) << "changed: " << text.substr(0, 60);
  return &one;
}

}  // namespace swarm_test
