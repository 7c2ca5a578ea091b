// The three switches that start-up sets and every intercepting call may read.
#pragma once
#include <atomic>

namespace moru_vyr::lsp {

// Written under the start-up lock, read by any thread without one. Each goes from false to true
// once and never back.
struct HookFlags {
  std::atomic<bool> speed_tester_mode{false};  // this process is SpeedTester.exe
  std::atomic<bool> block_tcp{false};          // stream sockets are never relayed
  std::atomic<bool> block_udp{false};          // datagram sockets are never relayed
};

inline HookFlags& GetHookFlags() {
  static constinit HookFlags flags;
  return flags;
}

}  // namespace moru_vyr::lsp
