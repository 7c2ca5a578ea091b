#include <algorithm>
#include <cstdio>

#include "parity.h"

namespace parity {

std::string ErrorText(int error) {
  return error == 0 ? "none" : std::string("error ").append(std::to_string(error));
}

std::string Said(int result) {
  const int error = WSAGetLastError();
  return result == SOCKET_ERROR ? ErrorText(error) : std::to_string(result);
}

std::string YesNo(bool yes) { return yes ? "yes" : "no"; }
std::string Number(unsigned long long number) { return std::to_string(number); }

// Wide limits: a machine that is busy shall not look like another behaviour.
std::string Watch::Took(DWORD wanted_ms) const {
  const DWORD took_ms = GetTickCount() - begin_;
  if (took_ms + 50 < wanted_ms) return "early";
  if (took_ms < wanted_ms + 900) return wanted_ms == 0 ? "at once" : "as asked";
  return "late";
}

sockaddr_in Address(const char* ip, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = inet_addr(ip);
  address.sin_port = htons(static_cast<u_short>(port));
  return address;
}

std::string Text(const sockaddr_in& address) {
  const int port = ntohs(address.sin_port);
  const bool known = port == 0 || (port >= kPort && port <= kFirstPort);
  std::string text = address.sin_family == AF_INET ? inet_ntoa(address.sin_addr) : "no address";
  return text.append(":").append(known ? std::to_string(port) : "other");
}

Socket NewStream() { return Socket(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }
Socket NewDatagram() {
  Socket s(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
  Bound(s);
  return s;
}

void Bound(SOCKET s) {
  const DWORD limit = PatienceMs();
  setsockopt(s, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
  setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&limit), sizeof limit);
}

// Always of the same length, so that what is sent is.
std::string NewId() {
  static LONG count = 0;
  const auto number = static_cast<unsigned>(InterlockedIncrement(&count));
  char text[32];
  std::snprintf(text, sizeof text, "%08x-%04x-%08x", static_cast<unsigned>(GetCurrentProcessId()),
                number, static_cast<unsigned>(GetTickCount()));
  return text;
}

std::string Request(const std::string& id, const std::string& what) {
  return std::string(id).append(" ").append(what).append("\n");
}

Peer Ask(const std::string& what) {
  Peer peer{NewStream(), NewId(), 0};
  Bound(peer.s);
  peer.connected = connect(peer.s, Of(Address(kServerIp, kPort)), sizeof(sockaddr_in));
  if (peer.connected == 0) Send(peer.s, Request(peer.id, what));
  return peer;
}

std::string Peer::Saw() const { return PeerSaw(id); }

// Over a connection that no table relays, so that the answer is the same one each time.
std::string PeerSaw(const std::string& id) {
  const Socket s = NewStream();
  if (connect(s, Of(Address(kDirectIp, kPort)), sizeof(sockaddr_in)) != 0) return Said(-1);
  Send(s, Request(NewId(), std::string("saw ").append(id)));
  return Receive(s, 200);
}

int Send(SOCKET s, const std::string& text, int flags) {
  return send(s, text.data(), static_cast<int>(text.size()), flags);
}

std::string Receive(SOCKET s, int size, int flags) {
  std::string text(static_cast<size_t>(size), 0);
  const int got = recv(s, text.data(), size, flags);
  if (got <= 0) return got == 0 ? "end" : Said(got);
  text.resize(static_cast<size_t>(got));
  return text;
}

std::string ReceiveAll(SOCKET s, size_t size) {
  std::string all;
  char buffer[4096];
  for (int got = 1; got > 0 && all.size() < size;) {
    got = recv(s, buffer, static_cast<int>(std::min(sizeof buffer, size - all.size())), 0);
    if (got > 0) all.append(buffer, static_cast<size_t>(got));
  }
  return all;
}

std::string ReceiveToEnd(SOCKET s) {
  std::string all;
  while (all.size() < (8u << 20)) {
    char buffer[16384];
    const int got = recv(s, buffer, sizeof buffer, 0);
    if (got <= 0) {
      const std::string end = got == 0 ? "end" : Said(got);
      if (all.size() > 40) all = std::to_string(all.size()).append(" bytes");
      return all.empty() ? end : all.append(", ").append(end);
    }
    all.append(buffer, static_cast<size_t>(got));
  }
  return "too much";
}

void SetBlocking(SOCKET s, bool blocking) {
  u_long mode = blocking ? 0 : 1;
  ioctlsocket(s, static_cast<long>(FIONBIO), &mode);
}

int ErrorOption(SOCKET s) {
  int error = -1;
  int size = sizeof error;
  getsockopt(s, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
  return error;
}

namespace {

timeval Time(DWORD ms) {
  return {static_cast<long>(ms / 1000), static_cast<long>(ms % 1000) * 1000};
}

fd_set One(SOCKET s) {
  fd_set set;
  FD_ZERO(&set);
  set.fd_array[set.fd_count++] = s;
  return set;
}

}  // namespace

std::string Ready(SOCKET s, DWORD wait_ms) {
  fd_set reading = One(s);
  fd_set writing = One(s);
  fd_set except = One(s);
  timeval wait = Time(wait_ms);
  const int count = select(0, &reading, &writing, &except, &wait);
  if (count <= 0) return count == 0 ? "nothing" : Said(count);
  std::string ready;
  if (reading.fd_count != 0) ready.append("read ");
  if (writing.fd_count != 0) ready.append("write ");
  if (except.fd_count != 0) ready.append("except ");
  ready.pop_back();
  return ready;
}

bool Readable(SOCKET s, DWORD wait_ms) {
  fd_set set = One(s);
  timeval wait = Time(wait_ms);
  return select(0, &set, nullptr, nullptr, &wait) == 1;
}

bool Writable(SOCKET s, DWORD wait_ms) {
  fd_set set = One(s);
  timeval wait = Time(wait_ms);
  return select(0, nullptr, &set, nullptr, &wait) == 1;
}

Socket Listener(sockaddr_in* address) {
  Socket s = NewStream();
  *address = Address("127.0.0.1", 0);
  bind(s, Of(*address), sizeof *address);
  int size = sizeof *address;
  getsockname(s, Of(*address), &size);
  listen(s, 5);
  return s;
}

Pair LoopbackPair() {
  sockaddr_in address;
  const Socket listener = Listener(&address);
  Socket near_end = NewStream();
  Bound(near_end);
  connect(near_end, Of(address), sizeof address);
  Socket far_end(accept(listener, nullptr, nullptr));
  Bound(far_end);
  return {std::move(near_end), std::move(far_end)};
}

std::string Pending::End(SOCKET s, int result, DWORD patience_ms) {
  if (result == SOCKET_ERROR && WSAGetLastError() != WSA_IO_PENDING) return Said(result);
  if (!event.Await(patience_ms)) {
    CancelIo(reinterpret_cast<HANDLE>(s));
    event.Await();
    return "pending";
  }
  DWORD bytes = 0;
  if (!WSAGetOverlappedResult(s, &overlapped, &bytes, FALSE, &flags)) return Said(-1);
  return Number(bytes).append(" bytes");
}

}  // namespace parity
