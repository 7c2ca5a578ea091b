#include <nlohmann/json.hpp>

#include "client/check/toml.h"
#include "client/dump/dump.h"

namespace client {
namespace {

nlohmann::json ToJson(const toml::node& node) {
  if (const toml::table* const table = node.as_table()) {
    nlohmann::json object = nlohmann::json::object();
    for (const auto& [key, value] : *table) object[std::string(key.str())] = ToJson(value);
    return object;
  }
  if (const toml::array* const array = node.as_array()) {
    nlohmann::json list = nlohmann::json::array();
    for (const toml::node& value : *array) list.push_back(ToJson(value));
    return list;
  }
  if (const auto number = node.value_exact<int64_t>()) return *number;
  return node.value_or(std::string());
}

}  // namespace

std::string DumpJson(const Tables& tables) {
  const std::string text = DumpToml(tables);
  const toml::parse_result parsed = toml::parse(text);
  return parsed ? ToJson(parsed.table()).dump(2) + "\n" : "{}\n";
}

}  // namespace client
