// Overlapped and synchronous calls on the same socket, scatter-gather buffers, zero-byte receives,
// overlapped datagrams, completion routines.
#include "probe.h"

namespace {

class Pending {
 public:
  Pending() { overlapped_.hEvent = WSACreateEvent(); }
  ~Pending() { WSACloseEvent(overlapped_.hEvent); }
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;
  WSAOVERLAPPED* get() { return &overlapped_; }

  // Whether it completes at once or is pending is up to the platform.
  void Await(const char* what, SOCKET s, int result) {
    const int error = WSAGetLastError();
    if (result == SOCKET_ERROR && error != WSA_IO_PENDING) {
      probe::Say("%s: failed with %d", what, error);
      return;
    }
    DWORD bytes = 0;
    DWORD flags = 0;
    const BOOL done = WSAGetOverlappedResult(s, &overlapped_, &bytes, TRUE, &flags);
    probe::Say("%s: %d, %lu bytes, error %d", what, done, bytes, done ? 0 : WSAGetLastError());
  }

 private:
  WSAOVERLAPPED overlapped_ = {};
};

void StreamMix() {
  const SOCKET s = probe::ConnectedStream();
  // A zero-byte receive, which waits for data.
  Pending zero;
  WSABUF nothing = {0, nullptr};
  DWORD flags = 0;
  const int zero_result = WSARecv(s, &nothing, 1, nullptr, &flags, zero.get(), nullptr);
  // Meanwhile a synchronous send with several buffers on the same socket.
  char head[] = "head,";
  char body[] = "the body,";
  char tail[] = "tail";
  WSABUF parts[] = {{5, head}, {9, body}, {0, nullptr}, {4, tail}};
  DWORD sent = 0;
  probe::SayResult("gathering send", WSASend(s, parts, 4, &sent, 0, nullptr, nullptr));
  probe::Say("sent %lu", sent);
  zero.Await("zero-byte receive", s, zero_result);
  // An overlapped receive of the echo, into several buffers.
  char first[7] = {};
  char second[20] = {};
  WSABUF scatter[] = {{6, first}, {12, second}};
  Pending receive;
  flags = MSG_WAITALL;
  receive.Await("scattered receive", s,
                WSARecv(s, scatter, 2, nullptr, &flags, receive.get(), nullptr));
  probe::Say("parts: [%s] [%s]", first, second);
  // An overlapped send and a synchronous receive.
  Pending send_pending;
  WSABUF again = {5, head};
  send_pending.Await("overlapped send", s,
                     WSASend(s, &again, 1, nullptr, 0, send_pending.get(), nullptr));
  probe::Say("echo: %s", probe::ReceiveAll(s, 5).c_str());
  closesocket(s);
}

void Datagrams() {
  const SOCKET s = probe::NewDatagram();
  char head[] = "data";
  char tail[] = "gram";
  WSABUF parts[] = {{4, head}, {4, tail}};
  DWORD sent = 0;
  probe::SayResult("gathered WSASendTo", WSASendTo(s, parts, 2, &sent, 0, probe::Server(),
                                                   sizeof(sockaddr_in), nullptr, nullptr));
  char first[5] = {};
  char second[20] = {};
  WSABUF scatter[] = {{4, first}, {16, second}};
  sockaddr_in from = {};
  int from_length = sizeof(from);
  DWORD flags = 0;
  Pending receive;
  receive.Await("overlapped WSARecvFrom", s,
                WSARecvFrom(s, scatter, 2, nullptr, &flags, reinterpret_cast<sockaddr*>(&from),
                            &from_length, receive.get(), nullptr));
  probe::Say("parts: [%s] [%s], from the server: %d", first, second,
             from.sin_port == probe::g_server.sin_port);
  Pending send_pending;
  send_pending.Await("overlapped WSASendTo", s,
                     WSASendTo(s, parts, 2, nullptr, 0, probe::Server(), sizeof(sockaddr_in),
                               send_pending.get(), nullptr));
  char buffer[32] = {};
  probe::SayResult("recvfrom", recvfrom(s, buffer, sizeof(buffer) - 1, 0, nullptr, nullptr));
  closesocket(s);
}

DWORD g_completed_bytes;
DWORD g_completed_error;
int g_completions;

void CALLBACK OnDone(DWORD error, DWORD bytes, LPWSAOVERLAPPED, DWORD) {
  g_completed_error = error;
  g_completed_bytes = bytes;
  ++g_completions;
}

void CompletionRoutine() {
  const SOCKET s = probe::ConnectedStream();
  char buffer[16] = {};
  WSABUF in = {4, buffer};
  DWORD flags = 0;
  WSAOVERLAPPED overlapped = {};
  const int result = WSARecv(s, &in, 1, nullptr, &flags, &overlapped, OnDone);
  probe::Say("receive started: %d", result == 0 || WSAGetLastError() == WSA_IO_PENDING);
  probe::SayResult("send", send(s, "done", 4, 0));
  for (int i = 0; i < 100 && g_completions == 0; ++i) SleepEx(100, TRUE);
  probe::Say("routine ran %d time: error %lu, %lu bytes, %s", g_completions, g_completed_error,
             g_completed_bytes, buffer);
  closesocket(s);
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  StreamMix();
  Datagrams();
  CompletionRoutine();
  return probe::End();
}
