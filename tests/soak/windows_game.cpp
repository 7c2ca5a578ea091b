// The Windows program of the long runs under Wine: plays until its input ends, and says each half
// second what only the inside can know, as JSON. scripts/soak_wine.py starts it with the library
// and watches it from outside.
//
//   windows_game [--leak-every N]    keeps every N-th of the sockets open that come and go
#include <winsock2.h>
//
#include <windows.h>
#include <winternl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "tests/soak/play.h"

namespace {

constexpr DWORD kSayMs = 500;

// An entry of the system's list of all handles, which follow a count that takes the room of a
// pointer.
struct HandleEntry {
  ULONG process;
  BYTE type;
  BYTE flags;
  USHORT value;
  void* object;
  ULONG access;
};
constexpr auto kAllHandles = static_cast<SYSTEM_INFORMATION_CLASS>(16);
constexpr auto kTooSmall = static_cast<NTSTATUS>(0xC0000004);

unsigned long CountInList() {
  static std::vector<char> list(1 << 16);
  NTSTATUS status;
  while ((status = NtQuerySystemInformation(kAllHandles, list.data(),
                                            static_cast<ULONG>(list.size()), nullptr)) == kTooSmall)
    list.resize(2 * list.size());
  if (status != 0) return 0;
  ULONG count = 0;
  unsigned long ours = 0;
  std::memcpy(&count, list.data(), sizeof count);
  for (size_t i = 0; i < count; ++i) {
    HandleEntry entry;
    std::memcpy(&entry, list.data() + sizeof(void*) + i * sizeof entry, sizeof entry);
    if (entry.process == GetCurrentProcessId()) ++ours;
  }
  return ours;
}

// Wine's GetProcessHandleCount succeeds, and says 0.
unsigned long Handles() {
  DWORD count = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &count) != 0 && count != 0) return count;
  return CountInList();
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
  unsigned leak_every = 0;
  if (argc == 3 && std::strcmp(argv[1], "--leak-every") == 0)
    leak_every = static_cast<unsigned>(std::atoi(argv[2]));
  if (argc != 1 && leak_every == 0) {
    std::fprintf(stderr,
                 "usage: windows_game [--leak-every N]   (scripts/soak_wine.py starts it)\n");
    return 2;
  }
  WSADATA data;
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return 1;
  soak::StartPlaying(leak_every);
  soak::Start(Say);
  for (std::string line; std::getline(std::cin, line);) continue;
  ExitProcess(0);
}
