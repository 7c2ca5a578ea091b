#include "node/socket.h"

#include <cstdio>
#include <utility>

namespace node {
namespace {

constexpr int kBacklog = 128;
constexpr int kDatagramRoom = 1024 * 1024;  // bytes that the system may hold for a busy node

int SetOption(SOCKET socket, int level, int option, int value) {
  return setsockopt(socket, level, option, reinterpret_cast<const char*>(&value), sizeof value);
}

const struct sockaddr* Generic(const sockaddr_in* address) {
  return reinterpret_cast<const struct sockaddr*>(address);
}

// A decimal number of at most `digits` digits, at most `most`; `*at` moves behind it.
bool TakeNumber(const std::string& text, std::size_t* at, std::size_t digits, u32 most, u32* out) {
  const std::size_t begin = *at;
  u32 value = 0;
  while (*at < text.size() && *at - begin < digits && text[*at] >= '0' && text[*at] <= '9')
    value = value * 10 + static_cast<u32>(text[(*at)++] - '0');
  if (*at == begin || value > most) return false;
  *out = value;
  return true;
}

bool Take(const std::string& text, std::size_t* at, char expected) {
  if (*at >= text.size() || text[*at] != expected) return false;
  ++*at;
  return true;
}

bool TakeIp(const std::string& text, std::size_t* at, u32* ip) {
  u32 value = 0;
  for (int i = 0; i < 4; ++i) {
    u32 part = 0;
    if (i > 0 && !Take(text, at, '.')) return false;
    if (!TakeNumber(text, at, 3, 255, &part)) return false;
    value = value << 8 | part;
  }
  *ip = value;
  return true;
}

}  // namespace

std::string Address::Text() const {
  char text[32];
  std::snprintf(text, sizeof text, "%u.%u.%u.%u:%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255,
                ip & 255, static_cast<unsigned>(port));
  return text;
}

sockaddr_in Address::Raw() const {
  sockaddr_in raw = {};
  raw.sin_family = AF_INET;
  raw.sin_addr.s_addr = htonl(ip);
  raw.sin_port = htons(port);
  return raw;
}

Address Address::Of(const sockaddr_in& raw) {
  return {static_cast<u32>(ntohl(raw.sin_addr.s_addr)), ntohs(raw.sin_port)};
}

bool ParseIp(const std::string& text, u32* ip) {
  std::size_t at = 0;
  return TakeIp(text, &at, ip) && at == text.size();
}

bool ParseAddress(const std::string& text, Address* address) {
  std::size_t at = 0;
  u32 ip = 0, port = 0;
  if (!TakeIp(text, &at, &ip) || !Take(text, &at, ':')) return false;
  if (!TakeNumber(text, &at, 5, 65535, &port) || at != text.size()) return false;
  *address = {ip, static_cast<u16>(port)};
  return true;
}

Socket& Socket::operator=(Socket&& other) noexcept {
  if (this != &other) {
    Close();
    handle_ = other.Release();
  }
  return *this;
}

Socket Socket::Stream() {
  Socket stream(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  if (stream.open()) PrepareStream(stream.get());
  return stream;
}

Socket Socket::Listener(const Address& address, int* error) {
  Socket listener = Stream();
#ifndef _WIN32
  // Elsewhere a port stays taken for a minute after its connections have ended; Windows knows no
  // such wait, and there the option would let two listeners share the port.
  if (listener.open()) SetOption(listener.get(), SOL_SOCKET, SO_REUSEADDR, 1);
#endif
  const sockaddr_in raw = address.Raw();
  if (listener.open() && bind(listener.get(), Generic(&raw), sizeof raw) == 0 &&
      listen(listener.get(), kBacklog) == 0) {
    *error = 0;
    return listener;
  }
  *error = WSAGetLastError();
  return Socket();
}

Socket Socket::Datagram(const Address& address, int* error) {
  Socket datagrams(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
  const sockaddr_in raw = address.Raw();
  u_long on = 1;
  if (datagrams.open() && ioctlsocket(datagrams.get(), static_cast<long>(FIONBIO), &on) == 0 &&
      bind(datagrams.get(), Generic(&raw), sizeof raw) == 0) {
    SetOption(datagrams.get(), SOL_SOCKET, SO_RCVBUF, kDatagramRoom);
    *error = 0;
    return datagrams;
  }
  *error = WSAGetLastError();
  return Socket();
}

Address Socket::Local() const {
  sockaddr_in raw = {};
  int size = sizeof raw;
  if (getsockname(handle_, reinterpret_cast<struct sockaddr*>(&raw), &size) != 0) return {};
  return Address::Of(raw);
}

void Socket::Close() {
  if (open()) closesocket(Release());
}

void Socket::Abort() {
  if (!open()) return;
  const struct { unsigned short on, seconds; } linger = {1, 0};
  setsockopt(handle_, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(&linger), sizeof linger);
  Close();
}

SOCKET Socket::Release() { return std::exchange(handle_, INVALID_SOCKET); }

int PrepareStream(SOCKET socket) {
  u_long on = 1;
  if (ioctlsocket(socket, static_cast<long>(FIONBIO), &on) != 0) return WSAGetLastError();
  // Both are optional: a node works without them.
  SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
  return 0;
}

int StartConnect(SOCKET socket, const Address& to) {
  const sockaddr_in raw = to.Raw();
  return connect(socket, Generic(&raw), sizeof raw) == 0 ? 0 : WSAGetLastError();
}

int ReceiveFrom(SOCKET socket, char* bytes, std::size_t room, std::size_t* size, Address* from) {
  sockaddr_in raw = {};
  int raw_size = sizeof raw;
  const int count = recvfrom(socket, bytes, static_cast<int>(room), 0,
                             reinterpret_cast<struct sockaddr*>(&raw), &raw_size);
  if (count == SOCKET_ERROR) return WSAGetLastError();
  *size = static_cast<std::size_t>(count);
  *from = Address::Of(raw);
  return 0;
}

int SendTo(SOCKET socket, const char* bytes, std::size_t size, const Address& to) {
  const sockaddr_in raw = to.Raw();
  const int count =
      sendto(socket, bytes, static_cast<int>(size), 0, Generic(&raw), static_cast<int>(sizeof raw));
  return count == SOCKET_ERROR ? WSAGetLastError() : 0;
}

int PendingError(SOCKET socket) {
  int error = 0, size = sizeof error;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size) != 0)
    return WSAGetLastError();
  return error;
}

}  // namespace node
