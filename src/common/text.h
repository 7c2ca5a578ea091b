// Text is UTF-8 everywhere in the library. Wide strings exist only at the platform's wide calls,
// and only these functions convert between the two: a wide string holds UTF-16 on Windows.
#pragma once
#include <cstddef>
#include <string>
#include <string_view>

#include "common/log.h"

namespace common {

// Both convert the whole of `in`, embedded zeros included. A malformed sequence gives false and
// leaves *out empty; empty text gives empty text and true. They may throw std::bad_alloc.
bool u8to16(const std::string& in, std::wstring* out);
bool u16to8(const std::wstring& in, std::string* out);

// Formats into a short fixed buffer. The number of bytes without the terminator, or -1 if the
// text did not fit or could not be formatted; the buffer is terminated in every case.
inline constexpr std::size_t kBoundedTextSize = 128;
int FormatBounded(char (&buffer)[kBoundedTextSize], const char* format, ...) noexcept
    VYR_PRINTF(2, 3);

// Compares whole strings and folds the 26 ASCII letters and nothing else, so that the result does
// not depend on the locale that the host has set.
bool EqualsIgnoreCase(std::string_view a, std::string_view b) noexcept;
bool EndsWithIgnoreCase(std::string_view text, std::string_view end) noexcept;

// The content of a fixed text field: everything before its first zero, or the whole field if there
// is none (fields that another process wrote need not be terminated).
template <std::size_t N>
std::string_view FieldText(const char (&field)[N]) noexcept {
  const std::string_view whole(field, N);
  return whole.substr(0, whole.find('\0'));
}

// Copies as much of `text` as the field holds and terminates it; the rest of the field is zero.
template <std::size_t N>
void SetFieldText(char (&field)[N], std::string_view text) noexcept {
  const std::size_t size = text.size() < N ? text.size() : N - 1;
  text.copy(field, size);
  for (std::size_t i = size; i < N; ++i) field[i] = '\0';
}

}  // namespace common
