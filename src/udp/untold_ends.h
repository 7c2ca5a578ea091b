// Guard: the sockets of the game that were closed without telling the control port.
//
// A thread of the game leaves the socket's token here, and the worker ends the session at the next
// tick of its timer. The session may not exist yet, because the request for it is still in the
// control port's buffer: so a token stays for a few ticks, in each of which that port is read.
// Without a lock, since the game's thread is closing a socket and the worker may be terminated at
// any time. Nothing allocates, nothing throws.
#pragma once
#include <array>
#include <atomic>

#include "common/types.h"

namespace moru_vyr::lsp {

class UntoldEnds {
 public:
  // As many sockets as the relay can poll. If all places are taken, a further token is dropped.
  static constexpr size_t kPlaces = 128;
  static constexpr u32 kTurns = 10;  // about 300 ms

  // Any thread. 0 is not a token.
  void Add(u32 token) noexcept {
    for (Place& place : places_) {
      u32 free = 0;
      if (place.token.compare_exchange_strong(free, token, std::memory_order_relaxed)) return;
    }
  }

  // For the worker. `end` gets each token and returns whether there was a session to end.
  template <class End>
  void OnTurn(End&& end) noexcept {
    for (Place& place : places_) {
      const u32 token = place.token.load(std::memory_order_relaxed);
      if (token == 0) continue;
      if (!end(token) && ++place.turns < kTurns) continue;
      place.turns = 0;
      place.token.store(0, std::memory_order_release);  // the place is free from here on
    }
  }

 private:
  struct Place {
    std::atomic<u32> token{0};
    u32 turns = 0;  // the worker's
  };
  std::array<Place, kPlaces> places_;
};

}  // namespace moru_vyr::lsp
