// The datagram forwarders that the library's relay is compared with. Each forwards 127.0.0.1:`from`
// to `to`:`to_port`, and passes answers back to the sender.
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

// Other programs, configured as their manuals recommend. They end a flow after some seconds without
// a datagram.
std::vector<std::string> SocatCommand(const ForwardedPort& port);
// Empty if there is no such module.
std::vector<std::string> NginxCommand(const std::string& folder, const ForwardedPort& port);

// The smallest possible forwarder: select, and one datagram in and out for each socket that is
// ready. Does not return.
void ForwardBySelect(const ForwardedPort& port);

// True as soon as a datagram comes back through the forwarder; false after some seconds.
bool WaitForEcho(std::uint16_t port);

}  // namespace bench
