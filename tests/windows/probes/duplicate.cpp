// A socket that is duplicated into the same process, by the ANSI and the wide call, works beside
// the first one.
#include "probe.h"

namespace {

void UseBoth(const char* what, SOCKET first, SOCKET second) {
  probe::Say("%s: %s", what, second != INVALID_SOCKET ? "made" : "failed");
  if (second == INVALID_SOCKET) return;
  probe::SayResult("send on the second", send(second, "twice", 5, 0));
  probe::Say("echo on the first: %s", probe::ReceiveAll(first, 5).c_str());
  probe::SayResult("close the second", closesocket(second));
  probe::SayResult("send on the first", send(first, "still", 5, 0));
  probe::Say("echo: %s", probe::ReceiveAll(first, 5).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  const SOCKET s = probe::ConnectedStream();
  WSAPROTOCOL_INFOW wide = {};
  probe::SayResult("WSADuplicateSocketW", WSADuplicateSocketW(s, GetCurrentProcessId(), &wide));
  UseBoth("WSASocketW", s,
          WSASocketW(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &wide, 0,
                     WSA_FLAG_OVERLAPPED));
  WSAPROTOCOL_INFOA narrow = {};
  probe::SayResult("WSADuplicateSocketA", WSADuplicateSocketA(s, GetCurrentProcessId(), &narrow));
  UseBoth("WSASocketA", s,
          WSASocketA(FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, FROM_PROTOCOL_INFO, &narrow, 0,
                     WSA_FLAG_OVERLAPPED));
  probe::SayResult("WSADuplicateSocketW of nothing",
                   WSADuplicateSocketW(static_cast<SOCKET>(12345), GetCurrentProcessId(), &wide));
  closesocket(s);
  return probe::End();
}
