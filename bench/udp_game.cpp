#include "bench/udp_game.h"

#include <pthread.h>
#include <unistd.h>
#include <winsock2.h>

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cmath>
#include <cstring>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

#include "bench/allocations.h"
#include "bench/forwarder.h"
#include "bench/timing.h"

namespace bench {
namespace {

constexpr std::uint32_t kMostBytes = 1400;
constexpr DWORD kLostAfterMs = 2000;
constexpr double kOpenSeconds = 10;
constexpr useconds_t kOpenPauseUs = 10'000;
constexpr std::uint32_t kWarmUpWindows = 8;

class Flow {
 public:
  Flow(const DatagramGameOptions& options, std::uint32_t bytes)
      : socket_(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP)),
        size_(static_cast<int>(std::min(bytes, kMostBytes))) {
    server_.sin_family = AF_INET;
    server_.sin_port = htons(options.port);
    server_.sin_addr.s_addr = static_cast<in_addr_t>(inet_addr(options.address.c_str()));
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&kLostAfterMs),
               sizeof kLostAfterMs);
    Open();
  }
  ~Flow() { closesocket(socket_); }
  Flow(const Flow&) = delete;
  Flow& operator=(const Flow&) = delete;

  bool opened() const { return opened_; }
  std::uint64_t lost() const { return lost_; }

  bool RoundTrip() {
    Send();
    if (Receive()) return true;
    ++lost_;
    return false;
  }

  // Returns how many of the round trips were completed.
  std::uint64_t Stream(std::uint64_t round_trips, std::uint32_t window) {
    std::uint64_t sent = 0, done = 0, under_way = 0;
    for (;;) {
      for (; under_way < window && sent < round_trips; ++sent, ++under_way) Send();
      if (under_way == 0) return done;
      if (Receive()) {
        --under_way;
        ++done;
      } else {
        lost_ += std::exchange(under_way, 0);
      }
    }
  }

  void ForgetLosses() { lost_ = 0; }

 private:
  // A forwarder that creates a process for each flow cannot be reached meanwhile.
  void Open() {
    const double begin = Seconds(CLOCK_MONOTONIC);
    while (!(opened_ = RoundTrip()) && Seconds(CLOCK_MONOTONIC) < begin + kOpenSeconds) {
      usleep(kOpenPauseUs);
    }
  }

  void Send() {
    std::memcpy(message_, &++number_, sizeof number_);
    sendto(socket_, message_, size_, 0, reinterpret_cast<const sockaddr*>(&server_),
           sizeof server_);
  }

  // The datagram must come from the server's address as the game knows it.
  bool Receive() {
    char bytes[kMostBytes];
    sockaddr_in from = {};
    int from_size = sizeof from;
    return recvfrom(socket_, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&from),
                    &from_size) == size_ &&
           from.sin_port == server_.sin_port && from.sin_addr.s_addr == server_.sin_addr.s_addr;
  }

  const SOCKET socket_;
  const int size_;
  sockaddr_in server_ = {};
  bool opened_ = false;
  std::uint64_t lost_ = 0;
  std::uint64_t number_ = 0;  // makes all datagrams in flight different
  char message_[kMostBytes] = {};
};

// The library reports new flows to its client program on another thread, soon after they begin.
// Waits until that is over.
void Settle() {
  constexpr useconds_t kQuietUs = 150'000;
  constexpr int kMost = 20;
  std::uint64_t before = 0;
  for (int i = 0; i < kMost && std::exchange(before, Allocations()) != Allocations(); ++i) {
    usleep(kQuietUs);
  }
}

// A game's own work: a thread for each processor that never rests.
class Work {
 public:
  explicit Work(bool busy) {
    const unsigned threads = busy ? std::max(std::thread::hardware_concurrency(), 1u) : 0;
    for (unsigned i = 0; i < threads; ++i) threads_.emplace_back([this] { Go(); });
  }
  ~Work() {
    over_ = true;
    for (std::thread& thread : threads_) thread.join();
  }
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

  double CpuSeconds() {
    double sum = 0;
    for (std::thread& thread : threads_) {
      clockid_t clock;
      if (pthread_getcpuclockid(thread.native_handle(), &clock) == 0) sum += Seconds(clock);
    }
    return sum;
  }

