// Socket helpers for the player and the server.
#pragma once

#include <winsock2.h>

#include <cstdint>
#include <optional>
#include <string>

namespace game {

// "198.51.100.10:7000"; nothing if it is malformed.
std::optional<sockaddr_in> ParseEndpoint(const std::string& text);
std::string EndpointText(const sockaddr_in& address);
bool IsSame(const sockaddr_in& a, const sockaddr_in& b);

// The socket's own port, 0 while it has none.
uint16_t OwnPort(SOCKET s);

class Socket {
 public:
  Socket() = default;
  explicit Socket(SOCKET s) : socket_(s) {}
  Socket(int type, int protocol) : socket_(socket(AF_INET, type, protocol)) {}
  Socket(Socket&& other) noexcept : socket_(other.socket_) { other.socket_ = INVALID_SOCKET; }
  Socket& operator=(Socket&& other) noexcept;
  ~Socket();

  bool is_open() const { return socket_ != INVALID_SOCKET; }
  SOCKET get() const { return socket_; }
  bool SetNonBlocking();

 private:
  SOCKET socket_ = INVALID_SOCKET;
};

// True once one of the sockets is readable; false after the time. At most FD_SETSIZE of them.
bool WaitReadable(const SOCKET* sockets, size_t count, int64_t microseconds);

uint64_t NowUs();  // a monotonic clock

// "10061 (connection refused)"; the common ones in words.
std::string ErrorText(int error);

}  // namespace game
