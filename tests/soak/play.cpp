#include "tests/soak/play.h"

#include <cstdio>

namespace soak {

PlayFigures played;

namespace {

constexpr DWORD kAnswerMs = 500;
PlayOptions playing;  // set before there are threads

sockaddr_in Server() {
  sockaddr_in to = {};
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = static_cast<decltype(to.sin_addr.s_addr)>(inet_addr(kServer));
  to.sin_port = htons(kServerPort);
  return to;
}

bool IsReadable(SOCKET s, DWORD ms) {
  fd_set set = {};
  FD_SET(s, &set);
  struct timeval most = {static_cast<int>(ms / 1000), static_cast<int>(ms % 1000 * 1000)};
  return select(0, &set, nullptr, nullptr, &most) == 1;
}

void Pause(DWORD ms) { Sleep(ms * playing.calm); }

// Closes one of the sockets that come and go, or leaks it.
void Leave(SOCKET s) {
  static std::atomic<unsigned> left{0};
  if (playing.leak_every != 0 && ++left % playing.leak_every == 0) return;
  closesocket(s);
}

// Sends one datagram, and waits for its answer unless it is late.
void Exchange(SOCKET s, const std::string& text) {
  const sockaddr_in to = Server();
  ++played.sent;
  if (sendto(s, text.data(), static_cast<int>(text.size()), 0,
             reinterpret_cast<const struct sockaddr*>(&to), sizeof to) < 0)
    return;
  if (!IsReadable(s, kAnswerMs)) return;
  char bytes[2048];
  const int n = recv(s, bytes, sizeof bytes, 0);
  if (n <= 0) return;
  ++played.answered;
  if (std::string(bytes, static_cast<size_t>(n)).rfind("soak ", 0) != 0) ++played.wrong;
}

DWORD WINAPI TalkLong(LPVOID) {
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  for (unsigned long n = 0;; ++n, Pause(40)) Exchange(s, "soak " + std::to_string(n));
}

DWORD WINAPI TalkShort(LPVOID) {
  for (;; Pause(120)) {
    const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
    for (int n = 0; n < 3; ++n) Exchange(s, "soak short " + std::to_string(n));
    Leave(s);
  }
}

SOCKET Join() {
  const SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  const DWORD most_ms = 8000;
  for (const int which : {SO_RCVTIMEO, SO_SNDTIMEO})
    setsockopt(s, SOL_SOCKET, which, reinterpret_cast<const char*>(&most_ms), sizeof most_ms);
  const sockaddr_in to = Server();
  if (connect(s, reinterpret_cast<const struct sockaddr*>(&to), sizeof to) == 0) return s;
  closesocket(s);
  return INVALID_SOCKET;
}

// False if the stream has ended.
bool Echo(SOCKET s, const std::string& text) {
  if (send(s, text.data(), static_cast<int>(text.size()), 0) != static_cast<int>(text.size()))
    return false;
  std::string got;
  char bytes[4096];
  while (got.size() < text.size()) {
    const int n = recv(s, bytes, sizeof bytes, 0);
    if (n <= 0) return false;
    got.append(bytes, static_cast<size_t>(n));
  }
  if (got != text) ++played.wrong;
  return true;
}

DWORD WINAPI StreamLong(LPVOID) {
  for (;; Pause(200)) {
    const SOCKET s = Join();
    if (s == INVALID_SOCKET) continue;
    for (unsigned long n = 0; Echo(s, "soak " + std::to_string(n)); ++n) Pause(100);
    ++played.again;
    closesocket(s);
  }
}

DWORD WINAPI StreamShort(LPVOID) {
  const std::string text(3000, 's');
  for (;; Pause(80)) {
    const SOCKET s = Join();
    ++played.streams;
    if (s == INVALID_SOCKET || !Echo(s, text)) ++played.failed;
    if (s != INVALID_SOCKET) Leave(s);
  }
}

}  // namespace

void Start(LPTHREAD_START_ROUTINE body) {
  CloseHandle(CreateThread(nullptr, 0, body, nullptr, 0, nullptr));
}

void StartPlaying(const PlayOptions& options) {
  playing = options;
  for (const LPTHREAD_START_ROUTINE body : {TalkLong, TalkShort, StreamLong, StreamShort})
    Start(body);
}

std::string PlayedJson() {
  char text[256];
  std::snprintf(text, sizeof text,
                "\"sent\": %lu, \"answered\": %lu, \"streams\": %lu, \"failed\": %lu, "
                "\"again\": %lu, \"wrong\": %lu",
                played.sent.load(), played.answered.load(), played.streams.load(),
                played.failed.load(), played.again.load(), played.wrong.load());
  return text;
}

}  // namespace soak
