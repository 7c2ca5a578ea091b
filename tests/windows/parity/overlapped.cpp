// Overlapped streams: by event, by completion routine, by completion port.
#include "parity.h"

namespace parity {
namespace {

int BeginReceive(SOCKET s, char* room, ULONG size, Pending* pending) {
  WSABUF buffer = {size, room};
  return WSARecv(s, &buffer, 1, nullptr, &pending->flags, &pending->overlapped, nullptr);
}

int BeginSend(SOCKET s, std::string* text, Pending* pending) {
  WSABUF buffer = {static_cast<ULONG>(text->size()), text->data()};
  return WSASend(s, &buffer, 1, nullptr, 0, &pending->overlapped, nullptr);
}

void EventTransfers() {
  const Peer peer = Ask("echo");
  char room[64] = {};
  Pending receive;
  const int begun = BeginReceive(peer.s, room, sizeof room, &receive);
  Note("a receive before there is something", Said(begun));
  DWORD bytes = 0;
  const BOOL early =
      WSAGetOverlappedResult(peer.s, &receive.overlapped, &bytes, FALSE, &receive.flags);
  Note("its result before the end", early ? "there" : Said(-1));
  WSASetLastError(WSA_IO_PENDING);
  Pending send;
  std::string words = "some words";
  const int sent = BeginSend(peer.s, &words, &send);
  Note("a send", send.End(peer.s, sent));
  WSASetLastError(WSA_IO_PENDING);
  Note("the receive", receive.End(peer.s, SOCKET_ERROR));
  Note("what it got", room);
  Pending waiting;
  char nothing = 0;
  const int zero = BeginReceive(peer.s, &nothing, 0, &waiting);
  const int zero_error = WSAGetLastError();
  Send(peer.s, "wake");
  WSASetLastError(zero_error);
  Note("a receive of zero bytes", waiting.End(peer.s, zero));
  Note("what it left", Receive(peer.s));
}

void EventEnds() {
  const Peer ended = Ask("bye");
  char room[64];
  Pending receive;
  Note("a receive at the end",
       receive.End(ended.s, BeginReceive(ended.s, room, sizeof room, &receive)));
  const Peer quiet = Ask("echo");
  Pending cancelled;
  const int begun = BeginReceive(quiet.s, room, sizeof room, &cancelled);
  Note("a receive of which nothing comes", cancelled.End(quiet.s, begun, kQuietMs));
  DWORD bytes = 0;
  const BOOL done =
      WSAGetOverlappedResult(quiet.s, &cancelled.overlapped, &bytes, TRUE, &cancelled.flags);
  Note("its result after a cancel", done ? "there" : Said(-1));
  Send(quiet.s, "after");
  Note("recv behind a cancel", Receive(quiet.s));
  Peer closed = Ask("echo");
  Pending lost;
  BeginReceive(closed.s, room, sizeof room, &lost);
  closed.s.Close();
  Note("a pending receive is done after closesocket", YesNo(lost.event.Await()));
  Note("its status", Number(static_cast<unsigned>(lost.overlapped.Internal)));
  const Peer twice = Ask("echo");
  char first[4] = {};
  char second[4] = {};
  Pending one;
  Pending two;
  BeginReceive(twice.s, first, 3, &one);
  BeginReceive(twice.s, second, 3, &two);
  Send(twice.s, "123456");
  WSASetLastError(WSA_IO_PENDING);
  Note("the first of two receives", one.End(twice.s, SOCKET_ERROR).append(" ").append(first));
  WSASetLastError(WSA_IO_PENDING);
  Note("the second of two receives", two.End(twice.s, SOCKET_ERROR).append(" ").append(second));
}

void EventSizes() {
  const Peer peer = Ask("sink");
  std::string much(2 << 20, 'o');
  Pending send;
  Note("a send of much", send.End(peer.s, BeginSend(peer.s, &much, &send), 3 * PatienceMs()));
  shutdown(peer.s, SD_SEND);
  Note("what the server saw", peer.Saw());
  Pending none;
  const Socket loose = NewStream();
  const int begun = BeginSend(loose, &much, &none);
  Note("a send without a connection", none.End(loose, begun));
}

// --- By routine. ------------------------------------------------------------------------------
struct Call {
  WSAOVERLAPPED overlapped = {};
  int count = 0;
  DWORD error = 0;
  DWORD bytes = 0;
  DWORD flags = 0;
  DWORD thread = 0;
};

void CALLBACK OnDone(DWORD error, DWORD bytes, WSAOVERLAPPED* overlapped, DWORD flags) {
  auto* const call = reinterpret_cast<Call*>(overlapped);
  ++call->count;
  call->error = error;
  call->bytes = bytes;
  call->flags = flags;
  call->thread = GetCurrentThreadId();
}

std::string End(const Call& call) {
  for (DWORD begin = GetTickCount(); call.count == 0 && GetTickCount() - begin < PatienceMs();) {
    SleepEx(50, TRUE);
  }
  if (call.count != 1) return Number(static_cast<unsigned>(call.count)).append(" calls");
  if (call.error != 0) return ErrorText(static_cast<int>(call.error));
  return Number(call.bytes).append(" bytes");
}

int ReceiveByRoutine(SOCKET s, char* room, ULONG size, Call* call) {
  WSABUF buffer = {size, room};
  DWORD flags = 0;
  return WSARecv(s, &buffer, 1, nullptr, &flags, &call->overlapped, OnDone);
}

void RoutineTransfers() {
  const Peer peer = Ask("echo");
  char room[64] = {};
  Call receive;
  Note("a receive", Said(ReceiveByRoutine(peer.s, room, sizeof room, &receive)));
  Note("no call before there is something", Number(static_cast<unsigned>(SleepEx(50, TRUE))));
  Call send;
  char words[] = "by routine";
  WSABUF buffer = {10, words};
  DWORD sent = 0;
  WSASend(peer.s, &buffer, 1, &sent, 0, &send.overlapped, OnDone);
  Note("a send's call", End(send));
  Note("the receive's call", End(receive));
  Note("its thread", YesNo(receive.thread == GetCurrentThreadId()));
  Note("its flags", Number(receive.flags));
  Note("what it got", room);
  Call late;
  ReceiveByRoutine(peer.s, room, sizeof room, &late);
  Send(peer.s, "later");
  Sleep(200);
  Note("no call without an alertable wait", Number(static_cast<unsigned>(late.count)));
  Note("the call in one", End(late));
}

void RoutineEnds() {
  const Peer ended = Ask("bye");
  char room[8];
  Call end;
  ReceiveByRoutine(ended.s, room, sizeof room, &end);
  Note("a call at the end", End(end));
  const Peer reset = Ask("reset");
  Call error;
  const int begun = ReceiveByRoutine(reset.s, room, sizeof room, &error);
  Note("a call at a reset",
       begun == 0 || WSAGetLastError() == WSA_IO_PENDING ? End(error) : Said(begun));
  Peer closed = Ask("echo");
  Call lost;
  ReceiveByRoutine(closed.s, room, sizeof room, &lost);
  closed.s.Close();
  Note("a call after closesocket", End(lost));
}

// --- By port. -----------------------------------------------------------------------------------
std::string Next(HANDLE port, const void* wanted, DWORD patience_ms = PatienceMs()) {
  DWORD bytes = 0;
  ULONG_PTR key = 0;
  OVERLAPPED* done = nullptr;
  const BOOL good = GetQueuedCompletionStatus(port, &bytes, &key, &done, patience_ms);
  if (done == nullptr) return "nothing";
  if (done != wanted) return "another one";
  if (key != 42) return "another key";
  return good ? Number(bytes).append(" bytes")
              : std::string("error ").append(Number(GetLastError()));
}

int ReceiveByPort(SOCKET s, char* room, ULONG size, OVERLAPPED* overlapped) {
  WSABUF buffer = {size, room};
  DWORD flags = 0;
  return WSARecv(s, &buffer, 1, nullptr, &flags, overlapped, nullptr);
}

HANDLE Port(SOCKET s) {
  return CreateIoCompletionPort(reinterpret_cast<HANDLE>(s), nullptr, 42, 0);
}

// What is not done in time is done later, in whichever thread waits then, and that thread's wait
// fails if the record and the room are gone with the stack of a thread that has ended. So they
// stay.
void PortTransfers() {
  const Peer peer = Ask("echo");
  const HANDLE port = Port(peer.s);
  Note("a port", YesNo(port != nullptr));
  static char room[64] = {};
  static OVERLAPPED receive = {};
  Note("a receive", Said(ReceiveByPort(peer.s, room, sizeof room, &receive)));
  Note("nothing before there is something", Next(port, &receive, 50));
  Send(peer.s, "by port");
  Note("its completion", Next(port, &receive));
  Note("what it got", room);
  static OVERLAPPED send = {};
  char words[] = "more";
  WSABUF buffer = {4, words};
  WSASend(peer.s, &buffer, 1, nullptr, 0, &send, nullptr);
  Note("the completion of a send", Next(port, &send));
  Note("one completion each", Next(port, &send, 100));
  Readable(peer.s);
  static OVERLAPPED zero = {};
  Note("a receive of zero bytes", Said(ReceiveByPort(peer.s, room, 0, &zero)));
  Note("the completion of it", Next(port, &zero));
  Note("what it left", Receive(peer.s));
  CloseHandle(port);
}

void PortEnds() {
  static char room[8];
  const Peer ended = Ask("bye");
  HANDLE port = Port(ended.s);
  static OVERLAPPED end = {};
  ReceiveByPort(ended.s, room, sizeof room, &end);
  Note("a completion at the end", Next(port, &end));
  CloseHandle(port);
  const Peer reset = Ask("reset slow");
  Receive(reset.s);
  port = Port(reset.s);
  static OVERLAPPED error = {};
  ReceiveByPort(reset.s, room, sizeof room, &error);
  Note("a completion at a reset", Next(port, &error));
  CloseHandle(port);
  Peer closed = Ask("echo");
  port = Port(closed.s);
  static OVERLAPPED lost = {};
  ReceiveByPort(closed.s, room, sizeof room, &lost);
  closed.s.Close();
  Note("a completion after closesocket", Next(port, &lost));
  CloseHandle(port);
  const Peer cancelled = Ask("echo");
  port = Port(cancelled.s);
  static OVERLAPPED cancel = {};
  ReceiveByPort(cancelled.s, room, sizeof room, &cancel);
  Note("CancelIo", YesNo(CancelIo(reinterpret_cast<HANDLE>(static_cast<SOCKET>(cancelled.s)))));
  Note("a completion after a cancel", Next(port, &cancel));
  CloseHandle(port);
}

}  // namespace

void ByEvent() {
  EventTransfers();
  EventEnds();
  EventSizes();
}

void ByRoutine() {
  RoutineTransfers();
  RoutineEnds();
}

void ByPort() {
  PortTransfers();
  PortEnds();
}

}  // namespace parity
