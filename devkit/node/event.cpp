#include "node/event.h"

#include <nlohmann/json.hpp>

namespace node {
namespace {

const Value* Find(const Event& event, const std::string& key) {
  for (const auto& [name, value] : event.fields)
    if (name == key) return &value;
  return nullptr;
}

}  // namespace

Event& Event::With(const std::string& key, u64 value) {
  fields.emplace_back(key, value);
  return *this;
}

Event& Event::With(const std::string& key, const std::string& value) {
  fields.emplace_back(key, value);
  return *this;
}

u64 Event::Number(const std::string& key) const {
  const Value* const value = Find(*this, key);
  const u64* const number = value != nullptr ? std::get_if<u64>(value) : nullptr;
  return number != nullptr ? *number : 0;
}

std::string Event::Text(const std::string& key) const {
  const Value* const value = Find(*this, key);
  const std::string* const text = value != nullptr ? std::get_if<std::string>(value) : nullptr;
  return text != nullptr ? *text : "";
}

std::string Event::ToJson() const {
  nlohmann::ordered_json object = {{"event", name}};
  for (const auto& [key, value] : fields)
    std::visit([&, &at = key](const auto& held) { object[at] = held; }, value);
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::string Event::ToText() const {
  std::string line = name;
  for (const auto& [key, value] : fields) {
    line += " " + key + "=";
    if (const u64* const number = std::get_if<u64>(&value)) line += std::to_string(*number);
    if (const std::string* const text = std::get_if<std::string>(&value)) line += *text;
  }
  return line;
}

}  // namespace node
