// Bytes of the protocol in readable notation, for tests and for their failure messages.
#pragma once
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "common/types.h"

namespace test {

using Bytes = std::vector<common::u8>;

// A field of a packed record, for an expectation: those take references, and a packed field has no
// address that a reference may have.
template <class T>
T Value(T field) {
  return field;
}

// From pairs of hexadecimal digits with any space between them.
inline Bytes Hex(const std::string& text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c)) == 0) continue;
    digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<common::u8>(std::stoul(digits, nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

inline std::string ToHex(const void* data, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", static_cast<const unsigned char*>(data)[i]);
    if (i != 0) text += ' ';
    text += digits;
  }
  return text;
}
inline std::string ToHex(const Bytes& bytes) { return ToHex(bytes.data(), bytes.size()); }

}  // namespace test
