#include "text.h"

#include <windows.h>

#include <cstdio>

namespace vyr_run {

std::string ToUtf8(const std::wstring& text) {
  const int length = static_cast<int>(text.size());
  const int bytes =
      WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, result.data(), bytes, nullptr, nullptr);
  return result;
}

void Complain(const std::wstring& text) {
  std::fprintf(stderr, "vyr_run: %s\n", ToUtf8(text).c_str());
}

std::wstring ErrorText(unsigned long code) {
  wchar_t text[512] = L"";
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                code, 0, text, 512, nullptr);
  while (length > 0 && text[length - 1] <= L' ') text[--length] = 0;
  return std::wstring(text) + L" (" + std::to_wstring(code) + L")";
}

}  // namespace vyr_run
