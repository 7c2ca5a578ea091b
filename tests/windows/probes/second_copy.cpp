// Starts a second copy of the library in the process, directly and with the entries of the
// catalogue that the process sees. Argument 3: the path of the copy. Only for runs under vyr_run.
#include <winsock2.h>
#include <ws2spi.h>

#include "probe.h"

namespace {

int CountEntriesIn(HMODULE module, const WSPPROC_TABLE& table) {
  void* entries[sizeof(table) / sizeof(void*)];
  std::memcpy(entries, &table, sizeof(entries));
  int count = 0;
  for (void* entry : entries) {
    HMODULE owner = nullptr;
    GetModuleHandleExW(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        static_cast<const wchar_t*>(entry), &owner);
    if (owner == module) ++count;
  }
  return count;
}

// The first layered entry of the catalogue.
bool FindLayered(WSAPROTOCOL_INFOW* info) {
  WSAPROTOCOL_INFOW entries[32];
  DWORD size = sizeof(entries);
  int error = 0;
  const int count = WSCEnumProtocols(nullptr, entries, &size, &error);
  for (int i = 0; i < count; ++i) {
    if (entries[i].ProtocolChain.ChainLen <= 1) continue;
    *info = entries[i];
    return true;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  if (argc < 4) return 2;
  closesocket(probe::ConnectedStream());  // starts the first copy
  const HMODULE copy = LoadLibraryA(argv[3]);
  probe::Say("copy: %s", copy != nullptr ? "loaded" : "failed");
  const auto start =
      reinterpret_cast<LPWSPSTARTUP>(reinterpret_cast<void*>(GetProcAddress(copy, "WSPStartup")));
  WSAPROTOCOL_INFOW layered = {};
  if (start == nullptr || !FindLayered(&layered)) return 1;
  WSPDATA data = {};
  WSPUPCALLTABLE upcalls = {};
  WSPPROC_TABLE table = {};
  probe::Say("WSPStartup of the copy: %d", start(MAKEWORD(2, 2), &data, &layered, upcalls, &table));
  probe::Say("entries of the copy: %d", CountEntriesIn(copy, table));
  int error = 0;
  const SOCKET s = table.lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error);
  probe::Say("its socket: %s", s != INVALID_SOCKET ? "made" : "failed");
  table.lpWSPCloseSocket(s, &error);
  return probe::End();
}