 private:
  void Go() const {
    volatile std::uint64_t value = 1;
    while (!over_) value = value * 6364136223846793005u + 1442695040888963407u;
  }

  std::atomic<bool> over_{false};
  std::vector<std::thread> threads_;
};

// What a whole run costs.
class Meter {
 public:
  explicit Meter(const DatagramGameOptions& options)
      : forwarders_(options.forwarders),
        process_(Seconds(CLOCK_PROCESS_CPUTIME_ID)),
        allocations_(Allocations()),
        begin_(Seconds(CLOCK_MONOTONIC)) {}

  void Tell(double game_cpu_s, DatagramOutcome* outcome) const {
    outcome->seconds = Seconds(CLOCK_MONOTONIC) - begin_;
    outcome->allocations = Allocations() - allocations_;
    outcome->game_cpu_s = game_cpu_s;
    outcome->library_cpu_s =
        std::max(Seconds(CLOCK_PROCESS_CPUTIME_ID) - process_ - game_cpu_s, 0.0);
    outcome->forwarder_cpu_s = forwarders_.Seconds();
  }

 private:
  const ProcessorUse forwarders_;
  const double process_;
  const std::uint64_t allocations_;
  const double begin_;
};

// A game's flows, all open.
class Flows {
 public:
  Flows(const DatagramGameOptions& options, const DatagramOrder& order)
      : options_(options), order_(order) {
    for (std::uint32_t i = 0; i < order.flows; ++i) {
      flows_.push_back(std::make_unique<Flow>(options, order.bytes));
      opened_ = opened_ && flows_.back()->opened();
    }
  }

  bool opened() const { return opened_; }

  // One datagram at a time, in this thread.
  void OneByOne(DatagramOutcome* outcome) {
    std::vector<std::vector<double>> times(1);
    times[0].reserve(order_.round_trips);
    Warm(*flows_[0]);
    if (order_.settle) Settle();
    const double own = Seconds(CLOCK_THREAD_CPUTIME_ID);
    const Meter meter(options_);
    for (std::uint64_t i = 0; i < order_.round_trips; ++i)
      RoundTrip(*flows_[0], Seconds(CLOCK_MONOTONIC), &times[0]);
    meter.Tell(Seconds(CLOCK_THREAD_CPUTIME_ID) - own, outcome);
    TellTimes(times, outcome);
  }

  // All at once, as fast as they get through.
  void Streams(DatagramOutcome* outcome) {
    std::atomic<std::uint64_t> round_trips{0};
    InThreads(
        [&](std::size_t i) { round_trips += flows_[i]->Stream(order_.round_trips, order_.window); },
        outcome);
    outcome->round_trips = round_trips;
  }

  // All at once, each at the game's pace, so that a flow that waits delays no other.
  void AtPace(DatagramOutcome* outcome) {
    std::vector<std::vector<double>> times(flows_.size());
    for (auto& of_flow : times) of_flow.reserve(order_.round_trips);
    InThreads([&](std::size_t i) { KeepPace(i, &times[i]); }, outcome);
    TellTimes(times, outcome);
  }

  std::uint64_t Lost() const {
    std::uint64_t sum = 0;
    for (const auto& flow : flows_) sum += flow->lost();
    return sum;
  }

 private:
  // The first datagrams fill pools and caches.
  void Warm(Flow& flow) const {
    flow.Stream(std::uint64_t{kWarmUpWindows} * order_.window, order_.window);
    flow.ForgetLosses();
  }

