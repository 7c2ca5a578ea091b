// The far end of every connection: a process of its own on the host's own sockets. The first 17
// bytes of a connection say what it is to do: 'e' echo, 'd' send, 'u' take; then two big-endian
// numbers of 8 bytes. 'd' N _ sends N bytes; 'u' N _ takes N bytes and answers with one; 'e' echoes
// to the end. A request may follow another.
#pragma once
#include <sys/types.h>

#include <cstdint>
#include <string>

namespace bench {

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
