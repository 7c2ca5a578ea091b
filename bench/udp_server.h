// The far end of every flow: a process of its own on the host's own sockets, which sends each
// datagram back.
#pragma once
#include <cstdint>

namespace bench {

// Starts it on the game server's address; the process ends with its parent. The port is
// chosen by the system.
void StartEchoServer(std::uint16_t* port);

}  // namespace bench
