// Faults that only a simulated world can inject. A counter counts down to the call that it affects;
// 0 means off.
#pragma once
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "port/sim/sim.h"

namespace sim {

struct ViewWatch {
  const Process* process;  // null: any
  std::string mapping;
  ViewLook look;
};

struct Faults {
  struct Countdown {
    unsigned left = 0;
    bool Hit() { return left > 0 && --left == 0; }
  };
  Countdown short_send;
  size_t short_send_bytes = 0;
  Countdown lost_set_event;
  Countdown thread_start;
  DWORD thread_start_error = 0;
  std::vector<std::pair<Process*, std::string>> kill_when_it_holds;
  struct CallAction {
    unsigned nth;
    std::function<void()> action;
  };
  std::map<std::string, CallAction> at_call;             // of threads that have not started yet
  std::vector<std::unique_ptr<ViewWatch>> view_watches;  // threads that are watched point to them
};

}  // namespace sim
