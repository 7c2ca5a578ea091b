#include "client/fields/text_rules.h"

#include <algorithm>
#include <charconv>

#include "common/text.h"

namespace client {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsDigits(const std::string& text) { return std::all_of(text.begin(), text.end(), IsDigit); }

// "26,2": no blanks, no empty entry; the reader splits at the commas and takes what it finds.
bool IsDigitList(const std::string& text) {
  if (text.empty()) return true;
  bool digit_before = false;
  for (const char c : text) {
    if (!IsDigit(c) && (c != ',' || !digit_before)) return false;
    digit_before = IsDigit(c);
  }
  return digit_before;
}

bool IsFullPath(const std::string& path) {
  const bool drive = path.size() > 3 && path[1] == ':' && path[2] == '\\';
  return drive || path.rfind("\\\\", 0) == 0;
}

bool IsUtf8(const std::string& text) {
  std::wstring wide;
  return common::u8to16(text, &wide);
}

// The length of the character at that place; 0 if there is no valid one.
size_t CharacterAt(const std::string& text, size_t at) {
  for (size_t size = 1; size <= 4 && at + size <= text.size(); ++size) {
    if (IsUtf8(text.substr(at, size))) return size;
  }
  return 0;
}

// No file's name holds a control character: it comes from a backslash in double quotes.
std::string WhyNoPath(const std::string& path) {
  const auto found = std::find_if(path.begin(), path.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  });
  if (found == path.end()) return "";
  const std::string what = *found == '\t'   ? "a TAB, which \\t is in double quotes"
                           : *found == '\n' ? "a line's end, which \\n is in double quotes"
                           : *found == '\b' ? "a backspace, which \\b is in double quotes"
                           : *found == '\f' ? "a form feed, which \\f is in double quotes"
                           : *found == '\r' ? "a carriage return, which \\r is in double quotes"
                                            : "a control character";
  return "holds " + what + ": write a path in single quotes, like 'C:\\games\\game.exe'";
}

}  // namespace

std::string WhyRefused(const std::string& text, Kind kind) {
  if (text.find('\0') != std::string::npos) return "holds a NUL, behind which nothing is read";
  switch (kind) {
    case Kind::kDigits:
      return IsDigits(text) ? "" : "'" + text + "' has other signs than digits";
    case Kind::kDigitList:
      return IsDigitList(text) ? "" : "'" + text + "' is no list of numbers like '26,2'";
    case Kind::kAddress:
      return ParseAddress(text) ? "" : "'" + text + "' is no dotted IPv4 address";
    case Kind::kPath:
    case Kind::kDirectory:
      return text.empty() ? "is empty" : WhyNoPath(text);
    default:
      return "";
  }
}

std::string WhyDoubtful(const std::string& text, Kind kind) {
  if (kind == Kind::kPath) {
    if (text.find('/') != std::string::npos) {
      return "has a '/': a process's path has backslashes only, so this never matches";
    }
    if (text.find_first_of("*?") != std::string::npos) {
      return "has a wildcard: paths are compared whole, so this never matches";
    }
    if (!IsFullPath(text)) return "is no full path like C:\\games\\game.exe, so it never matches";
    if (text.back() == '\\') return "names a folder, and not a program, so it never matches";
  }
  if (kind == Kind::kDirectory && text.find_first_of("*?\"<>|") != std::string::npos) {
    return "holds a sign that no folder's name can have, so no log is written";
  }
  if (kind == Kind::kDirectory && text.back() != '\\' && text.back() != '/') {
    return "does not end in a backslash: the log files go to the folder above";
  }
  return "";
}

std::optional<uint64_t> ParseNumber(const std::string& digits) {
  uint64_t number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [stop, error] = std::from_chars(digits.data(), end, number);
  if (error != std::errc() || stop != end) return std::nullopt;
  return number;
}

// A leading zero is refused: the library's own reader takes it as octal.
std::optional<uint32_t> ParseAddress(const std::string& text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  uint32_t address = 0;
  for (unsigned part = 0; part < 4; ++part) {
    if (part > 0 && (at == end || *at++ != '.')) return std::nullopt;
    if (at == end || !IsDigit(*at)) return std::nullopt;
    const char* const first = at;
    uint32_t value = 0;
    const auto [stop, error] = std::from_chars(at, end, value);
    if (error != std::errc() || value > 255 || (*first == '0' && stop - first > 1)) {
      return std::nullopt;
    }
    address |= value << (8 * part);
    at = stop;
  }
  return at == end ? std::optional(address) : std::nullopt;
}

std::optional<std::string> ParseHex(const std::string& digits) {
  if (digits.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (size_t i = 0; i < digits.size(); i += 2) {
    unsigned value = 0;
    const char* const at = digits.data() + i;
    const auto [stop, error] = std::from_chars(at, at + 2, value, 16);
    if (error != std::errc() || stop != at + 2) return std::nullopt;
    bytes += static_cast<char>(value);
  }
  return bytes;
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

std::string AddressText(uint32_t address) {
  std::string text;
  for (unsigned shift = 0; shift < 32; shift += 8) {
    if (!text.empty()) text += '.';
    text += std::to_string(address >> shift & 0xff);
  }
  return text;
}

std::string HexText(const char* bytes, size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  while (size > 0 && bytes[size - 1] == '\0') --size;
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    text += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return text;
}

}  // namespace client
