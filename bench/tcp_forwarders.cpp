#include "bench/tcp_forwarders.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

namespace bench {
namespace {

constexpr int kListenTries = 500;
constexpr useconds_t kListenPauseUs = 10'000;

bool Listens(const sockaddr_in& address) {
  const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool connected =
      connect(s, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  close(s);
  return connected;
}

}  // namespace

std::vector<std::string> SocatCommand(std::uint16_t from, const std::string& to,
                                      std::uint16_t to_port) {
  return {
      "socat",
      "TCP4-LISTEN:" + std::to_string(from) + ",bind=127.0.0.1,reuseaddr,fork,backlog=128,nodelay",
      "TCP4:" + to + ":" + std::to_string(to_port) + ",nodelay"};
}

std::vector<std::string> HaproxyCommand(const std::string& folder, std::uint16_t from,
                                        const std::string& to, std::uint16_t to_port) {
  const std::string path = folder + "/haproxy.cfg";
  std::ofstream(path) << "global\n  nbthread 1\n"
                      << "defaults\n  mode tcp\n  timeout connect 5s\n  timeout client 1m\n"
                      << "  timeout server 1m\n"
                      << "listen forward\n  bind 127.0.0.1:" << from << "\n  server game " << to
                      << ":" << to_port << "\n";
  return {"haproxy", "-db", "-q", "-f", path};
}

bool WaitForListener(const std::string& address, std::uint16_t port) {
  sockaddr_in wanted = {};
  wanted.sin_family = AF_INET;
  wanted.sin_port = htons(port);
  inet_pton(AF_INET, address.c_str(), &wanted.sin_addr);
  for (int i = 0; i < kListenTries; ++i) {
    if (Listens(wanted)) return true;
    usleep(kListenPauseUs);
  }
  return false;
}

}  // namespace bench
