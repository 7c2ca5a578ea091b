#include "client/text_rules.h"

#include <algorithm>
#include <charconv>

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

// Four decimal numbers. A leading zero is refused: the library's own reader takes it as octal.
bool IsAddress(const std::string& text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  for (int part = 0; part < 4; ++part) {
    if (part > 0 && (at == end || *at++ != '.')) return false;
    if (at == end || !IsDigit(*at)) return false;
    const char* const first = at;
    unsigned value = 0;
    const auto [stop, error] = std::from_chars(at, end, value);
    if (error != std::errc() || value > 255 || (*first == '0' && stop - first > 1)) return false;
    at = stop;
  }
  return at == end;
}

bool IsFullPath(const std::string& path) {
  const bool drive = path.size() > 3 && path[1] == ':' && path[2] == '\\';
  return drive || path.rfind("\\\\", 0) == 0;
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
      return IsAddress(text) ? "" : "'" + text + "' is no dotted IPv4 address";
    case Kind::kPath:
    case Kind::kDirectory:
      return text.empty() ? "is empty" : "";
    default:
      return "";
  }
}

std::string WhyDoubtful(const std::string& text, Kind kind) {
  if (kind == Kind::kPath) {
    if (text.find('/') != std::string::npos) {
      return "has a '/': a process's path has backslashes only, so this never matches";
    }
    if (!IsFullPath(text)) return "is no full path like C:\\games\\game.exe, so it never matches";
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

}  // namespace client
