#include "bench/udp_forwarders.h"

#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <fstream>
#include <iterator>

namespace bench {
namespace {

constexpr int kEchoTries = 500;
constexpr int kEchoPauseUs = 10'000;
constexpr char kIdleSeconds[] = "5";
constexpr char kStreamModule[] = "/usr/lib/nginx/modules/ngx_stream_module.so";
constexpr std::size_t kFlows = 128;  // at once; a new one replaces the oldest
constexpr time_t kForgottenSeconds = 2;

sockaddr_in Address(const std::string& ip, std::uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  inet_pton(AF_INET, ip.c_str(), &address.sin_addr);
  return address;
}

struct ForwardedFlow {
  sockaddr_in client = {};
  int upstream = -1;
  time_t used = 0;
};

time_t NowSeconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec;
}

class SelectForwarder {
 public:
  explicit SelectForwarder(const ForwardedPort& port)
      : server_(Address(port.to, port.to_port)), listener_(socket(AF_INET, SOCK_DGRAM, 0)) {
    const sockaddr_in here = Address("127.0.0.1", port.from);
    bind(listener_, reinterpret_cast<const sockaddr*>(&here), sizeof here);
  }

  [[noreturn]] void Run() {
    for (;;) {
      fd_set ready;
      FD_ZERO(&ready);
      FD_SET(listener_, &ready);
      int last = listener_;
      for (const ForwardedFlow& flow : flows_) {
        if (flow.upstream < 0) continue;
        FD_SET(flow.upstream, &ready);
        last = std::max(last, flow.upstream);
      }
      if (select(last + 1, &ready, nullptr, nullptr, nullptr) <= 0) continue;
      if (FD_ISSET(listener_, &ready)) ToServer();
      for (const ForwardedFlow& flow : flows_) {
        if (flow.upstream >= 0 && FD_ISSET(flow.upstream, &ready)) ToClient(flow);
      }
    }
  }

 private:
  void ToServer() {
    sockaddr_in client = {};
    socklen_t client_size = sizeof client;
    const ssize_t size = recvfrom(listener_, bytes_, sizeof bytes_, 0,
                                  reinterpret_cast<sockaddr*>(&client), &client_size);
    if (size >= 0) send(FlowOf(client).upstream, bytes_, static_cast<std::size_t>(size), 0);
  }

  void ToClient(const ForwardedFlow& flow) {
    const ssize_t size = recv(flow.upstream, bytes_, sizeof bytes_, 0);
    if (size < 0) return;
    sendto(listener_, bytes_, static_cast<std::size_t>(size), 0,
           reinterpret_cast<const sockaddr*>(&flow.client), sizeof flow.client);
  }

  const ForwardedFlow& FlowOf(const sockaddr_in& client) {
    const time_t now = NowSeconds();
    for (ForwardedFlow& flow : flows_) {
      if (flow.client.sin_port != client.sin_port ||
          flow.client.sin_addr.s_addr != client.sin_addr.s_addr)
        continue;
      flow.used = now;
      return flow;
    }
    Forget(now);
    ForwardedFlow& flow = flows_[next_++ % std::size(flows_)];
    if (flow.upstream >= 0) close(flow.upstream);
    flow = {client, socket(AF_INET, SOCK_DGRAM, 0), now};
    connect(flow.upstream, reinterpret_cast<const sockaddr*>(&server_), sizeof server_);
    return flow;
  }

  // Flows of earlier measurements would slow down every select.
  void Forget(time_t now) {
    for (ForwardedFlow& flow : flows_) {
      if (flow.upstream < 0 || now - flow.used < kForgottenSeconds) continue;
      close(flow.upstream);
      flow = {};
    }
  }

  const sockaddr_in server_;
  const int listener_;
  ForwardedFlow flows_[kFlows];
  std::size_t next_ = 0;
  char bytes_[2048];
};

}  // namespace

std::vector<std::string> SocatCommand(const ForwardedPort& port) {
  return {"socat", "-T", kIdleSeconds,
          "UDP4-LISTEN:" + std::to_string(port.from) + ",bind=127.0.0.1,reuseaddr,fork",
          "UDP4:" + port.to + ":" + std::to_string(port.to_port)};
}

std::vector<std::string> NginxCommand(const std::string& folder, const ForwardedPort& port) {
  if (access(kStreamModule, R_OK) != 0) return {};
  const std::string path = folder + "/nginx.conf";
  // A single process: a program that drops its privileges cannot run in a private network.
  std::ofstream(path) << "load_module " << kStreamModule << ";\n"
                      << "daemon off;\nmaster_process off;\nerror_log stderr crit;\npid " << folder
                      << "/nginx.pid;\nevents { worker_connections 8192; }\n"
                      << "stream {\n  server {\n    listen 127.0.0.1:" << port.from
                      << " udp;\n    proxy_timeout " << kIdleSeconds << "s;\n    proxy_pass "
                      << port.to << ":" << port.to_port << ";\n  }\n}\n";
  return {"nginx", "-p", folder, "-c", path, "-e", "stderr"};
}

void ForwardBySelect(const ForwardedPort& port) { SelectForwarder(port).Run(); }

bool WaitForEcho(std::uint16_t port) {
  const int s = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
  const sockaddr_in there = Address("127.0.0.1", port);
  connect(s, reinterpret_cast<const sockaddr*>(&there), sizeof there);
  bool came = false;
  for (int i = 0; i < kEchoTries && !came; ++i) {
    char byte = 0;
    send(s, &byte, 1, 0);  // refused while there is no listener
    usleep(kEchoPauseUs);
    came = recv(s, &byte, 1, 0) == 1;
  }
  close(s);
  return came;
}

}  // namespace bench
