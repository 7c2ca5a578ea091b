// Files, messages and JSON are UTF-8; Windows has wide text. Malformed text loses the malformed
// part.
#pragma once
#include <windows.h>

#include <string>
#include <string_view>

namespace setup {

inline std::string ToUtf8(std::wstring_view text) {
  const int size = static_cast<int>(text.size());
  if (size == 0) return {};
  const int needed =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(needed), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), size, out.data(), needed, nullptr, nullptr);
  return out;
}

inline std::wstring ToWide(std::string_view text) {
  const int size = static_cast<int>(text.size());
  if (size == 0) return {};
  const int needed = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
  std::wstring out(static_cast<size_t>(needed), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, out.data(), needed);
  return out;
}

}  // namespace setup
