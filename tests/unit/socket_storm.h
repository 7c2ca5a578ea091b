// Many threads open, use and close sockets through a hooked table at the same time.
#pragma once
#include <atomic>

namespace test {

struct StormResult {
  std::atomic<int> sockets{0};       // opened, used and closed
  std::atomic<int> lost_records{0};  // a socket without a record of its own while it was open
  std::atomic<int> failed_calls{0};  // calls that did not reach the next provider and back
  std::atomic<int> repeated_tokens{0};
};

// Uses a next provider that reuses the values of closed handles at once, as the platform does. A
// record that is removed too late or kept too long counts as a lost one.
void RunSocketStorm(int threads, int sockets_per_thread, StormResult* result);

}  // namespace test
