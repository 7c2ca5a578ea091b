// Sockets that close themselves, and IPv4 addresses as text. Errors are Winsock's numbers.
#pragma once
#include <winsock2.h>

#include <string>

#include "common/types.h"

namespace node {

using moru_vyr::lsp::u16;
using moru_vyr::lsp::u32;
using moru_vyr::lsp::u64;
using moru_vyr::lsp::u8;

// Host order.
struct Address {
  u32 ip = 0;
  u16 port = 0;

  bool loopback() const { return ip >> 24 == 127; }
  // Whether traffic can be sent there: it has a port, and is not a multicast or broadcast address.
  bool server() const { return ip != 0 && ip < 0xE0000000 && port != 0; }
  std::string Text() const;  // "198.51.100.20:7001"
  sockaddr_in Raw() const;
  static Address Of(const sockaddr_in& raw);
};

inline bool operator==(const Address& a, const Address& b) {
  return a.ip == b.ip && a.port == b.port;
}

// Strict: four decimal numbers up to 255 and nothing else; for the second form followed by ":" and
// a port from 0 to 65535.
bool ParseIp(const std::string& text, u32* ip);
bool ParseAddress(const std::string& text, Address* address);

class Socket {
 public:
  Socket() = default;
  explicit Socket(SOCKET handle) : handle_(handle) {}
  Socket(Socket&& other) noexcept : handle_(other.Release()) {}
  Socket& operator=(Socket&& other) noexcept;
  ~Socket() { Close(); }

  // A new non-blocking stream socket. If it is not open, the last error is the reason.
  static Socket Stream();
  // A bound, listening socket; *error is 0, or why it could not be created.
  static Socket Listener(const Address& address, int* error);
  // A bound non-blocking datagram socket; *error as for Listener.
  static Socket Datagram(const Address& address, int* error);

  bool open() const { return handle_ != INVALID_SOCKET; }
  SOCKET get() const { return handle_; }
  Address Local() const;

  void Close();
  // Closes with a reset; what the other side has not read is lost.
  void Abort();

 private:
  SOCKET Release();

  SOCKET handle_ = INVALID_SOCKET;
};

// Non-blocking, with TCP_NODELAY, and with keep-alive for connections whose other side disappears.
int PrepareStream(SOCKET socket);

// 0, or the error of the connect; WSAEWOULDBLOCK while it is in progress.
int StartConnect(SOCKET socket, const Address& to);

// 0 with one datagram, or the error; *from is the sender. WSAEWOULDBLOCK: there is none. Any other
// error concerns one datagram, and more may be waiting.
int ReceiveFrom(SOCKET socket, char* bytes, std::size_t room, std::size_t* size, Address* from);
// 0, or the error, after which the datagram is lost.
int SendTo(SOCKET socket, const char* bytes, std::size_t size, const Address& to);

// The error that an asynchronous operation left behind, 0 for none.
int PendingError(SOCKET socket);

}  // namespace node
