#include "text.h"

#include <windows.h>

#include <cstdio>

namespace vyr_run {
namespace {

constexpr UINT kLogCodePage = 936;

// Empty if the text is not valid and `flags` ask for that.
std::wstring Widen(const std::string& text, UINT code_page, DWORD flags) {
  const int length = static_cast<int>(text.size());
  const int size = MultiByteToWideChar(code_page, flags, text.c_str(), length, nullptr, 0);
  std::wstring result(static_cast<size_t>(size), L'\0');
  MultiByteToWideChar(code_page, flags, text.c_str(), length, result.data(), size);
  return result;
}

}  // namespace

std::string ToUtf8(const std::wstring& text) {
  const int length = static_cast<int>(text.size());
  const int bytes =
      WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, nullptr, 0, nullptr, nullptr);
  std::string result(static_cast<size_t>(bytes), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.c_str(), length, result.data(), bytes, nullptr, nullptr);
  return result;
}

std::wstring FromUtf8(const std::string& text) { return Widen(text, CP_UTF8, 0); }

std::wstring FromLog(const std::string& line) {
  const std::wstring text = Widen(line, CP_UTF8, MB_ERR_INVALID_CHARS);
  return text.empty() ? Widen(line, kLogCodePage, 0) : text;
}

void PrintError(const std::wstring& text) {
  const HANDLE output = GetStdHandle(STD_ERROR_HANDLE);
  DWORD mode = 0;
  if (GetConsoleMode(output, &mode) == 0) {
    std::fprintf(stderr, "%s\n", ToUtf8(text).c_str());
    return;
  }
  const std::wstring line = text + L"\r\n";
  DWORD written = 0;
  WriteConsoleW(output, line.c_str(), static_cast<DWORD>(line.size()), &written, nullptr);
}

void Complain(const std::wstring& text) { PrintError(L"vyr_run: " + text); }

std::wstring ErrorText(unsigned long code) {
  wchar_t text[512] = L"";
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                code, 0, text, 512, nullptr);
  while (length > 0 && text[length - 1] <= L' ') text[--length] = 0;
  return std::wstring(text) + L" (" + std::to_wstring(code) + L")";
}

}  // namespace vyr_run
