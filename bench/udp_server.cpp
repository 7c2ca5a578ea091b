#include "bench/udp_server.h"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "bench/private_network.h"

namespace bench {
namespace {

constexpr int kBufferBytes = 1 << 20;

[[noreturn]] void Echo(int s) {
  for (;;) {
    static char bytes[1 << 16];
    sockaddr_in from;
    socklen_t from_size = sizeof from;
    const ssize_t size =
        recvfrom(s, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from), &from_size);
    if (size < 0) continue;
    sendto(s, bytes, static_cast<std::size_t>(size), 0, reinterpret_cast<sockaddr*>(&from),
           from_size);
  }
}

}  // namespace

void StartEchoServer(std::uint16_t* port) {
  const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int size = kBufferBytes;
  setsockopt(s, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  inet_pton(AF_INET, kServerAddress, &address.sin_addr);
  socklen_t address_size = sizeof address;
  if (bind(s, reinterpret_cast<sockaddr*>(&address), address_size) != 0 ||
      getsockname(s, reinterpret_cast<sockaddr*>(&address), &address_size) != 0) {
    std::perror("udp_bench: the server has no socket");
    std::exit(1);
  }
  *port = ntohs(address.sin_port);
  if (fork() == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Echo(s);
  }
  close(s);
}

}  // namespace bench
