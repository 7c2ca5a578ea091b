// Sockets over the loopback interface, on every platform.
#pragma once
#include <winsock2.h>

#include <gtest/gtest.h>

#include <string>

namespace test {

// Sockets on Windows need one WSAStartup.
inline void StartWinsock() {
  static const int result = [] {
    WSADATA data;
    return WSAStartup(MAKEWORD(2, 2), &data);
  }();
  EXPECT_EQ(result, 0);
}

// Owns a socket and closes it.
class OwnSocket {
 public:
  explicit OwnSocket(SOCKET s = INVALID_SOCKET) : s_(s) {}
  ~OwnSocket() { Close(); }
  OwnSocket(const OwnSocket&) = delete;
  OwnSocket& operator=(const OwnSocket&) = delete;
  operator SOCKET() const { return s_; }  // NOLINT: used like the handle
  void Reset(SOCKET s) {
    Close();
    s_ = s;
  }
  void Close() {
    if (s_ != INVALID_SOCKET) closesocket(s_);
    s_ = INVALID_SOCKET;
  }
  SOCKET Release() {
    const SOCKET s = s_;
    s_ = INVALID_SOCKET;
    return s;
  }

 private:
  SOCKET s_;
};

inline sockaddr* Raw(sockaddr_in* address) { return reinterpret_cast<sockaddr*>(address); }

// A socket bound to a free port of 127.0.0.1; *address is set to its address.
inline SOCKET BoundSocket(int type, sockaddr_in* address) {
  StartWinsock();
  const SOCKET s = socket(AF_INET, type, 0);
  *address = {};
  address->sin_family = AF_INET;
  address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(s, Raw(address), sizeof *address), 0);
  int size = sizeof *address;
  EXPECT_EQ(getsockname(s, Raw(address), &size), 0);
  return s;
}

inline void MakeNonBlocking(SOCKET s) {
  u_long on = 1;
  EXPECT_EQ(ioctlsocket(s, static_cast<long>(FIONBIO), &on), 0);
}

// Whether the socket becomes readable within ten seconds.
inline bool BecomesReadable(SOCKET s) {
  fd_set set;
  set.fd_count = 1;
  set.fd_array[0] = s;
  timeval limit{10, 0};
  return select(0, &set, nullptr, nullptr, &limit) == 1;
}

inline bool BecomesWritable(SOCKET s, int milliseconds) {
  fd_set set;
  set.fd_count = 1;
  set.fd_array[0] = s;
  timeval limit{0, milliseconds * 1000};
  return select(0, nullptr, &set, nullptr, &limit) == 1;
}

// Both ends of a stream. `here` is non-blocking.
struct StreamPair {
  StreamPair() {
    sockaddr_in address;
    const OwnSocket listener(BoundSocket(SOCK_STREAM, &address));
    EXPECT_EQ(listen(listener, 1), 0);
    here.Reset(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    EXPECT_EQ(connect(here, Raw(&address), sizeof address), 0);
    there.Reset(accept(listener, nullptr, nullptr));
    MakeNonBlocking(here);
  }
  // Sends from the other end, and waits until everything has arrived at this end.
  void OtherEndSays(const std::string& bytes) {
    EXPECT_EQ(send(there, bytes.data(), static_cast<int>(bytes.size()), 0),
              static_cast<int>(bytes.size()));
    if (bytes.empty()) return;
    std::string seen(bytes.size(), '\0');
    while (BecomesReadable(here)) {
      const int n = recv(here, seen.data(), static_cast<int>(seen.size()), MSG_PEEK);
      if (n == static_cast<int>(bytes.size())) return;
    }
    ADD_FAILURE() << "the bytes did not arrive";
  }
  OwnSocket here, there;
};

}  // namespace test
