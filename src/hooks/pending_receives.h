// The overlapped receives of datagram sockets that are to get their source when they complete: a
// table of fixed size for the process.
//
// Threads of the host; nothing allocates, nothing throws. The lock is held while a source is
// written, so that a thread that no longer finds the entry finds the source in the game's buffer.
//
// A routine runs in the thread that began its receive, when that waits alertably. The system
// forgets the routine of a thread that has ended, so an entry whose thread has ended goes as soon
// as its place is needed, or its overlapped structure is used again.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <array>
#include <atomic>

#include "common/lock.h"
#include "common/types.h"
#include "udp/peer_ports.h"

namespace moru_vyr::lsp {

// All pointers are the game's, and valid until the receive is over.
struct PendingReceive {
  u32 token = 0;  // of its socket
  WSAOVERLAPPED* overlapped = nullptr;
  LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr;
  sockaddr* from = nullptr;
  INT* from_size = nullptr;
  INT room = 0;  // *from_size as the receive began
};

// Replaces a port of the relay by the address that it stands for.
void NameSource(const PendingReceive& receive, const PeerPorts& ports) noexcept;

class PendingReceives {
 public:
  static constexpr u32 kPlaces = 256;

  bool IsEmpty() const noexcept { return count_.load(std::memory_order_relaxed) == 0; }

  // For a receive that the calling thread begins. The entry's number; 0 if there is no place.
  u64 Add(const PendingReceive& receive) noexcept;
  // The oldest entry of that socket's overlapped, or 0.
  u64 Find(u32 token, const WSAOVERLAPPED* overlapped) const noexcept;
  // The receive has got a datagram. The entry goes, unless it has a routine, which is yet to run.
  // Nothing happens if the entry is gone. Null ports name nothing.
  void Finish(u64 entry, const PeerPorts* ports) noexcept;
  // The receive has failed. The entry goes, unless it has a routine that is yet to run.
  void Fail(u64 entry, bool routine_runs) noexcept;
  // Takes the oldest entry with a routine out: of the calling thread's, if it has one.
  bool TakeRoutine(const WSAOVERLAPPED* overlapped, PendingReceive* out) noexcept;

  // These leave the entries with a routine. The first returns whether there was one.
  bool Drop(u32 token, const WSAOVERLAPPED* overlapped) noexcept;
  void DropAllOf(u32 token) noexcept;
  void DropAll() noexcept;

 private:
  struct Place {
    u64 entry = 0;
    u32 thread_id = 0;  // that began it
    PendingReceive receive;
  };
  template <class Condition>
  u32 FindOldest(const Condition& condition) const noexcept;  // kPlaces if there is none
  template <class Condition>
  void DropEach(const Condition& condition) noexcept;
  template <class Condition>
  void RemoveAbandoned(const Condition& condition) noexcept;
  void Remove(u32 index) noexcept;

  mutable common::Mutex lock_;  // guards all below
  std::array<Place, kPlaces> places_{};
  std::atomic<u32> count_{0};  // written under the lock
  u64 last_entry_ = 0;
};

// The process's table.
PendingReceives& GetPendingReceives() noexcept;

}  // namespace moru_vyr::lsp
