// Datagrams: of sockets that name their server each time, of connected ones, and overlapped.
#include "parity.h"

#include <mswsock.h>

#include <cstring>

namespace parity {
namespace {

const sockaddr_in kEchoServer = Address(kServerIp, kPort);
const sockaddr_in kSecond = Address(kSecondIp, kPort);
const sockaddr_in kOther = Address(kServerIp, kOtherPort);
const sockaddr_in kDirect = Address(kDirectIp, kPort);
const sockaddr_in kNobody = Address(kServerIp, kRefusedPort);

int SendTo(SOCKET s, const std::string& text, const sockaddr_in& to) {
  return sendto(s, text.data(), static_cast<int>(text.size()), 0, Of(to), sizeof to);
}

// A datagram with its source.
std::string ReceiveFrom(SOCKET s, int size = 2000, int flags = 0) {
  std::string room(static_cast<size_t>(size), 0);
  sockaddr_in from = {};
  int length = sizeof from;
  const int got = recvfrom(s, room.data(), size, flags, Of(from), &length);
  if (got < 0) {
    const std::string error = Said(got);
    if (error != "error 10040") return error;
    return std::string(error).append(" ").append(room).append(" from ").append(Text(from));
  }
  room.resize(static_cast<size_t>(got));
  if (got == 0) room = "nothing";
  if (got > 40) room = Number(static_cast<unsigned>(got)).append(" bytes");
  return room.append(" from ").append(Text(from));
}

void Simple() {
  const Socket s = NewDatagram();
  Note("sendto", Said(SendTo(s, "echo word", kEchoServer)));
  Note("recvfrom", ReceiveFrom(s));
  SendTo(s, "echo other", kOther);
  Note("a second port of the server", ReceiveFrom(s));
  SendTo(s, "echo second", kSecond);
  Note("a second server", ReceiveFrom(s));
  SendTo(s, "echo direct", kDirect);
  Note("a server of no table", ReceiveFrom(s));
  SendTo(s, "twice word", kEchoServer);
  Note("the first of two answers", ReceiveFrom(s));
  Note("the second of two answers", ReceiveFrom(s));
  SendTo(s, "other word", kEchoServer);
  Note("an answer from another port", ReceiveFrom(s));
  SendTo(s, "empty ", kEchoServer);
  Note("an empty answer", ReceiveFrom(s));
  SendTo(s, "big 1400", kEchoServer);
  Note("a large answer", ReceiveFrom(s));
  SendTo(s, "echo " + std::string(1200, 'l'), kEchoServer);
  Note("a large datagram", ReceiveFrom(s));
  SendTo(s, "echo " + std::string(6000, 'l'), kEchoServer);
  Note("a datagram of 6000 bytes", ReceiveFrom(s, 8000));
  Note("sendto of an empty datagram", Said(SendTo(s, "", kEchoServer)));
  Note("sendto of too much", Said(SendTo(s, std::string(70'000, 't'), kEchoServer)));
  Note("sendto an address of no machine", Said(SendTo(s, "x", Address(kNobodyIp, kPort))));
  Note("sendto port 0", Said(SendTo(s, "x", Address(kServerIp, 0))));
}

void DatagramsInPieces() {
  const Socket s = NewDatagram();
  SendTo(s, "echo a-long-word", kEchoServer);
  Note("select of a datagram", YesNo(Readable(s)));
  u_long left = 0;
  ioctlsocket(s, static_cast<long>(FIONREAD), &left);
  Note("FIONREAD", Number(left));
  Note("a look at it", ReceiveFrom(s, 2000, MSG_PEEK));
  Note("a room that is too small", ReceiveFrom(s, 6));
  Note("the rest is gone", Ready(s, kQuietMs));
  SendTo(s, "late word", kEchoServer);
  SetBlocking(s, false);
  Note("non-blocking recvfrom", ReceiveFrom(s));
  Readable(s);
  Note("once it is there", ReceiveFrom(s));
  SetBlocking(s, true);
  const DWORD limit = 300;
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
  const Watch watch;
  Note("recvfrom with a timeout", ReceiveFrom(s).append(", ").append(watch.Took(300)));
  Bound(s);
  SendTo(s, "echo plain", kEchoServer);
  Note("recv without a source", Receive(s));
  SendTo(s, "echo null", kEchoServer);
  char room[16] = {};
  Note("recvfrom without a source", Said(recvfrom(s, room, sizeof room, 0, nullptr, nullptr)));
  SendTo(s, "echo next", kSecond);
  Note("the source of the next one", ReceiveFrom(s));
}

void Order() {
  const Socket s = NewDatagram();
  for (int i = 0; i < 20; ++i) {
    const std::string text = std::string("echo ").append(std::to_string(i));
    SendTo(s, text, i % 2 == 0 ? kEchoServer : kSecond);
    Sleep(5);
  }
  int right = 0;
  for (int i = 0; i < 20; ++i) {
    const std::string got = ReceiveFrom(s);
    if (got.find(" from 198.51.100.1") == std::string::npos) break;
    const int number = std::atoi(got.c_str());
    const bool first = got.find(kServerIp) != std::string::npos;
    right += first == (number % 2 == 0) ? 1 : 0;
  }
  Note("twenty answers have their own server's name", Number(static_cast<unsigned>(right)));
  const Socket same = NewDatagram();
  SendTo(same, "echo same", kEchoServer);
  SendTo(same, "echo same", kSecond);
  const std::string one = ReceiveFrom(same);
  const std::string two = ReceiveFrom(same);
  Note("two equal datagrams reach two servers", YesNo(one != two && one.size() == two.size()));
  const Socket unbound(socket(AF_INET, SOCK_DGRAM, 0));
  Note("send without a connection", Said(Send(unbound, "x")));
  Note("listen on a datagram socket", Said(listen(unbound, 1)));
}

void Unheard() {
  const Socket s = NewDatagram();
  Note("sendto where nobody listens", Said(SendTo(s, "x", kNobody)));
  Note("recvfrom behind it", ReceiveFrom(s));
  SendTo(s, "echo word", kEchoServer);
  Note("an answer behind it", ReceiveFrom(s));
  BOOL off = FALSE;
  DWORD got = 0;
  Note("SIO_UDP_CONNRESET",
       Said(WSAIoctl(s, SIO_UDP_CONNRESET, &off, sizeof off, nullptr, 0, &got, nullptr, nullptr)));
  const Socket local = NewDatagram();
  bind(local, Of(Address("127.0.0.1", 0)), sizeof kEchoServer);
  sockaddr_in own = {};
  int size = sizeof own;
  getsockname(local, Of(own), &size);
  SendTo(local, "to itself", own);
  Note("a datagram over the loopback", ReceiveFrom(local));
  const Socket bound = NewDatagram();
  bind(bound, Of(Address("0.0.0.0", 0)), sizeof kEchoServer);
  getsockname(bound, Of(own), &size);
  Note("bind of a second socket to its port", Said(bind(NewDatagram(), Of(own), sizeof own)));
}

// --- Connected. ---------------------------------------------------------------------------------
void ConnectedSockets() {
  const Socket s = NewDatagram();
  Note("connect", Said(connect(s, Of(kEchoServer), sizeof kEchoServer)));
  Note("send", Said(Send(s, "echo word")));
  Note("recv", Receive(s));
  Note("send again", Said(Send(s, "echo again")));
  Note("recvfrom", ReceiveFrom(s));
  Note("sendto its own server", Said(SendTo(s, "echo named", kEchoServer)));
  Note("the answer to it", Receive(s));
  Send(s, "other word");
  Note("an answer from another port", Ready(s, kQuietMs));
  Send(s, "late word");
  Note("select of an answer", YesNo(Readable(s)));
  Note("the answer", Receive(s));
  Send(s, "big 1200");
  Note("a large answer", Number(Receive(s, 2000).size()));
  Send(s, "echo a-long-word");
  Note("a room that is too small", Receive(s, 4));
}

void Reconnected() {
  const Socket s = NewDatagram();
  connect(s, Of(kEchoServer), sizeof kEchoServer);
  Note("connect to a second server", Said(connect(s, Of(kSecond), sizeof kSecond)));
  Note("send to it", Said(Send(s, "echo second")));
  Note("its answer", ReceiveFrom(s));
  Note("connect to a server of no table", Said(connect(s, Of(kDirect), sizeof kDirect)));
  Send(s, "echo direct");
  Note("the answer of a server of no table", ReceiveFrom(s));
  sockaddr_in none = {};
  none.sin_family = AF_UNSPEC;
  Note("disconnect", Said(connect(s, Of(none), sizeof none)));
  Note("send behind it", Said(Send(s, "echo gone")));
  Note("sendto behind it", Said(SendTo(s, "echo named", kEchoServer)));
  Note("the answer behind it", ReceiveFrom(s));
  const Socket late = NewDatagram();
  SendTo(late, "echo first", kEchoServer);
  Note("before it is connected", ReceiveFrom(late));
  Note("connect after a datagram", Said(connect(late, Of(kEchoServer), sizeof kEchoServer)));
  Send(late, "echo second");
  Note("the answer after it", ReceiveFrom(late));
  const Socket refused = NewDatagram();
  connect(refused, Of(kNobody), sizeof kNobody);
  Note("send where nobody listens", Said(Send(refused, "x")));
  Sleep(100);
  Note("recv where nobody listens", Receive(refused));
}

// --- Overlapped. --------------------------------------------------------------------------------
struct Arrival {
  Pending pending;
  char room[64] = {};
  sockaddr_in from = {};
  int length = sizeof(sockaddr_in);
};

int Begin(SOCKET s, Arrival* arrival, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
  WSABUF buffer = {sizeof arrival->room - 1, arrival->room};
  return WSARecvFrom(s, &buffer, 1, nullptr, &arrival->pending.flags, Of(arrival->from),
                     &arrival->length, &arrival->pending.overlapped, routine);
}

std::string From(const Arrival& arrival) {
  return std::string(arrival.room).append(" from ").append(Text(arrival.from));
}

std::string Ended(SOCKET s, Arrival* arrival, int result, int error) {
  WSASetLastError(error);
  const std::string end = arrival->pending.End(s, result);
  if (end.find("bytes") == std::string::npos) return end;
  return From(*arrival);
}

void ByEvents() {
  const Socket s = NewDatagram();
  bind(s, Of(Address("0.0.0.0", 0)), sizeof kEchoServer);
  Arrival first;
  int result = Begin(s, &first);
  int error = WSAGetLastError();
  Note("a receive before there is something", result == 0 ? "0" : ErrorText(error));
  SendTo(s, "echo word", kEchoServer);
  Note("its end", Ended(s, &first, result, error));
  SendTo(s, "echo there", kSecond);
  Readable(s);
  Arrival second;
  result = Begin(s, &second);
  error = WSAGetLastError();
  Note("a receive of what is there", Ended(s, &second, result, error));
  Arrival one;
  Arrival two;
  Begin(s, &one);
  Begin(s, &two);
  SendTo(s, "echo one", kEchoServer);
  Sleep(100);
  SendTo(s, "echo two", kSecond);
  Note("the first of two receives", Ended(s, &one, SOCKET_ERROR, WSA_IO_PENDING));
  Note("the second of two receives", Ended(s, &two, SOCKET_ERROR, WSA_IO_PENDING));
  Pending send;
  char words[] = "echo sent";
  WSABUF buffer = {9, words};
  result = WSASendTo(s, &buffer, 1, nullptr, 0, Of(kEchoServer), sizeof kEchoServer,
                     &send.overlapped, nullptr);
  Note("an overlapped send", send.End(s, result));
  Note("its answer", ReceiveFrom(s));
}

// Asked for in one call that waits, and in one that does not.
void ByResults() {
  const Socket s = NewDatagram();
  bind(s, Of(Address("0.0.0.0", 0)), sizeof kEchoServer);
  Arrival one;
  Begin(s, &one);
  SendTo(s, "echo waits", kSecond);
  DWORD bytes = 0;
  WSAGetOverlappedResult(s, &one.pending.overlapped, &bytes, TRUE, &one.pending.flags);
  Note("a result that is waited for", From(one));
  Arrival two;
  Begin(s, &two);
  SendTo(s, "echo polls", kEchoServer);
  for (DWORD begin = GetTickCount(); GetTickCount() - begin < PatienceMs(); Sleep(10)) {
    if (WSAGetOverlappedResult(s, &two.pending.overlapped, &bytes, FALSE, &two.pending.flags))
      break;
  }
  Note("a result that is polled", From(two));
  Arrival cut;
  WSABUF buffer = {3, cut.room};
  const int result = WSARecvFrom(s, &buffer, 1, nullptr, &cut.pending.flags, Of(cut.from),
                                 &cut.length, &cut.pending.overlapped, nullptr);
  SendTo(s, "echo a-long-word", kSecond);
  const std::string end = cut.pending.End(s, result);
  Note("a room that is too small", end);  // Wine may say so before it has stored the rest
  Arrival cancelled;
  Begin(s, &cancelled);
  Note("a receive of which nothing comes", cancelled.pending.End(s, SOCKET_ERROR, kQuietMs));
  Begin(s, &cancelled);
  SendTo(s, "echo later", kEchoServer);
  Note("the same once more", Ended(s, &cancelled, SOCKET_ERROR, WSA_IO_PENDING));
}

// A program that waits for the event and never asks for the result.
void ByEventsAlone() {
  const Socket s = NewDatagram();
  bind(s, Of(Address("0.0.0.0", 0)), sizeof kEchoServer);
  Arrival arrival;
  const sockaddr_in servers[] = {kEchoServer, kSecond, kEchoServer};
  const char* const names[] = {"the first by event alone", "the second by event alone",
                               "the third by event alone"};
  for (int i = 0; i < 3; ++i) {
    WSAResetEvent(arrival.pending.event);
    std::memset(arrival.room, 0, sizeof arrival.room);
    Begin(s, &arrival);
    SendTo(s, "echo word", servers[i]);
    arrival.pending.event.Await();
    Note(names[i], From(arrival));
  }
}

int g_calls;
Arrival* g_next;  // what the routine begins
SOCKET g_socket;

void CALLBACK OnDatagramDone(DWORD, DWORD, WSAOVERLAPPED*, DWORD) {
  ++g_calls;
  Arrival* const next = g_next;
  g_next = nullptr;
  if (next != nullptr) Begin(g_socket, next, OnDatagramDone);
}

void AwaitCalls(int calls) {
  for (int i = 0; i < 30 && g_calls < calls; ++i) SleepEx(50, TRUE);
}

void ByRoutines() {
  const Socket s = NewDatagram();
  bind(s, Of(Address("0.0.0.0", 0)), sizeof kEchoServer);
  Arrival arrival;
  Arrival next;
  g_calls = 0;
  g_socket = s;
  g_next = &next;
  Begin(s, &arrival, OnDatagramDone);
  SendTo(s, "echo word", kEchoServer);
  AwaitCalls(1);
  Note("a routine's calls", Number(static_cast<unsigned>(g_calls)));
  Note("what it got", From(arrival));
  SendTo(s, "echo next", kSecond);
  AwaitCalls(2);
  Note("what the one that it began got", From(next));
  SendTo(s, "echo there", kEchoServer);
  Readable(s);
  Arrival there;
  Begin(s, &there, OnDatagramDone);
  AwaitCalls(3);
  Note("a routine of what is there", From(there));
}

std::string NextByPort(HANDLE port, const Arrival& wanted) {
  DWORD bytes = 0;
  ULONG_PTR key = 0;
  OVERLAPPED* done = nullptr;
  const BOOL good = GetQueuedCompletionStatus(port, &bytes, &key, &done, PatienceMs());
  if (done == nullptr) return "nothing";
  return good && done == &wanted.pending.overlapped ? From(wanted) : "another one";
}

// Of a socket that has exchanged datagrams before, and of a connected one.
void ByAPortLater() {
  const Socket s = NewDatagram();
  SendTo(s, "echo before", kEchoServer);
  Note("before there is a port", ReceiveFrom(s));
  const HANDLE port =
      CreateIoCompletionPort(reinterpret_cast<HANDLE>(static_cast<SOCKET>(s)), nullptr, 1, 0);
  Arrival arrival;
  arrival.pending.overlapped.hEvent = nullptr;
  Begin(s, &arrival);
  SendTo(s, "echo behind", kEchoServer);
  Note("with one", NextByPort(port, arrival));
  CloseHandle(port);
  const Socket connected = NewDatagram();
  connect(connected, Of(kEchoServer), sizeof kEchoServer);
  Send(connected, "echo before");
  Note("connected, before there is a port", Receive(connected));
  const HANDLE other = CreateIoCompletionPort(
      reinterpret_cast<HANDLE>(static_cast<SOCKET>(connected)), nullptr, 1, 0);
  Arrival late;
  late.pending.overlapped.hEvent = nullptr;
  Begin(connected, &late);
  Send(connected, "echo behind");
  Note("connected, with one", NextByPort(other, late));
  CloseHandle(other);
}

void ByAPort() {
  const Socket s = NewDatagram();
  bind(s, Of(Address("0.0.0.0", 0)), sizeof kEchoServer);
  const HANDLE port =
      CreateIoCompletionPort(reinterpret_cast<HANDLE>(static_cast<SOCKET>(s)), nullptr, 1, 0);
  Arrival arrivals[3];
  for (Arrival& arrival : arrivals) {
    arrival.pending.overlapped.hEvent = nullptr;
    Begin(s, &arrival);
  }
  const char* const names[] = {"the first by port", "the second by port", "the third by port"};
  const sockaddr_in servers[] = {kEchoServer, kSecond, kDirect};
  for (int i = 0; i < 3; ++i) {
    SendTo(s, "echo word", servers[i]);
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* done = nullptr;
    const BOOL good = GetQueuedCompletionStatus(port, &bytes, &key, &done, PatienceMs());
    std::string said = done == nullptr ? "nothing" : good ? "word" : "an error";
    if (good) {
      for (const Arrival& arrival : arrivals) {
        if (&arrival.pending.overlapped == done)
          said = std::string(arrival.room).append(" from ").append(Text(arrival.from));
      }
    }
    Note(names[i], said);
  }
  CancelIo(reinterpret_cast<HANDLE>(static_cast<SOCKET>(s)));
  Sleep(50);
  CloseHandle(port);
}

}  // namespace

void Datagrams() {
  Simple();
  DatagramsInPieces();
  Order();
  Unheard();
}

void ConnectedDatagrams() {
  ConnectedSockets();
  Reconnected();
}

void OverlappedDatagrams() {
  ByEvents();
  ByResults();
  ByEventsAlone();
  ByRoutines();
  ByAPort();
  ByAPortLater();
}

}  // namespace parity
