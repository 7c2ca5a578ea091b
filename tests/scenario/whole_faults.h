// Everything that goes wrong in one world, as a list that the seed alone decides: what happens,
// when and how. A world may be run with a part of its list, so a failure can be reduced to the
// faults that it needs.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "tests/scenario/whole_course.h"
#include "tests/support/shrink.h"

namespace whole_test {

enum class FaultKind {
  kFailCall,       // a = which call, b = the how many-th from then on, c = which error
  kShortSend,      // a = the how many-th send, b = bytes
  kLoseEvent,      // a = the how many-th SetEvent
  kFailThread,     // the next thread cannot be created
  kStallWorker,    // a = milliseconds
  kStallReporter,  // a = milliseconds
  kNodeBehaves,    // a = which node, b = decides how
  kNodeDies,       // a = which node, b = milliseconds until it is started again
  kLink,           // a = to which host, b = decides how
  kTables,         // the client program writes others; a decides which
  kClientHolds,    // a = which mutex, b = milliseconds
  kClientDies,     // a = which mutex: while it holds it
  kGameThread,     // one of the game's threads is ended; a = which, b = at which of its calls
  kWorkerEnds,     // the worker is ended; a = at which of its calls
  kReporterEnds,   // the same for the reporting thread
  kTickWraps,      // the moment at which GetTickCount begins again at 0
};
inline constexpr int kFaultKinds = 16;

struct Fault {
  FaultKind kind = FaultKind::kFailCall;
  uint32_t at_ms = 0;  // since the play began
  uint64_t a = 0, b = 0, c = 0;

  std::string Text() const;  // "12.500 s: the worker stands still for 300 ms"
};
using FaultList = std::vector<Fault>;

inline constexpr size_t kNodes = 3;
inline constexpr size_t kMutexes = 7;

// The call that a kFailCall meets, and its error.
const char* CallOf(const Fault& fault);
uint32_t ErrorOfCall(const Fault& fault);

// A long course has some in each busy stretch, and nodes that die in the quiet ones.
FaultList DrawFaults(uint64_t seed, const Course& course);

// VYR_SWARM_FAULTS=2,5 keeps these faults of the list, VYR_SWARM_FAULTS=none not one. Without it,
// all.
test::Kept KeptFaults(const FaultList& all);
std::string TextOf(const test::Kept& kept);

}  // namespace whole_test
