#include "bench/tcp_forwarders.h"

#include <fstream>

namespace bench {
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

}  // namespace bench
