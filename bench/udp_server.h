// The server of every flow: a separate process that uses the host's sockets and sends each datagram
// back.
#pragma once
#include <cstdint>

namespace bench {

// Starts the server on the game server's address, on a port that the system chooses. The process
// ends with its parent.
void StartEchoServer(std::uint16_t* port);

}  // namespace bench
