// One line of the control port: a JSON object with a "command", answered by one with "ok". Anyone
// who can reach the port can send lines; a line that is not a valid command is refused as a whole.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "node/behaviour.h"
#include "node/event.h"

namespace node {

// What commands act on.
struct ControlTarget {
  Behaviour* behaviour = nullptr;
  Behaviour initial = {};  // what "restore" restores
  std::function<std::vector<Event>()> connections = {};
  std::function<u64(bool reset)> close_all = {};  // returns how many there were
  std::function<std::vector<Event>()> flows = {};
  std::function<u64()> forget_flows = {};  // returns how many there were
  std::function<void()> stop = {};
};

// The reply, one line without its end.
std::string RunCommand(const std::string& line, const ControlTarget& target);

}  // namespace node