  // Runs each flow in a thread of its own, and measures that.
  void InThreads(const std::function<void(std::size_t)>& run, DatagramOutcome* outcome) {
    std::barrier line(static_cast<std::ptrdiff_t>(flows_.size()) + 1);
    std::atomic<double> game_cpu_s{0};
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < flows_.size(); ++i) {
      threads.emplace_back([&, i] {
        Warm(*flows_[i]);
        line.arrive_and_wait();
        const double own = Seconds(CLOCK_THREAD_CPUTIME_ID);
        line.arrive_and_wait();  // go
        run(i);
        game_cpu_s += Seconds(CLOCK_THREAD_CPUTIME_ID) - own;
        line.arrive_and_wait();
      });
    }
    line.arrive_and_wait();  // all are warm
    if (order_.settle) Settle();
    Work work(order_.busy);
    const double own = Seconds(CLOCK_THREAD_CPUTIME_ID);
    const double worked = work.CpuSeconds();
    const Meter meter(options_);
    line.arrive_and_wait();
    line.arrive_and_wait();  // all are done
    meter.Tell(game_cpu_s + Seconds(CLOCK_THREAD_CPUTIME_ID) - own, outcome);
    // The work is no part of what the datagrams cost.
    outcome->library_cpu_s = std::max(outcome->library_cpu_s - (work.CpuSeconds() - worked), 0.0);
    for (std::thread& thread : threads) thread.join();
  }

  // The flows' datagrams leave in turn, evenly spread.
  void KeepPace(std::size_t flow, std::vector<double>* times) const {
    const double between = 1.0 / order_.hertz;
    double next = Seconds(CLOCK_MONOTONIC) + between * static_cast<double>(flow) / order_.flows;
    for (std::uint64_t i = 0; i < order_.round_trips; ++i, next += between)
      RoundTrip(*flows_[flow], WaitUntil(next), times);
  }

  // Returns when the datagram is to leave. If an earlier round trip took so long that this one
  // leaves late, it is that moment and not now: a player waits for both. A late wake-up of this
  // thread is none of the relay's, so it does not count.
  static double WaitUntil(double next) {
    if (next < Seconds(CLOCK_MONOTONIC)) return next;
    const timespec until = {static_cast<time_t>(next),
                            static_cast<long>((next - std::floor(next)) * 1e9)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr);
    return Seconds(CLOCK_MONOTONIC);
  }

  static void RoundTrip(Flow& flow, double begin, std::vector<double>* times) {
    if (flow.RoundTrip()) times->push_back((Seconds(CLOCK_MONOTONIC) - begin) * 1e6);
  }

  static void TellTimes(const std::vector<std::vector<double>>& times, DatagramOutcome* outcome) {
    std::vector<double> all;
    double differences = 0;
    for (const auto& of_flow : times) {
      all.insert(all.end(), of_flow.begin(), of_flow.end());
      for (std::size_t i = 1; i < of_flow.size(); ++i)
        differences += std::abs(of_flow[i] - of_flow[i - 1]);
    }
    for (const double time : all) outcome->times.Add(static_cast<std::uint64_t>(time * 1e3));
    outcome->round_trips = all.size();
    outcome->jitter_us = differences / static_cast<double>(std::max<std::size_t>(all.size(), 1));
    const Spread spread = SpreadOf(std::move(all));
    outcome->median_us = spread.median;
    outcome->p99_us = spread.p99;
  }

  const DatagramGameOptions& options_;
  const DatagramOrder& order_;
  std::vector<std::unique_ptr<Flow>> flows_;
  bool opened_ = true;
};

DatagramOutcome Carry(const DatagramGameOptions& options, const DatagramOrder& order) {
  DatagramOutcome outcome = {};
  Flows flows(options, order);
  if (!flows.opened()) return outcome;
  switch (order.task) {
    case DatagramTask::kReply:
      flows.OneByOne(&outcome);
      break;
    case DatagramTask::kStream:
      flows.Streams(&outcome);
      break;
    case DatagramTask::kPaced:
      flows.AtPace(&outcome);
      break;
  }
  outcome.lost = flows.Lost();
  // A relay that nothing went through has not been measured.
  outcome.worked =
      outcome.round_trips > 0 &&
      (order.brief || !options.with_library || outcome.library_cpu_s > outcome.game_cpu_s / 100) &&
      (order.brief || options.forwarders.empty() || outcome.forwarder_cpu_s > 0);
  return outcome;
}

}  // namespace

std::unique_ptr<DatagramGame> StartGame(const DatagramGameOptions& options) {
  const auto prepare = [&options] {
    if (options.with_library) {
      InstallLibrary(options.library);
    }
    WSADATA data;
    WSAStartup(MAKEWORD(2, 2), &data);
  };
  return std::make_unique<DatagramGame>(
      prepare, [&options](const DatagramOrder& order) { return Carry(options, order); });
}

}  // namespace bench
