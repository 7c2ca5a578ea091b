// The Windows program of the long runs under Wine: plays until its input ends, and says each half
// second what only the inside can know, as JSON. scripts/soak_wine.py starts it with the library
// and watches it from outside.
//
//   windows_game [LEAK_EVERY [CALM]]
//
// It keeps every LEAK_EVERY-th of the sockets open that come and go (0: none), and pauses CALM
// times as long.
#include <winsock2.h>
//
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "tests/soak/play.h"

namespace {

constexpr DWORD kSayMs = 500;

// Wine's GetProcessHandleCount succeeds, and says 0. So every value that a handle can have is asked
// about; Wine gives the least one that is free, so there are few gaps.
constexpr ULONG_PTR kHandleStep = 4;
constexpr int kMostInVain = 64;

unsigned long CountByAsking() {
  unsigned long count = 0;
  int in_vain = 0;
  for (ULONG_PTR value = kHandleStep; in_vain < kMostInVain; value += kHandleStep) {
    DWORD flags = 0;
    const bool is_open = GetHandleInformation(reinterpret_cast<HANDLE>(value), &flags) != 0;
    if (is_open) ++count;
    in_vain = is_open ? 0 : in_vain + 1;
  }
  return count;
}

unsigned long Handles() {
  DWORD count = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &count) != 0 && count != 0) return count;
  return CountByAsking();
}

DWORD WINAPI Say(LPVOID) {
  for (;; Sleep(kSayMs)) {
    std::printf("{\"pid\": %lu, \"handles\": %lu, %s}\n", GetCurrentProcessId(), Handles(),
                soak::PlayedJson().c_str());
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  soak::PlayOptions options;
  if (argc > 1) options.leak_every = static_cast<unsigned>(std::atoi(argv[1]));
  if (argc > 2) options.calm = static_cast<unsigned>(std::atoi(argv[2]));
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return 1;
  soak::StartPlaying(options);
  soak::Start(Say);
  for (std::string line; std::getline(std::cin, line);) continue;
  ExitProcess(0);
}
