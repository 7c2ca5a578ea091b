// A game that runs until its standard input ends, and transfers bytes in both directions at once as
// the lines of the input say:
//   transfer UP DOWN     over a new connection
//   hold COUNT           opens that many connections and keeps them open
//   move UP DOWN         over each of these connections at the same time; then closes them
// Each connection starts with 20 little-endian bytes: its number, the bytes up, the bytes down.
// Then each side sends a part of an endless pattern, which begins at a position that depends on the
// number. Both ends know the pattern.
#include <iostream>
#include <sstream>
#include <vector>

#include "probe.h"

namespace {

// A prime, so that bytes which are misplaced by whole buffers are detected.
constexpr size_t kPatternPeriod = 1048573;
constexpr size_t kPiece = 1 << 16;
constexpr DWORD kReceiveTimeoutMs = 60000;

using Size = unsigned long long;

// Long enough for a piece that begins anywhere in the first period.
std::string MakePattern() {
  std::string pattern;
  unsigned word = 1;
  while (pattern.size() < kPatternPeriod) {
    word = word * 1664525u + 1013904223u;
    pattern += static_cast<char>(word >> 24);
  }
  return pattern + pattern.substr(0, kPiece);
}

const std::string& Pattern() {
  static const std::string pattern = MakePattern();
  return pattern;
}

struct Connection {
  SOCKET socket = INVALID_SOCKET;
  unsigned number = 0;
  Size up = 0;
  Size down = 0;
  bool sent = false;
  Size received = 0;  // up to the first wrong byte
  HANDLE thread = nullptr;

  const char* At(Size offset) const {
    return Pattern().data() + (offset + number * Size{7919}) % kPatternPeriod;
  }
};

std::string Little(Size value, int width) {
  std::string bytes;
  for (int i = 0; i < width; ++i) bytes += static_cast<char>(value >> (8 * i));
  return bytes;
}

bool SendAll(SOCKET s, const char* data, size_t size) {
  while (size > 0) {
    const int sent = send(s, data, static_cast<int>(size), 0);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<size_t>(sent);
  }
  return true;
}

DWORD WINAPI Upload(void* argument) {
  auto& c = *static_cast<Connection*>(argument);
  const std::string head = Little(c.number, 4) + Little(c.up, 8) + Little(c.down, 8);
  c.sent = SendAll(c.socket, head.data(), head.size());
  for (Size at = 0; c.sent && at < c.up;) {
    const Size piece = c.up - at < kPiece ? c.up - at : kPiece;
    c.sent = SendAll(c.socket, c.At(at), static_cast<size_t>(piece));
    at += piece;
  }
  return 0;
}

// The byte that the server sends after the pattern confirms that it has received everything.
void Download(Connection* c) {
  std::vector<char> piece(kPiece);
  while (c->received < c->down) {
    const Size left = c->down - c->received;
    const int wanted = static_cast<int>(left < kPiece ? left : kPiece);
    const int got = recv(c->socket, piece.data(), wanted, 0);
    if (got <= 0) return probe::Say("receive: %d, error %d", got, WSAGetLastError());
    if (std::memcmp(piece.data(), c->At(c->received), static_cast<size_t>(got)) != 0) return;
    c->received += static_cast<Size>(got);
  }
}

DWORD WINAPI Move(void* argument) {
  auto& c = *static_cast<Connection*>(argument);
  const HANDLE upload = CreateThread(nullptr, 0, Upload, &c, 0, nullptr);
  Download(&c);
  WaitForSingleObject(upload, INFINITE);
  CloseHandle(upload);
  char verdict = 0;
  c.sent = c.sent && recv(c.socket, &verdict, 1, 0) == 1 && verdict == '+';
  return 0;
}

bool SeesTheServer(SOCKET s) {
  sockaddr_in peer = {};
  int size = sizeof peer;
  return getpeername(s, reinterpret_cast<sockaddr*>(&peer), &size) == 0 &&
         peer.sin_addr.s_addr == probe::g_server.sin_addr.s_addr &&
         peer.sin_port == probe::g_server.sin_port;
}

Connection Connect() {
  static unsigned last_number = 0;
  Connection c;
  c.socket = probe::NewStream();
  c.number = ++last_number;
  setsockopt(c.socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&kReceiveTimeoutMs),
             sizeof kReceiveTimeoutMs);
  if (connect(c.socket, probe::Server(), sizeof probe::g_server) != 0 || !SeesTheServer(c.socket)) {
    probe::Say("connection %u: failed with %d, or another peer", c.number, WSAGetLastError());
  }
  return c;
}

void Transfer(Size up, Size down) {
  Connection c = Connect();
  c.up = up;
  c.down = down;
  Move(&c);
  closesocket(c.socket);
  probe::Say("transfer %u: sent %s, received %s", c.number, c.sent ? "right" : "wrong",
             c.received == down ? "right" : "wrong");
}

void MoveAll(std::vector<Connection>* connections, Size up, Size down) {
  size_t right = 0;
  for (Connection& c : *connections) {
    c.up = up;
    c.down = down;
    c.thread = CreateThread(nullptr, 0, Move, &c, 0, nullptr);
  }
  for (Connection& c : *connections) {
    WaitForSingleObject(c.thread, INFINITE);
    CloseHandle(c.thread);
    closesocket(c.socket);
    if (c.sent && c.received == c.down) ++right;
  }
  probe::Say("moved: %u right of %u", static_cast<unsigned>(right),
             static_cast<unsigned>(connections->size()));
  connections->clear();
}

}  // namespace

int main(int argc, char** argv) {
  probe::Begin(argc, argv);
  Pattern();  // creates it before there are threads that use it
  std::vector<Connection> held;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream words(line);
    std::string what;
    Size first = 0;
    Size second = 0;
    words >> what >> first >> second;
    if (what == "transfer") Transfer(first, second);
    if (what == "move") MoveAll(&held, first, second);
    if (what != "hold") continue;
    while (held.size() < first) held.push_back(Connect());
    probe::Say("held: %u", static_cast<unsigned>(held.size()));
  }
  return probe::End();
}
