#include "client/check/toml_node.h"

namespace client {

unsigned LineOf(const toml::node& node) { return node.source().begin.line; }

const char* TypeName(const toml::node& node) {
  switch (node.type()) {
    case toml::node_type::string:
      return "a text";
    case toml::node_type::integer:
      return "a whole number";
    case toml::node_type::floating_point:
      return "a number with a fraction";
    case toml::node_type::boolean:
      return "true or false";
    case toml::node_type::array:
      return "a list";
    case toml::node_type::table:
      return "a table";
    default:
      return "a date or time";
  }
}

unsigned LineOfKey(const toml::table& root, const std::string& key) {
  for (std::string path = key; !path.empty();) {
    if (const toml::node* const node = toml::at_path(root, path).node()) return LineOf(*node);
    const size_t end = path.find_last_of(".[");
    path.resize(end == std::string::npos ? 0 : end);
  }
  return 0;
}

std::string EntryKey(const std::string& key, size_t index) {
  return key + "[" + std::to_string(index) + "]";
}

void AddError(Problems* problems, unsigned line, const std::string& key,
              const std::string& reason) {
  problems->push_back({Problem::Severity::kError, line, key, reason});
}

}  // namespace client
