// The forwarders of datagrams that stand beside the library's relay. Each forwards
// 127.0.0.1:`from` to `to`:`to_port`, and what comes back to whoever had sent it something.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

struct ForwardedPort {
  std::uint16_t from;
  std::string to;
  std::uint16_t to_port;
};

// Other programs, as their makers' manuals have it. A program's flow ends after some seconds
// without a datagram.
std::vector<std::string> SocatCommand(const ForwardedPort& port);
// Empty where there is no such module.
std::vector<std::string> NginxCommand(const std::string& folder, const ForwardedPort& port);

// The least that does it: select, and for each socket that is ready one datagram in and out. Does
// not return.
void ForwardBySelect(const ForwardedPort& port);

// True once a datagram comes back through it; false after some seconds.
bool WaitForEcho(std::uint16_t port);

}  // namespace bench
