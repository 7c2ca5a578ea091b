// Prints its path and arguments in UTF-8, one on each line; with the single argument "-", its
// input.
#include <windows.h>

#include <shellapi.h>

#include <cstdio>
#include <cwchar>

namespace {

void PrintLine(const wchar_t* text) {
  char narrow[4096];
  WideCharToMultiByte(CP_UTF8, 0, text, -1, narrow, sizeof(narrow), nullptr, nullptr);
  std::printf("%s\n", narrow);
}

}  // namespace

int main() {
  int count = 0;
  wchar_t** words = CommandLineToArgvW(GetCommandLineW(), &count);
  if (count == 2 && std::wcscmp(words[1], L"-") == 0) {
    char line[256] = "";
    if (std::fgets(line, sizeof(line), stdin) == nullptr) return 1;
    std::printf("input: %s\n", line);
    return 0;
  }
  for (int i = 0; i < count; ++i) PrintLine(words[i]);
  return 0;
}
