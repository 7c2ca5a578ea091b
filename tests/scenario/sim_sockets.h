// Short forms of the socket calls, for tests in the simulation.
#pragma once
#include "port/sim/scenario.h"
//
#include <winsock2.h>

#include <memory>
#include <optional>
#include <string>

namespace sim_test {

inline sockaddr_in At(const char* ip, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = static_cast<in_addr_t>(inet_addr(ip));
  address.sin_port = htons(static_cast<uint16_t>(port));
  return address;
}
inline const struct sockaddr* Raw(const sockaddr_in& address) {
  return reinterpret_cast<const struct sockaddr*>(&address);
}
inline struct sockaddr* Raw(sockaddr_in& address) {
  return reinterpret_cast<struct sockaddr*>(&address);
}

inline SOCKET Tcp() { return socket(AF_INET, SOCK_STREAM, IPPROTO_TCP); }
inline SOCKET Udp() { return socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP); }
inline SOCKET Ping() { return socket(AF_INET, SOCK_RAW, IPPROTO_ICMP); }

inline void NonBlocking(SOCKET s) {
  u_long on = 1;
  ASSERT_EQ(ioctlsocket(s, static_cast<long>(FIONBIO), &on), 0);
}

// Each returns 0 or the error.
inline int ErrorOf(int result) { return result == SOCKET_ERROR ? WSAGetLastError() : 0; }
inline int BindTo(SOCKET s, const char* ip, int port) {
  const sockaddr_in address = At(ip, port);
  return ErrorOf(bind(s, Raw(address), sizeof address));
}
inline int ConnectTo(SOCKET s, const char* ip, int port) {
  const sockaddr_in address = At(ip, port);
  return ErrorOf(connect(s, Raw(address), sizeof address));
}

inline SOCKET ListenAt(int port, int backlog = 16) {
  const SOCKET s = Tcp();
  EXPECT_EQ(BindTo(s, "0.0.0.0", port), 0);
  EXPECT_EQ(listen(s, backlog), 0);
  return s;
}
inline SOCKET AcceptFrom(SOCKET listener) { return accept(listener, nullptr, nullptr); }

inline int SendText(SOCKET s, const std::string& text) {
  return send(s, text.data(), static_cast<int>(text.size()), 0);
}
inline int SendTextTo(SOCKET s, const std::string& text, const char* ip, int port) {
  const sockaddr_in to = At(ip, port);
  return sendto(s, text.data(), static_cast<int>(text.size()), 0, Raw(to), sizeof to);
}
// "error 10054" if the call fails.
inline std::string Received(SOCKET s, int most = 8192, int flags = 0) {
  std::string text(static_cast<size_t>(most), '\0');
  const int n = recv(s, text.data(), most, flags);
  if (n == SOCKET_ERROR) return "error " + std::to_string(WSAGetLastError());
  text.resize(static_cast<size_t>(n));
  return text;
}
// Everything to the end of the stream.
inline std::string ReceivedAll(SOCKET s) {
  std::string all;
  while (true) {
    const std::string more = Received(s);
    if (more.empty()) return all;
    all += more;
    if (more.rfind("error", 0) == 0) return all;
  }
}

// The next datagram, or none for an error. The buffer is not cleared first: 64 KB of new memory
// would cost more than the rest of the call.
inline std::optional<std::string> ReceivedFrom(SOCKET s, sockaddr_in* from) {
  constexpr int kLargest = 65536;
  const auto buffer = std::make_unique_for_overwrite<char[]>(kLargest);
  int size = sizeof *from;
  const int count = recvfrom(s, buffer.get(), kLargest, 0, Raw(*from), &size);
  if (count == SOCKET_ERROR) return std::nullopt;
  return std::string(buffer.get(), static_cast<size_t>(count));
}

inline int IntOption(SOCKET s, int option) {
  int value = -1, size = sizeof value;
  EXPECT_EQ(getsockopt(s, SOL_SOCKET, option, reinterpret_cast<char*>(&value), &size), 0);
  return value;
}
inline void SetIntOption(SOCKET s, int option, int value) {
  ASSERT_EQ(setsockopt(s, SOL_SOCKET, option, reinterpret_cast<const char*>(&value), sizeof value),
            0);
}
inline void ResetOnClose(SOCKET s) {
  const uint16_t linger_now[2] = {1, 0};
  ASSERT_EQ(setsockopt(s, SOL_SOCKET, SO_LINGER, reinterpret_cast<const char*>(linger_now),
                       sizeof linger_now),
            0);
}

// The sets in which select reports the socket, waiting up to that long: some of "rwe".
inline std::string Readiness(SOCKET s, int ms = 0) {
  fd_set read = {}, write = {}, except = {};
  FD_SET(s, &read);
  FD_SET(s, &write);
  FD_SET(s, &except);
  const struct timeval most = {ms / 1000, ms % 1000 * 1000};
  if (select(0, &read, &write, &except, &most) == SOCKET_ERROR)
    return "error " + std::to_string(WSAGetLastError());
  std::string in;
  if (FD_ISSET(s, &read)) in += 'r';
  if (FD_ISSET(s, &write)) in += 'w';
  if (FD_ISSET(s, &except)) in += 'e';
  return in;
}
inline bool ReadableWithin(SOCKET s, int ms) {
  fd_set read = {};
  FD_SET(s, &read);
  const struct timeval most = {ms / 1000, ms % 1000 * 1000};
  return select(0, &read, nullptr, nullptr, &most) == 1;
}

// A text in which every misplaced, lost or duplicated byte can be detected.
inline std::string Pattern(size_t size) {
  static std::string text;  // of the longest one so far: long ones are expensive here
  static size_t numbers = 0;
  while (text.size() < size) text += std::to_string(numbers++) + ",";
  return text.substr(0, size);
}

// A client host and a server host, by default 10 ms apart.
class TwoHosts : public sim::ScenarioTest {
 protected:
  static constexpr const char* kServer = "198.51.100.10";
  static constexpr const char* kClient = "198.51.100.20";

  void SetUp() override {
    sim::LinkOptions link;
    link.delay = 10ms;
    Link(link);
  }
  void Link(const sim::LinkOptions& link) { world.SetLink(client, server, link); }
  sim::LinkOptions link() { return world.link(client, server); }

  // Runs both until they return; false if they do not.
  bool Run(std::function<void()> on_server, std::function<void()> on_client) {
    server_process = &world.SpawnOn(server, "server", std::move(on_server));
    client_process = &world.SpawnOn(client, "client", std::move(on_client));
    return world.RunUntilAllEnd();
  }

  sim::Host& server = world.AddHost("server", {kServer});
  sim::Host& client = world.AddHost("client", {kClient});
  sim::Process* server_process = nullptr;
  sim::Process* client_process = nullptr;
};

}  // namespace sim_test
