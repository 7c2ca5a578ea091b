// Ends the process immediately after its last call. Argument 3: how many other threads are in the
// middle of calls at that moment. Argument 4: the port that marks the last call.
#include "probe.h"

namespace {

volatile LONG g_working;

DWORD WINAPI OpenAndClose(void*) {
  for (bool first = true;; first = false) {
    closesocket(probe::NewDatagram());
    if (first) InterlockedIncrement(&g_working);
  }
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  const int others = argc > 3 ? std::atoi(argv[3]) : 0;
  sockaddr_in mark = probe::Address("127.0.0.1", 0);
  if (argc > 4) mark.sin_port = htons(static_cast<u_short>(std::atoi(argv[4])));
  for (int i = 0; i < others; ++i) CreateThread(nullptr, 0, OpenAndClose, nullptr, 0, nullptr);
  while (g_working < others) Sleep(1);
  const SOCKET s = probe::NewDatagram();
  probe::SayResult("bind", bind(s, reinterpret_cast<sockaddr*>(&mark), sizeof(mark)));
  ExitProcess(7);
}
