// ConnectEx from WSAIoctl, and AcceptEx both from WSAIoctl and as an export of mswsock.
#include "probe.h"

#include <mswsock.h>

namespace {

void* Extension(SOCKET s, GUID id) {
  void* function = nullptr;
  DWORD bytes = 0;
  probe::SayResult("WSAIoctl", WSAIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof(id),
                                        &function, sizeof(function), &bytes, nullptr, nullptr));
  probe::Say("got a function of %lu bytes: %d", bytes, function != nullptr);
  return function;
}

void Await(const char* what, SOCKET s, BOOL result, OVERLAPPED* overlapped) {
  const int error = WSAGetLastError();
  // Whether it completes at once or is pending is up to the platform, and must not be compared.
  if (!result && error != WSA_IO_PENDING) {
    probe::Say("%s: failed with %d", what, error);
    return;
  }
  DWORD bytes = 0;
  DWORD flags = 0;
  const BOOL done = WSAGetOverlappedResult(s, overlapped, &bytes, TRUE, &flags);
  probe::Say("%s: %d, %lu bytes", what, done, bytes);
}

void ConnectWithExtension() {
  const SOCKET s = probe::NewStream();
  const auto connect_ex = reinterpret_cast<LPFN_CONNECTEX>(Extension(s, WSAID_CONNECTEX));
  OVERLAPPED overlapped = {};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  char hello[] = "sent while connecting";
  DWORD sent = 0;
  const BOOL unbound =
      connect_ex(s, probe::Server(), sizeof(sockaddr_in), nullptr, 0, &sent, &overlapped);
  Await("ConnectEx unbound", s, unbound, &overlapped);
  sockaddr_in any = probe::Address("0.0.0.0", 0);
  probe::SayResult("bind", bind(s, reinterpret_cast<sockaddr*>(&any), sizeof(any)));
  const BOOL result =
      connect_ex(s, probe::Server(), sizeof(sockaddr_in), hello, 21, &sent, &overlapped);
  Await("ConnectEx", s, result, &overlapped);
  probe::SayResult("update", setsockopt(s, SOL_SOCKET, SO_UPDATE_CONNECT_CONTEXT, nullptr, 0));
  sockaddr_in peer = {};
  int length = sizeof(peer);
  probe::SayResult("getpeername", getpeername(s, reinterpret_cast<sockaddr*>(&peer), &length));
  probe::Say("echo: %s", probe::ReceiveAll(s, 21).c_str());
  closesocket(s);
  CloseHandle(overlapped.hEvent);
}

void AcceptWith(const char* what, LPFN_ACCEPTEX accept_ex) {
  sockaddr_in address;
  const SOCKET listener = probe::Listener(&address);
  const SOCKET accepted = probe::NewStream();
  const SOCKET client = probe::NewStream();
  OVERLAPPED overlapped = {};
  overlapped.hEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  char buffer[2 * (sizeof(sockaddr_in) + 16)];
  DWORD bytes = 0;
  const BOOL result = accept_ex(listener, accepted, buffer, 0, sizeof(sockaddr_in) + 16,
                                sizeof(sockaddr_in) + 16, &bytes, &overlapped);
  probe::Say("%s: %s", what, !result && WSAGetLastError() == ERROR_IO_PENDING ? "pending" : "odd");
  probe::SayResult("connect",
                   connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
  Await(what, listener, FALSE, &overlapped);
  probe::SayResult("update",
                   setsockopt(accepted, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT,
                              reinterpret_cast<const char*>(&listener), sizeof(listener)));
  probe::SayResult("send", send(client, "to the accepted one", 19, 0));
  probe::Say("came: %s", probe::ReceiveAll(accepted, 19).c_str());
  closesocket(client);
  closesocket(accepted);
  closesocket(listener);
  CloseHandle(overlapped.hEvent);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  ConnectWithExtension();
  AcceptWith("AcceptEx of mswsock", AcceptEx);
  const SOCKET s = probe::NewStream();
  AcceptWith("AcceptEx of WSAIoctl", reinterpret_cast<LPFN_ACCEPTEX>(Extension(s, WSAID_ACCEPTEX)));
  Extension(s, GUID{1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}});
  closesocket(s);
  return probe::End();
}
