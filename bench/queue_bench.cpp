// The cost of passing a datagram's address over the loopback hop: the entry that is queued for it
// and found again by its receiver.
//
//   build/posix/bench/queue_bench
//
// `lost` is the number of entries that were never taken, each for a datagram that was lost in
// the hop. They stay as long as the session. `lengths:1` are datagrams of the length that is looked
// for, with other bytes; `lengths:200` have that many lengths.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "common/log.h"
#include "udp/live_queues.h"
#include "udp/udp_package_queue.h"

namespace moru_vyr::lsp {
namespace {

void PassAddress(benchmark::State& state) {
  common::SetLogThreshold(6);  // a production level: nothing is written
  UdpPackageQueue queue;
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  for (int i = 0; i < state.range(0); ++i) {
    const std::string lost(100 + static_cast<std::size_t>(i % state.range(1)), 'x');
    queue.Push(lost.data(), static_cast<u32>(lost.size()), &address);
  }
  const std::string sent(100, 'y');
  const u32 size = static_cast<u32>(sent.size());
  for (auto _ : state) {
    queue.Push(sent.data(), size, &address);
    if (!queue.FindAddrThenRemove(sent.data(), size, &address)) {
      return state.SkipWithError("not found");
    }
  }
}
BENCHMARK(PassAddress)
    ->ArgNames({"lost", "lengths"})
    ->Args({0, 1})
    ->Args({1000, 200})
    ->Args({1000, 1});

// What it costs a hook to ask whether its socket's queue is still there.
void UseQueue(benchmark::State& state) {
  LiveQueues live;
  auto queues = std::make_shared<UdpQueues>();
  const u32 sessions = static_cast<u32>(state.range(0));
  for (u32 token = 1; token < sessions; ++token) live.Add(token, std::make_shared<UdpQueues>());
  live.Add(sessions, queues);
  for (auto _ : state) {
    const auto used = live.Use(&queues->send_queue, sessions);
    benchmark::DoNotOptimize(used.get());
  }
}
BENCHMARK(UseQueue)->ArgName("sessions")->Arg(1)->Arg(60);

}  // namespace
}  // namespace moru_vyr::lsp
