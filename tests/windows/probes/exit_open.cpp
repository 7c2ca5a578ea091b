// Ends the process while sockets are open and threads wait in socket calls. Argument 3: how it
// ends.
#include "probe.h"

namespace {

volatile LONG g_waiting;

DWORD WINAPI WaitInReceive(void*) {
  const SOCKET s = probe::ConnectedStream();
  InterlockedIncrement(&g_waiting);
  char byte;
  recv(s, &byte, 1, 0);
  return 0;
}

DWORD WINAPI WaitInAccept(void*) {
  sockaddr_in address;
  const SOCKET listener = probe::Listener(&address);
  InterlockedIncrement(&g_waiting);
  accept(listener, nullptr, nullptr);
  return 0;
}

DWORD WINAPI OpenAndClose(void*) {
  InterlockedIncrement(&g_waiting);
  for (;;) closesocket(probe::NewDatagram());
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  const std::string how = argc > 3 ? argv[3] : "return";
  constexpr LPTHREAD_START_ROUTINE kKinds[] = {WaitInReceive, WaitInAccept, OpenAndClose};
  for (const auto routine : kKinds) {
    for (int i = 0; i < 3; ++i) CreateThread(nullptr, 0, routine, nullptr, 0, nullptr);
  }
  while (g_waiting < 9) Sleep(1);
  probe::Say("all wait; ending by %s", how.c_str());
  if (how == "exit") ExitProcess(7);
  if (how == "terminate") TerminateProcess(GetCurrentProcess(), 8);
  return 6;
}
