#include "common/text.h"

#include <winsock2.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <limits>

namespace common {
namespace {

constexpr std::size_t kMaxConverted = std::numeric_limits<int>::max();

char FoldCase(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// `convert` is the platform's: without a buffer it returns the size that is needed.
template <class From, class To, class Convert>
bool ConvertWhole(const From& in, To* out, Convert convert) {
  out->clear();
  if (in.empty()) return true;
  if (in.size() > kMaxConverted) return false;
  const int in_size = static_cast<int>(in.size());
  const int size = convert(in.data(), in_size, nullptr, 0);
  if (size <= 0) return false;
  out->resize(static_cast<std::size_t>(size));
  if (convert(in.data(), in_size, out->data(), size) == size) return true;
  out->clear();
  return false;
}

}  // namespace

bool u8to16(const std::string& in, std::wstring* out) {
  return ConvertWhole(in, out, [](const char* from, int from_size, wchar_t* to, int to_size) {
    return MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, from, from_size, to, to_size);
  });
}

bool u16to8(const std::wstring& in, std::string* out) {
  return ConvertWhole(in, out, [](const wchar_t* from, int from_size, char* to, int to_size) {
    return WideCharToMultiByte(CP_UTF8, WC_ERR_INVALID_CHARS, from, from_size, to, to_size, nullptr,
                               nullptr);
  });
}

int FormatBounded(char (&buffer)[kBoundedTextSize], const char* format, ...) noexcept {
  va_list arguments;
  va_start(arguments, format);
  const int size = std::vsnprintf(buffer, kBoundedTextSize, format, arguments);
  va_end(arguments);
  buffer[kBoundedTextSize - 1] = '\0';
  return size >= 0 && static_cast<std::size_t>(size) < kBoundedTextSize ? size : -1;
}

bool EqualsIgnoreCase(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return FoldCase(x) == FoldCase(y); });
}

bool EndsWithIgnoreCase(std::string_view text, std::string_view end) noexcept {
  return text.size() >= end.size() && EqualsIgnoreCase(text.substr(text.size() - end.size()), end);
}

}  // namespace common
