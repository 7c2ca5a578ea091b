// What a node reports: one record for each thing that happened.
#pragma once
#include <functional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "node/socket.h"

namespace node {

using Value = std::variant<u64, std::string>;

struct Event {
  std::string name;
  std::vector<std::pair<std::string, Value>> fields = {};

  Event& With(const std::string& key, u64 value);
  Event& With(const std::string& key, const std::string& value);

  // 0 or "" if the event has no such field of that kind.
  u64 Number(const std::string& key) const;
  std::string Text(const std::string& key) const;

  // One line without its end: a JSON object with the name as "event", or NAME KEY=VALUE ….
  std::string ToJson() const;
  std::string ToText() const;
};

using EventSink = std::function<void(const Event&)>;

}  // namespace node
