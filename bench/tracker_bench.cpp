// What the Tracker adds to a relayed datagram: one lookup in the watch list and a few additions, on
// the worker. An unwatched socket is not in the list; the argument is the number of sockets in it.
//
//   build/posix/bench/tracker_bench
#include <benchmark/benchmark.h>

#include <string>

#include "common/log.h"
#include "common/text.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kDatagramSize = 200;
constexpr SOCKET kFirstSocket = 300;  // handles are four apart, as on Windows
constexpr SOCKET kHandleStep = 4;

SOCKET Socket(std::int64_t index) {
  return kFirstSocket + kHandleStep * static_cast<SOCKET>(index);
}

// A Tracker with accelerated sockets, without the thread that reports them.
class Watched {
 public:
  explicit Watched(std::int64_t count) {
    common::SetLogThreshold(6);  // a production level: nothing is written
    AccDecisionInfo decision;
    for (std::int64_t i = 0; i < count; ++i) {
      common::SetFieldText(decision.guid, std::to_string(i));
      tracker.AddToWatchList(Socket(i), kTrackUdp, static_cast<u32>(i));
      tracker.SetAcceInfo(Socket(i), true, &decision);
      tracker.RecordNegSuccess(Socket(i), 1, 1, 1, 1, &decision);
    }
  }

  Tracker tracker;
};

void FeedAll(benchmark::State& state, Tracker& tracker, std::int64_t sockets) {
  std::int64_t next = 0;
  for (auto _ : state) {
    tracker.RecordSend(Socket(next), kDatagramSize, 0);
    if (++next == sockets) next = 0;
  }
}

void Unwatched(benchmark::State& state) {
  Watched watched(state.range(0));
  for (auto _ : state) watched.tracker.RecordSend(kFirstSocket - 1, kDatagramSize, 0);
}
BENCHMARK(Unwatched)->Arg(0)->Arg(60);

void Sent(benchmark::State& state) {
  Watched watched(state.range(0));
  FeedAll(state, watched.tracker, state.range(0));
}
BENCHMARK(Sent)->Arg(1)->Arg(10)->Arg(60);

void Received(benchmark::State& state) {
  Watched watched(state.range(0));
  std::int64_t next = 0;
  for (auto _ : state) {
    watched.tracker.RecordRecv(Socket(next), kDatagramSize, 0);
    if (++next == state.range(0)) next = 0;
  }
}
BENCHMARK(Received)->Arg(1)->Arg(10)->Arg(60);

// The sending of a datagram by the worker, without and with the Tracker's bookkeeping.
void Send(benchmark::State& state, bool told) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
  const SOCKET s = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);
  sockaddr_in to = {};
  int size = sizeof to;
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const SOCKET sink = socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP);  // soon full; drops datagrams then
  bind(sink, reinterpret_cast<const sockaddr*>(&to), sizeof to);
  getsockname(sink, reinterpret_cast<sockaddr*>(&to), &size);
  Watched watched(60);
  const char datagram[kDatagramSize] = {};
  std::int64_t next = 0;
  for (auto _ : state) {
    sendto(s, datagram, sizeof datagram, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (told) watched.tracker.RecordSend(Socket(next), kDatagramSize, 0);
    if (++next == 60) next = 0;
  }
  closesocket(s);
  closesocket(sink);
  WSACleanup();
}
BENCHMARK_CAPTURE(Send, Untold, false);
BENCHMARK_CAPTURE(Send, Told, true);

// For each probe that is sent, the figures are read and written back.
void ProbeFigures(benchmark::State& state) {
  Watched watched(state.range(0));
  SpeedStats stats;
  for (auto _ : state) {
    watched.tracker.GetSpeedTestResult(Socket(state.range(0) - 1), &stats);
    watched.tracker.SetSpeedTestResult(Socket(state.range(0) - 1), &stats);
  }
}
BENCHMARK(ProbeFigures)->Arg(1)->Arg(60);

// A copy of every record, made every five seconds.
void Snapshot(benchmark::State& state) {
  Watched watched(state.range(0));
  for (auto _ : state) watched.tracker.SnapshotCommInfo(true);
}
BENCHMARK(Snapshot)->Arg(1)->Arg(10)->Arg(60);

}  // namespace
}  // namespace moru_vyr::lsp
