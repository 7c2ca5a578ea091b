#include "node/control_command.h"

#include <nlohmann/json.hpp>
#include <optional>

namespace node {
namespace {

using Json = nlohmann::ordered_json;

Json Refusal(const std::string& reason) { return {{"ok", false}, {"error", reason}}; }

Json ToJson(const Behaviour& behaviour) {
  Json object;
  for (const BehaviourField& field : BehaviourFields()) {
    const std::int64_t value = behaviour.*field.member;
    const std::string word = field.WordFor(value);
    if (word.empty()) {
      object[field.name] = value;
    } else {
      object[field.name] = word;
    }
  }
  return object;
}

std::optional<std::int64_t> ValueOf(const BehaviourField& field, const Json& json) {
  std::int64_t value = 0;
  if (json.is_string()) {
    if (!field.Parse(json.get<std::string>(), &value)) return std::nullopt;
    return value;
  }
  if (!json.is_number_integer()) return std::nullopt;
  if (json.is_number_unsigned() && json.get<std::uint64_t>() > INT64_MAX) return std::nullopt;
  value = json.get<std::int64_t>();
  return field.Allows(value) ? std::optional(value) : std::nullopt;
}

// All of it or nothing.
Json Set(const Json& command, const ControlTarget& target) {
  Behaviour changed = *target.behaviour;
  for (const auto& [key, json] : command.items()) {
    if (key == "command") continue;
    const BehaviourField* const field = FindBehaviourField(key);
    if (field == nullptr) return Refusal("'" + key + "' is no behaviour");
    const std::optional<std::int64_t> value = ValueOf(*field, json);
    if (!value) return Refusal("'" + key + "' must be " + field->Range());
    changed.*(field->member) = *value;
  }
  *target.behaviour = changed;
  return {{"ok", true}};
}

Json List(const char* what, const std::vector<Event>& events) {
  Json list = Json::array();
  for (const Event& event : events) {
    Json one = Json::parse(event.ToJson());
    one.erase("event");
    list.push_back(one);
  }
  return {{"ok", true}, {what, list}};
}

Json Run(const Json& command, const ControlTarget& target) {
  if (!command.is_object() || !command.contains("command") || !command["command"].is_string())
    return Refusal("not a JSON object with a \"command\"");
  const std::string name = command["command"].get<std::string>();
  if (name == "set") return Set(command, target);
  if (command.size() != 1) return Refusal("'" + name + "' takes nothing more");
  if (name == "get") return {{"ok", true}, {"behaviour", ToJson(*target.behaviour)}};
  if (name == "connections") return List("connections", target.connections());
  if (name == "flows") return List("flows", target.flows());
  if (name == "restore") {
    *target.behaviour = target.initial;
  } else if (name == "close" || name == "reset") {
    return {{"ok", true}, {"connections", target.close_all(name == "reset")}};
  } else if (name == "forget") {
    return {{"ok", true}, {"flows", target.forget_flows()}};
  } else if (name == "stop") {
    target.stop();
  } else {
    return Refusal(
        "no command '" + name +
        "': there are set, get, restore, connections, close, reset, flows, forget, stop");
  }
  return {{"ok", true}};
}

}  // namespace

std::string RunCommand(const std::string& line, const ControlTarget& target) {
  const Json command = Json::parse(line, nullptr, false);
  const Json reply = command.is_discarded() ? Refusal("not JSON") : Run(command, target);
  return reply.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace node
