// The far end of every connection: a process of its own on the host's own sockets. A request of 9
// bytes says what it is to do: 'e' N echoes N bytes as they come, 'w' N echoes N bytes in whole
// messages, 's' N the same with each message in two pieces, 'd' N sends N bytes, 'u' N takes N
// bytes and answers with one. The number is big-endian. A request may follow another.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

constexpr std::size_t kMessage = 64;  // of 'w' and 's'
constexpr unsigned kPauseUs = 200;  // between pieces, on either side: each should be sent by itself

struct Request {
  char what;
  std::uint64_t amount;
  std::string Bytes() const;
  static constexpr std::size_t kSize = 9;
};

// Starts it on every address of this machine; the process ends with its parent. The port is
// chosen by the system.
pid_t StartServer(std::uint16_t* port);

}  // namespace bench
