// Why a destination is accelerated or not, found by asking the library's own route policy.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "client/check/problems.h"
#include "client/check/switch_advice.h"
#include "client/fields/tables.h"

namespace client {

struct Question {
  uint32_t ip = 0;    // network byte order
  uint16_t port = 0;  // host byte order
  bool udp = false;
  std::optional<uint32_t> vip_level;  // in place of the game's own
  std::string game;  // path, file name or game_id of the game that asks; empty: the first listed
};

// "198.51.100.10:8080" and "tcp" or "udp", in letters of any case. Nothing if they are not well
// formed.
std::optional<Question> ParseQuestion(const std::string& destination, const std::string& protocol);

struct Step {
  bool passed;
  std::string finding;  // "the address is known: data centre 1001, by record 2 of the IP table"
};

struct Way {
  std::string name;
  uint32_t proxy_idc = 0;
  std::string address;          // with the port
  uint32_t section1_delay = 0;  // milliseconds, as all delays here
  uint32_t section1_lost = 0;   // percent
  uint32_t section2_delay = 0;
  uint32_t section2_lost = 0;
  std::string decision;
  bool would_be_taken = false;  // candidates: the one that a switch would choose
};

struct Explanation {
  std::string problem;  // why the question has no answer; empty if it has one
  std::string destination;
  std::string protocol;
  std::string game_path;
  uint64_t game_id = 0;
  uint32_t vip_level = 0;
  uint32_t mended = 0;  // bits of MendingRecord
  bool accelerated = false;
  std::string conclusion;             // one clause
  std::vector<Step> steps;            // in the library's order, up to the one that decided
  std::optional<int32_t> acc_reason;  // none where no decision would report this
  bool is_reported = false;           // false: acc_reason is what a decision would have said
  std::string reason;                 // acc_reason in words
  std::optional<Way> node;            // what the route names, whatever the verdict
  uint32_t direct_delay = 0;
  uint32_t direct_lost = 0;
  std::vector<Way> candidates;
  std::string switching;  // about the candidates, or why there are none
  std::string source;     // the file of the warnings; empty: the tables in force
  Problems warnings;      // what keeps such flows from moving, or moves them without need
};

// Has the route policy of this process read these tables as a game would, and asks it. Of `advice`
// the answer has what matters for it. Replaces the configuration of this process.
Explanation Explain(const Tables& tables, const Question& question,
                    const std::vector<SwitchAdvice>& advice);

std::string ExplanationText(const Explanation& explanation);
std::string ExplanationJson(const Explanation& explanation);  // one line

}  // namespace client
