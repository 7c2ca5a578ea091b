#include "bench/tcp_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace bench {
namespace {

constexpr std::size_t kPiece = 1 << 16;
constexpr int kBacklog = 128;

bool SendAll(int s, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = send(s, bytes, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

bool Give(int s, std::uint64_t amount, const std::vector<char>& piece) {
  for (; amount > 0;) {
    const auto size = static_cast<std::size_t>(std::min<std::uint64_t>(amount, piece.size()));
    if (!SendAll(s, piece.data(), size)) return false;
    amount -= size;
  }
  return true;
}

bool Take(int s, std::uint64_t amount, std::vector<char>& piece) {
  while (amount > 0) {
    const auto most = static_cast<std::size_t>(std::min<std::uint64_t>(amount, piece.size()));
    const ssize_t got = recv(s, piece.data(), most, 0);
    if (got <= 0) return false;
    amount -= static_cast<std::uint64_t>(got);
  }
  return SendAll(s, "+", 1);
}

// Echoes `amount` bytes, each as soon as it arrives.
bool Echo(int s, std::uint64_t amount, std::vector<char>& piece) {
  while (amount > 0) {
    const ssize_t got = recv(s, piece.data(), piece.size(), 0);
    if (got <= 0 || !SendAll(s, piece.data(), static_cast<std::size_t>(got))) return false;
    amount -= static_cast<std::uint64_t>(got);
  }
  return true;
}

// Like Echo, but each message of kMessage bytes only when it is complete, in a given number of
// pieces.
bool EchoWhole(int s, std::uint64_t amount, std::size_t pieces) {
  char message[kMessage];
  const std::size_t size = sizeof message / pieces;
  for (; amount > 0; amount -= std::min<std::uint64_t>(amount, sizeof message)) {
    if (recv(s, message, sizeof message, MSG_WAITALL) != static_cast<ssize_t>(sizeof message))
      return false;
    for (std::size_t i = 0; i < pieces; ++i) {
      if (i > 0) usleep(kPauseUs);
      if (!SendAll(s, message + i * size, size)) return false;
    }
  }
  return true;
}

void Serve(int s) {
  const int on = 1;
  setsockopt(s, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::vector<char> piece(kPiece);
  unsigned char head[Request::kSize];
  bool goes_on = true;
  while (goes_on && recv(s, head, sizeof head, MSG_WAITALL) == static_cast<ssize_t>(sizeof head)) {
    std::uint64_t amount = 0;
    for (std::size_t i = 1; i < sizeof head; ++i) amount = amount << 8 | head[i];
    switch (head[0]) {
      case 'd':
        goes_on = Give(s, amount, piece);
        break;
      case 'u':
        goes_on = Take(s, amount, piece);
        break;
      case 'w':
        goes_on = EchoWhole(s, amount, 1);
        break;
      case 's':
        goes_on = EchoWhole(s, amount, 2);
        break;
      default:
        goes_on = Echo(s, amount, piece);
    }
  }
  close(s);
}

}  // namespace

std::string Request::Bytes() const {
  std::string bytes(1, what);
  for (int shift = 56; shift >= 0; shift -= 8) bytes += static_cast<char>(amount >> shift);
  return bytes;
}

pid_t StartServer(std::uint16_t* port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  socklen_t size = sizeof address;
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      listen(listener, kBacklog) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    std::perror("tcp_bench: the server cannot listen");
    std::exit(1);
  }
  *port = ntohs(address.sin_port);
  const pid_t pid = fork();
  if (pid != 0) {
    close(listener);
    return pid;
  }
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  for (;;) {
    const int s = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (s >= 0) std::thread(Serve, s).detach();
  }
}

}  // namespace bench
