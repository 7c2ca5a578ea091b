// A minimal layer: it replaces three entries in the table of the process's base provider, and
// passes the calls on.
//
// FORGETFUL: it does not pass its catalogue entry down with a new socket.
#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace {

WSPPROC_TABLE g_next;

SOCKET WSPAPI Socket(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, GROUP group,
                     DWORD flags, LPINT error) {
#ifdef FORGETFUL
  info = nullptr;
#endif
  return g_next.lpWSPSocket(family, type, protocol, info, group, flags, error);
}

int WSPAPI CloseSocket(SOCKET s, LPINT error) { return g_next.lpWSPCloseSocket(s, error); }

int WSPAPI Cleanup(LPINT error) { return g_next.lpWSPCleanup(error); }

}  // namespace

extern "C" int WSPAPI WSPStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info,
                                 WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE table) {
  const auto start = reinterpret_cast<LPWSPSTARTUP>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"winsock_base.dll"), "WSPStartup")));
  if (start == nullptr) return WSAEPROVIDERFAILEDINIT;
  const int result = start(version, data, info, upcalls, &g_next);
  *table = g_next;
  table->lpWSPSocket = Socket;
  table->lpWSPCloseSocket = CloseSocket;
  table->lpWSPCleanup = Cleanup;
  return result;
}
