#include "game/sockets.h"

#include <windows.h>

#include <algorithm>
#include <charconv>
#include <chrono>

namespace game {

std::optional<sockaddr_in> ParseEndpoint(const std::string& text) {
  const size_t colon = text.rfind(':');
  if (colon == std::string::npos) return std::nullopt;
  const std::string ip = text.substr(0, colon);
  uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
  if (error != std::errc() || stop != end || port == 0) return std::nullopt;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = static_cast<uint32_t>(inet_addr(ip.c_str()));
  const bool is_dotted = std::count(ip.begin(), ip.end(), '.') == 3;
  if (!is_dotted || address.sin_addr.s_addr == INADDR_NONE) return std::nullopt;
  return address;
}

std::string EndpointText(const sockaddr_in& address) {
  return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

bool IsSame(const sockaddr_in& a, const sockaddr_in& b) {
  return a.sin_port == b.sin_port && a.sin_addr.s_addr == b.sin_addr.s_addr;
}

uint16_t OwnPort(SOCKET s) {
  sockaddr_in own = {};
  int size = sizeof own;
  if (getsockname(s, reinterpret_cast<sockaddr*>(&own), &size) != 0) return 0;
  return ntohs(own.sin_port);
}

Socket& Socket::operator=(Socket&& other) noexcept {
  std::swap(socket_, other.socket_);
  return *this;
}

Socket::~Socket() {
  if (is_open()) closesocket(socket_);
}

bool Socket::SetNonBlocking() {
  u_long on = 1;
  return ioctlsocket(socket_, FIONBIO, &on) == 0;
}

bool WaitReadable(const SOCKET* sockets, size_t count, int64_t microseconds) {
  microseconds = std::max<int64_t>(microseconds, 0);
  if (count == 0) {
    Sleep(static_cast<DWORD>(microseconds / 1000));
    return false;
  }
  fd_set readable;
  FD_ZERO(&readable);
  for (size_t i = 0; i < count; ++i) FD_SET(sockets[i], &readable);
  timeval limit = {};
  limit.tv_sec = static_cast<decltype(limit.tv_sec)>(microseconds / 1'000'000);
  limit.tv_usec = static_cast<decltype(limit.tv_sec)>(microseconds % 1'000'000);
  return select(0, &readable, nullptr, nullptr, &limit) > 0;
}

uint64_t NowUs() {
  const auto now = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

std::string ErrorText(int error) {
  const char* words = nullptr;
  switch (error) {
    case WSAEACCES:
      words = "not permitted";
      break;
    case WSAEADDRINUSE:
      words = "address in use";
      break;
    case WSAEADDRNOTAVAIL:
      words = "no address of this machine";
      break;
    case WSAECONNREFUSED:
      words = "connection refused";
      break;
    case WSAECONNRESET:
      words = "connection reset";
      break;
    case WSAETIMEDOUT:
      words = "timed out";
      break;
    case WSAENETUNREACH:
    case WSAEHOSTUNREACH:
      words = "unreachable";
      break;
    default:
      break;
  }
  return std::to_string(error) + (words == nullptr ? "" : std::string(" (") + words + ")");
}

}  // namespace game
