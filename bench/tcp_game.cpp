#include "bench/tcp_game.h"

#include <unistd.h>
#include <winsock2.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <thread>
#include <utility>
#include <vector>

#include "bench/forwarder.h"
#include "bench/game_library.h"
#include "bench/tcp_server.h"
#include "bench/timing.h"

namespace bench {
namespace {

constexpr int kPiece = 1 << 16;
// Sent over a connection before the clock starts, so that every forwarder has allocated its
// buffers.
constexpr std::uint64_t kWarmUp = 4 << 20;

// The request to the server.
char Demand(const Order& order) {
  if (order.split_answer) return 's';
  return order.pieces > 1 ? 'w' : 'e';
}

class Connection {
 public:
  Connection(const GameOptions& options) : socket_(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)) {
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(options.port);
    server.sin_addr.s_addr = static_cast<in_addr_t>(inet_addr(options.server.c_str()));
    works_ = connect(socket_, reinterpret_cast<sockaddr*>(&server), sizeof server) == 0;
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on), sizeof on);
  }
  ~Connection() { closesocket(socket_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool works() const { return works_; }

  bool Send(const char* bytes, std::uint64_t size) {
    while (size > 0 && works_) {
      const int n = send(socket_, bytes, static_cast<int>(size), 0);
      works_ = n > 0;
      bytes += n;
      size -= static_cast<std::uint64_t>(n);
    }
    return works_;
  }

  bool Receive(std::uint64_t size) {
    while (size > 0 && works_) {
      const int most = static_cast<int>(std::min<std::uint64_t>(size, kPiece));
      const int n = recv(socket_, piece_.data(), most, 0);
      works_ = n > 0;
      size -= static_cast<std::uint64_t>(n);
    }
    return works_;
  }

  bool Ask(char what, std::uint64_t amount) {
    const std::string bytes = Request{what, amount}.Bytes();
    return Send(bytes.data(), bytes.size());
  }

  bool Download(std::uint64_t amount) { return Ask('d', amount) && Receive(amount); }

  bool Upload(std::uint64_t amount) {
    Ask('u', amount);
    for (std::uint64_t left = amount; left > 0 && works_;) {
      const std::uint64_t size = std::min<std::uint64_t>(left, kPiece);
      Send(piece_.data(), size);
      left -= size;
    }
    return Receive(1);
  }

  bool RoundTrip(std::uint32_t size, std::uint32_t pieces = 1) {
    for (std::uint32_t i = 0; i < pieces; ++i) {
      if (i > 0) usleep(kPauseUs);
      Send(piece_.data(), size / pieces);
    }
    return Receive(size / pieces * pieces);
  }

 private:
  SOCKET socket_;
  bool works_ = false;
  std::vector<char> piece_ = std::vector<char>(kPiece);
};

// Measures the time of each step for the outcome.
template <class Step>
bool TimeEach(std::uint64_t count, Outcome* outcome, Step step) {
  std::vector<double> times;
  times.reserve(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    const double begin = Seconds(CLOCK_MONOTONIC);
    if (!step()) return false;
    times.push_back((Seconds(CLOCK_MONOTONIC) - begin) * 1e6);
  }
  const Spread spread = SpreadOf(std::move(times));
  outcome->median_us = spread.median;
  outcome->p99_us = spread.p99;
  return true;
}

bool Single(const GameOptions& options, const Order& order, Outcome* outcome) {
  Connection connection(options);
  if (!connection.RoundTrip(0) || !connection.Ask('e', 1) || !connection.RoundTrip(1)) return false;
  if (order.task == Task::kDownload) connection.Download(std::min(order.amount, kWarmUp));
  if (order.task == Task::kUpload) connection.Upload(std::min(order.amount, kWarmUp));
  const double begin = Seconds(CLOCK_MONOTONIC);
  bool worked = false;
  if (order.task == Task::kDownload) worked = connection.Download(order.amount);
  if (order.task == Task::kUpload) worked = connection.Upload(order.amount);
  if (order.task == Task::kReply) {
    worked = connection.Ask(Demand(order), order.amount * order.message) &&
             TimeEach(order.amount, outcome,
                      [&] { return connection.RoundTrip(order.message, order.pieces); });
  }
  outcome->seconds = Seconds(CLOCK_MONOTONIC) - begin;
  return worked;
}

bool ConnectOften(const GameOptions& options, const Order& order, Outcome* outcome) {
  const double begin = Seconds(CLOCK_MONOTONIC);
  const std::uint32_t size = std::max<std::uint32_t>(order.message, 1);
  const bool worked = TimeEach(order.amount, outcome, [&] {
    Connection connection(options);
    return connection.Ask(Demand(order), size) && connection.RoundTrip(size, order.pieces);
  });
  outcome->seconds = Seconds(CLOCK_MONOTONIC) - begin;
  return worked;
}

// Connections that all connect and exchange a first message, and then all work at the same time,
// each in a thread of its own.
class Crowd {
 public:
  Crowd(const GameOptions& options, const Order& order)
      : options_(options),
        order_(order),
        line_(static_cast<std::ptrdiff_t>(order.connections) + 1) {}

  bool Work(Outcome* outcome) {
    std::vector<std::thread> threads;
    for (std::uint32_t i = 0; i < order_.connections; ++i) threads.emplace_back([this] { One(); });
    line_.arrive_and_wait();  // all are connected
    const ProcessorUse forwarders(options_.forwarders);
    const double process = Seconds(CLOCK_PROCESS_CPUTIME_ID);
    const double own = Seconds(CLOCK_THREAD_CPUTIME_ID);
    const double begin = Seconds(CLOCK_MONOTONIC);
    line_.arrive_and_wait();  // go
    line_.arrive_and_wait();  // all are done
    outcome->seconds = Seconds(CLOCK_MONOTONIC) - begin;
    const double mine = Seconds(CLOCK_THREAD_CPUTIME_ID) - own + game_cpu_s_;
    outcome->library_cpu_s = Seconds(CLOCK_PROCESS_CPUTIME_ID) - process - mine;
    outcome->forwarder_cpu_s = forwarders.Seconds();
    line_.arrive_and_wait();  // all may close
    for (std::thread& thread : threads) thread.join();
    return failures_ == 0;
  }

 private:
  void One() {
    Connection connection(options_);
    connection.Ask('e', 1);
    connection.RoundTrip(1);
    if (order_.task == Task::kBulk) connection.Download(std::min(order_.amount, kWarmUp));
    if (order_.task == Task::kBulkUp) connection.Upload(std::min(order_.amount, kWarmUp));
    line_.arrive_and_wait();
    const double own = Seconds(CLOCK_THREAD_CPUTIME_ID);
    line_.arrive_and_wait();
    if (order_.task == Task::kBulk) connection.Download(order_.amount);
    if (order_.task == Task::kBulkUp) connection.Upload(order_.amount);
    if (order_.task == Task::kEvents) {
      connection.Ask('e', order_.amount * order_.message);
      for (std::uint64_t i = 0; i < order_.amount; ++i) connection.RoundTrip(order_.message);
    }
    game_cpu_s_ += Seconds(CLOCK_THREAD_CPUTIME_ID) - own;
    failures_ += connection.works() ? 0 : 1;
    line_.arrive_and_wait();
    line_.arrive_and_wait();
  }

  const GameOptions& options_;
  const Order& order_;
  std::barrier<> line_;
  std::atomic<double> game_cpu_s_{0};
  std::atomic<int> failures_{0};
};

Outcome Carry(const GameOptions& options, const Order& order) {
  Outcome outcome = {};
  if (order.task == Task::kConnect) {
    outcome.worked = ConnectOften(options, order, &outcome);
  } else if (order.connections > 0) {
    outcome.worked = Crowd(options, order).Work(&outcome);
  } else {
    outcome.worked = Single(options, order, &outcome);
  }
  return outcome;
}

}  // namespace

std::unique_ptr<Game> StartGame(const GameOptions& options) {
  const auto prepare = [&options] {
    if (options.with_library) {
      InstallLibrary({.server = options.server,
                      .node = options.node,
                      .node_port = options.node_port,
                      .folder = options.folder,
                      .mended = options.mended});
    }
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  };
  return std::make_unique<Game>(prepare,
                                [&options](const Order& order) { return Carry(options, order); });
}

}  // namespace bench
