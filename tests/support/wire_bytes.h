// The protocol's bytes in readable notation, for tests and their failure messages.
#pragma once
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "common/types.h"

namespace test {

using Bytes = std::vector<common::u8>;

// Copies a field of a packed record for an expectation. Expectations take references, which cannot
// refer to a packed field.
template <class T>
T Value(T field) {
  return field;
}

// Bytes from pairs of hexadecimal digits, with any white space between them.
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
