#include "client/toml_text.h"

#include <cstdio>

#include "common/text.h"

namespace client {
namespace {

bool IsUtf8(const std::string& text) {
  std::wstring wide;
  return common::u8to16(text, &wide);
}

// The longest character at that place, or nothing.
size_t CharacterAt(const std::string& text, size_t at) {
  for (size_t size = 1; size <= 4 && at + size <= text.size(); ++size) {
    if (IsUtf8(text.substr(at, size))) return size;
  }
  return 0;
}

std::string OnlyUtf8(const std::string& text) {
  if (IsUtf8(text)) return text;
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const size_t size = CharacterAt(text, at);
    out += size != 0 ? text.substr(at, size) : "?";
    at += size != 0 ? size : 1;
  }
  return out;
}

}  // namespace

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
