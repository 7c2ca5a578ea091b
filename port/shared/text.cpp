#include "port/shared/text.h"

#include <windows.h>

#include <optional>

#include "port/shared/faults.h"

namespace port {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Code page 1252 between 0x80 and 0x9f; its five unused bytes are control characters.
constexpr char32_t kAnsiHigh[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                    0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                    0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                    0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

bool IsCharacter(char32_t c) { return c < 0xD800 || (c > 0xDFFF && c <= 0x10FFFF); }

void AppendUtf8(char32_t c, std::string* out) {
  auto put = [out](char32_t byte) { out->push_back(static_cast<char>(byte)); };
  if (c < 0x80) return put(c);
  if (c < 0x800) {
    put(0xC0 | c >> 6);
  } else if (c < 0x10000) {
    put(0xE0 | c >> 12);
    put(0x80 | (c >> 6 & 0x3F));
  } else {
    put(0xF0 | c >> 18);
    put(0x80 | (c >> 12 & 0x3F));
    put(0x80 | (c >> 6 & 0x3F));
  }
  put(0x80 | (c & 0x3F));
}

// Reads the character at *at and advances past it. For a malformed sequence the result is empty,
// and its longest well-formed beginning is skipped, as on Windows.
std::optional<char32_t> NextUtf8(const std::string& text, size_t* at) {
  auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte((*at)++);
  if (lead < 0x80) return lead;
  const int more = lead >= 0xC2 && lead <= 0xDF   ? 1
                   : lead >= 0xE0 && lead <= 0xEF ? 2
                   : lead >= 0xF0 && lead <= 0xF4 ? 3
                                                  : 0;
  if (more == 0) return std::nullopt;
  char32_t c = lead & (0x3Fu >> more);
  for (int i = 0; i < more; ++i) {
    if (*at >= text.size()) return std::nullopt;
    unsigned char low = 0x80, high = 0xBF;
    if (i == 0) {
      if (lead == 0xE0) low = 0xA0;   // overlong
      if (lead == 0xED) high = 0x9F;  // surrogates
      if (lead == 0xF0) low = 0x90;   // overlong
      if (lead == 0xF4) high = 0x8F;  // beyond U+10FFFF
    }
    if (byte(*at) < low || byte(*at) > high) return std::nullopt;
    c = c << 6 | (byte((*at)++) & 0x3Fu);
  }
  return c;
}

std::wstring FromUtf8(const std::string& text, bool* malformed) {
  std::wstring out;
  for (size_t at = 0; at < text.size();) {
    auto c = NextUtf8(text, &at);
    if (!c) *malformed = true;
    out.push_back(static_cast<wchar_t>(c.value_or(kReplacement)));
  }
  return out;
}

std::string ToUtf8(const std::wstring& text, bool* malformed) {
  std::string out;
  for (wchar_t unit : text) {
    char32_t c = static_cast<char32_t>(unit);
    if (!IsCharacter(c)) {
      *malformed = true;
      c = kReplacement;
    }
    AppendUtf8(c, &out);
  }
  return out;
}

std::string ToAnsi(const std::wstring& text, const char* replacement, bool* replaced) {
  std::string out;
  for (wchar_t unit : text) {
    const char32_t c = static_cast<char32_t>(unit);
    if (c < 0x80 || (c >= 0xA0 && c <= 0xFF)) {
      out.push_back(static_cast<char>(c));
      continue;
    }
    const auto* high = std::find(std::begin(kAnsiHigh), std::end(kAnsiHigh), c);
    if (high != std::end(kAnsiHigh)) {
      out.push_back(static_cast<char>(0x80 + (high - std::begin(kAnsiHigh))));
      continue;
    }
    *replaced = true;
    out.push_back(replacement ? *replacement : '?');
  }
  return out;
}

// Common to both directions: with `size` 0, returns the length; a buffer that is too small is an
// error.
template <class Char, class Text>
int Deliver(const Text& text, Char* out, int size) {
  const int length = static_cast<int>(text.size());
  if (size == 0) return length;
  if (length > size) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::copy(text.begin(), text.end(), out);
  return length;
}

}  // namespace

std::wstring Wide(const std::string& utf8) {
  bool malformed = false;
  return FromUtf8(utf8, &malformed);
}

std::string Utf8(const std::wstring& wide) {
  bool malformed = false;
  return ToUtf8(wide, &malformed);
}

std::wstring WideFromAnsi(const std::string& text) {
  std::wstring out;
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const char32_t wide = byte >= 0x80 && byte < 0xA0 ? kAnsiHigh[byte - 0x80] : byte;
    out.push_back(static_cast<wchar_t>(wide));
  }
  return out;
}

bool SameName(const std::wstring& a, const std::wstring& b) {
  auto fold = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? c + (L'a' - L'A') : c; };
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [&](wchar_t x, wchar_t y) { return fold(x) == fold(y); });
}

}  // namespace port

int WINAPI WideCharToMultiByte(UINT code_page, DWORD flags, LPCWSTR in, int in_size, LPSTR out,
                               int out_size, LPCSTR default_char, LPBOOL used_default) {
  if (port::Fails("WideCharToMultiByte")) return 0;
  const bool utf8 = code_page == CP_UTF8;
  const bool defaults = default_char || used_default;
  if (!in || in_size == 0 || out_size < 0 || (out_size > 0 && !out) || in_size < -1 ||
      (!utf8 && code_page != CP_ACP && code_page != 1252) || (utf8 && defaults)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const std::wstring text(in, in_size < 0 ? std::wcslen(in) + 1 : static_cast<size_t>(in_size));
  bool lossy = false;
  const std::string bytes =
      utf8 ? port::ToUtf8(text, &lossy) : port::ToAnsi(text, default_char, &lossy);
  if (utf8 && lossy && (flags & WC_ERR_INVALID_CHARS)) {
    SetLastError(ERROR_NO_UNICODE_TRANSLATION);
    return 0;
  }
  if (used_default) *used_default = lossy;
  return port::Deliver(bytes, out, out_size);
}

int WINAPI MultiByteToWideChar(UINT code_page, DWORD flags, LPCSTR in, int in_size, LPWSTR out,
                               int out_size) {
  if (port::Fails("MultiByteToWideChar")) return 0;
  const bool utf8 = code_page == CP_UTF8;
  if (!in || in_size == 0 || out_size < 0 || (out_size > 0 && !out) || in_size < -1 ||
      (!utf8 && code_page != CP_ACP && code_page != 1252)) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  const std::string bytes(in, in_size < 0 ? std::strlen(in) + 1 : static_cast<size_t>(in_size));
  bool malformed = false;
  const std::wstring text = utf8 ? port::FromUtf8(bytes, &malformed) : port::WideFromAnsi(bytes);
  if (malformed && (flags & MB_ERR_INVALID_CHARS)) {
    SetLastError(ERROR_NO_UNICODE_TRANSLATION);
    return 0;
  }
  return port::Deliver(text, out, out_size);
}
