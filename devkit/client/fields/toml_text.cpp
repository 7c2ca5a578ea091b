#include "client/fields/toml_text.h"

#include <cstdio>

#include "client/fields/text_rules.h"

namespace client {

std::string QuoteToml(const std::string& raw) {
  const std::string text = OnlyUtf8(raw);
  const bool literal = text.find_first_of("'\x7f") == std::string::npos &&
                       text.find_first_of("\n\r\t\b\f") == std::string::npos;
  if (literal) return "'" + text + "'";
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += {'\\', c};
    } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04X", static_cast<unsigned>(c));
      quoted += escape;
    } else {
      quoted += c;
    }
  }
  return quoted + "\"";
}

}  // namespace client
