#include "client/console.h"

#ifdef _WIN32
#include <winsock2.h>
//
#include <windows.h>
//
#include <shellapi.h>

#include <cstdio>

#include "common/text.h"
#endif

namespace client {

#ifdef _WIN32
namespace {

bool IsConsole(DWORD stream) {
  DWORD mode = 0;
  return GetConsoleMode(GetStdHandle(stream), &mode) != 0;
}

}  // namespace

Console::Console() {
  if (!IsConsole(STD_OUTPUT_HANDLE) && !IsConsole(STD_ERROR_HANDLE)) return;
  former_code_page_ = GetConsoleOutputCP();
  SetConsoleOutputCP(CP_UTF8);
  // Unbuffered, a letter of several bytes may reach the console in parts, each shown by itself.
  static char buffer[BUFSIZ];
  if (IsConsole(STD_OUTPUT_HANDLE)) std::setvbuf(stdout, buffer, _IOFBF, sizeof buffer);
}

Console::~Console() {
  std::fflush(stdout);
  if (former_code_page_ != 0) SetConsoleOutputCP(former_code_page_);
}

std::vector<std::string> Arguments(int, char**) {
  int count = 0;
  wchar_t** const words = CommandLineToArgvW(GetCommandLineW(), &count);
  std::vector<std::string> arguments;
  for (int i = count - 1; words != nullptr && i > 0; --i) {
    common::u16to8(words[i], &arguments.emplace_back());
  }
  LocalFree(words);
  return arguments;
}
#else
Console::Console() = default;
Console::~Console() = default;

std::vector<std::string> Arguments(int argc, char** argv) {
  return {std::make_reverse_iterator(argv + argc), std::make_reverse_iterator(argv + 1)};
}
#endif

}  // namespace client
