// Tells running games that the spur list has changed.
#pragma once

#include <map>
#include <set>
#include <vector>

#include "client/fields/tables.h"
#include "common/handle.h"

namespace client {

// Processes whose program is one of the listed games' paths. Empty if the platform cannot say.
std::set<unsigned long> RunningGames(const Tables& tables);

// One thread.
class SpurNotifier {
 public:
  // Signals the event of each process. A game makes its event only at its first look, up to half a
  // minute after its start, so the event is made here where it is missing, and kept: a signal that
  // nobody waits for yet must not be lost. Events of processes that are no longer named are closed.
  // Returns how many were signalled.
  size_t Notify(const std::set<unsigned long>& pids);

 private:
  std::map<unsigned long, common::UniqueHandle> events_;
};

}  // namespace client
