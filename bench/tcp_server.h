// The server of every connection: a separate process that uses the host's sockets. A request has 9
// bytes, a letter and a big-endian number: 'e' N echoes N bytes as they arrive, 'w' N echoes N
// bytes in whole messages, 's' N does the same with each message in two pieces, 'd' N sends N
// bytes, 'u' N receives N bytes and answers with one. A connection may carry several requests.
#pragma once
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

constexpr std::size_t kMessage = 64;  // of 'w' and 's'
constexpr unsigned kPauseUs = 200;    // between pieces, on either side, so each is sent separately

struct Request {
  char what;
  std::uint64_t amount;
  std::string Bytes() const;
  static constexpr std::size_t kSize = 9;
};

// Starts the server on every address of this machine, on a port that the system chooses. The
// process ends with its parent.
pid_t StartServer(std::uint16_t* port);

}  // namespace bench
