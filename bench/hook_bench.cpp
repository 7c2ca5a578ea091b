// What a hooked call that relays nothing adds to the call that it passes on: one map lookup under a
// short lock, and one copy of a record. The next provider here does nothing, so the difference
// between the two rows is the library's cost. The argument is the number of open sockets.
//
//   build/posix/bench/hook_bench
#include <benchmark/benchmark.h>
#include <winsock2.h>
#include <ws2spi.h>

#include <vector>

#include "bench/system_send.h"
#include "common/log.h"
#include "hooks/downcall_table.h"

namespace moru_vyr::lsp {
namespace {

SOCKET next_socket = 1;

SOCKET WSPAPI IdleSocket(int, int, int, LPWSAPROTOCOL_INFOW, GROUP, DWORD, LPINT) {
  return next_socket++;
}

int WSPAPI IdleClose(SOCKET, LPINT) { return 0; }

int WSPAPI IdleSend(SOCKET, LPWSABUF buffers, DWORD, LPDWORD sent, DWORD, LPWSAOVERLAPPED,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID, LPINT) {
  *sent = buffers->len;
  return 0;
}

WSPPROC_TABLE IdleProvider() {
  WSPPROC_TABLE table = {};
  table.lpWSPSocket = IdleSocket;
  table.lpWSPCloseSocket = IdleClose;
  table.lpWSPSend = IdleSend;
  return table;
}

// The hooked table above the idle provider, with a given number of open sockets.
class HookedSockets {
 public:
  explicit HookedSockets(std::int64_t count) : next_(IdleProvider()) {
    common::SetLogThreshold(6);  // a production level: nothing is written
    const WSPUPCALLTABLE upcalls = {};
    SaveDowncallTable(kProtocolTcp, &upcalls, &next_, &hooked_);
    for (std::int64_t i = 0; i < count; ++i)
      sockets_.push_back(
          hooked_.lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error_));
  }
  ~HookedSockets() {
    for (const SOCKET s : sockets_) hooked_.lpWSPCloseSocket(s, &error_);
  }

  const WSPPROC_TABLE& next() const { return next_; }
  const WSPPROC_TABLE& hooked() const { return hooked_; }
  SOCKET middle() const { return sockets_[sockets_.size() / 2]; }

 private:
  WSPPROC_TABLE next_;
  WSPPROC_TABLE hooked_ = {};
  INT error_ = 0;
  std::vector<SOCKET> sockets_;
};

void Send(benchmark::State& state, const WSPPROC_TABLE& table, SOCKET s) {
  char byte = 0;
  WSABUF buffer = {1, &byte};
  DWORD sent = 0;
  INT error = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        table.lpWSPSend(s, &buffer, 1, &sent, 0, nullptr, nullptr, nullptr, &error));
  }
}

void NextProviderSend(benchmark::State& state) {
  const HookedSockets sockets(state.range(0));
  Send(state, sockets.next(), sockets.middle());
}
BENCHMARK(NextProviderSend)->Arg(1);

void HookedSend(benchmark::State& state) {
  const HookedSockets sockets(state.range(0));
  Send(state, sockets.hooked(), sockets.middle());
}
BENCHMARK(HookedSend)->RangeMultiplier(16)->Range(1, 65536);

// For scale: a send of the system's, with which the two above can be compared.
void SystemSend(benchmark::State& state) {
  const bench::SystemSend system;
  for (auto _ : state) {
    if (!system.Send()) return state.SkipWithError("the system does not send");
  }
}
BENCHMARK(SystemSend);

void OpenAndClose(benchmark::State& state) {
  const HookedSockets sockets(state.range(0));
  INT error = 0;
  for (auto _ : state) {
    const SOCKET s =
        sockets.hooked().lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error);
    sockets.hooked().lpWSPCloseSocket(s, &error);
  }
}
BENCHMARK(OpenAndClose)->RangeMultiplier(16)->Range(1, 65536);

// A line below the log level, compared with one that is formatted and collected.
void SilentLogLine(benchmark::State& state) {
  common::SetLogThreshold(6);
  for (auto _ : state) LSP_LOG(0, "WSPSend: ret=%d, socket=%d, token=%u", 0, 1, 2u);
}
BENCHMARK(SilentLogLine);

void FormattedLogLine(benchmark::State& state) {
  common::SetLogThreshold(0);
  for (auto _ : state) LSP_LOG(0, "WSPSend: ret=%d, socket=%d, token=%u", 0, 1, 2u);
}
BENCHMARK(FormattedLogLine);

}  // namespace
}  // namespace moru_vyr::lsp
