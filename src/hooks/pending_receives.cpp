#include "hooks/pending_receives.h"

#include <algorithm>
#include <cstring>

#include "common/own_thread.h"
#include "hooks/hook_common.h"

namespace moru_vyr::lsp {

void NameSource(const PendingReceive& receive, const PeerPorts& ports) noexcept {
  // Limited as in SizedPlace: the provider may have stored the size of an address that did not fit.
  const int size = std::min(int{receive.room}, int{*receive.from_size});
  sockaddr_in source = ReadAddress(receive.from, size);
  if (source.sin_addr.s_addr != htonl(INADDR_LOOPBACK)) return;
  if (!ports.FindPeer(source.sin_port, &source)) return;
  const int room = std::clamp(size, 0, static_cast<int>(sizeof source));
  std::memcpy(receive.from, &source, static_cast<size_t>(room));
}

template <class Condition>
u32 PendingReceives::FindOldest(const Condition& condition) const noexcept {
  u32 oldest = kPlaces;
  const u32 count = count_.load(std::memory_order_relaxed);
  for (u32 i = 0; i < count; ++i) {
    if (!condition(places_[i])) continue;
    if (oldest == kPlaces || places_[i].entry < places_[oldest].entry) oldest = i;
  }
  return oldest;
}

template <class Condition>
void PendingReceives::DropEach(const Condition& condition) noexcept {
  common::Lock hold(lock_);
  for (u32 i = count_.load(std::memory_order_relaxed); i != 0; --i) {
    const PendingReceive& receive = places_[i - 1].receive;
    if (receive.routine == nullptr && condition(receive)) Remove(i - 1);
  }
}

// Those whose routine will never run. Asks the system about each thread, so the condition must
// leave few, except where the alternative is worse.
template <class Condition>
void PendingReceives::RemoveAbandoned(const Condition& condition) noexcept {
  const u32 caller = GetCurrentThreadId();
  for (u32 i = count_.load(std::memory_order_relaxed); i != 0; --i) {
    const Place& place = places_[i - 1];
    if (place.receive.routine == nullptr || place.thread_id == caller) continue;
    if (condition(place.receive) && common::HasEnded(place.thread_id)) Remove(i - 1);
  }
}

void PendingReceives::Remove(u32 index) noexcept {
  const u32 last = count_.load(std::memory_order_relaxed) - 1;
  places_[index] = places_[last];
  places_[last] = {};
  count_.store(last, std::memory_order_relaxed);
}

u64 PendingReceives::Add(const PendingReceive& receive) noexcept {
  common::Lock hold(lock_);
  RemoveAbandoned(
      [&](const PendingReceive& other) { return other.overlapped == receive.overlapped; });
  if (count_.load(std::memory_order_relaxed) == kPlaces) {
    RemoveAbandoned([](const PendingReceive&) { return true; });
  }
  const u32 count = count_.load(std::memory_order_relaxed);
  if (count == kPlaces) return 0;
  places_[count] = {++last_entry_, GetCurrentThreadId(), receive};
  count_.store(count + 1, std::memory_order_relaxed);
  return last_entry_;
}

u64 PendingReceives::Find(u32 token, const WSAOVERLAPPED* overlapped) const noexcept {
  if (IsEmpty()) return 0;
  common::Lock hold(lock_);
  const u32 found = FindOldest([&](const Place& place) {
    return place.receive.token == token && place.receive.overlapped == overlapped;
  });
  return found != kPlaces ? places_[found].entry : 0;
}

void PendingReceives::Finish(u64 entry, const PeerPorts* ports) noexcept {
  common::Lock hold(lock_);
  const u32 found = FindOldest([=](const Place& place) { return place.entry == entry; });
  if (found == kPlaces) return;
  const PendingReceive receive = places_[found].receive;
  if (ports != nullptr) NameSource(receive, *ports);
  if (receive.routine == nullptr) Remove(found);
}

void PendingReceives::Fail(u64 entry, bool routine_runs) noexcept {
  common::Lock hold(lock_);
  const u32 found = FindOldest([=](const Place& place) { return place.entry == entry; });
  if (found == kPlaces) return;
  if (places_[found].receive.routine == nullptr || !routine_runs) Remove(found);
}

bool PendingReceives::TakeRoutine(const WSAOVERLAPPED* overlapped, PendingReceive* out) noexcept {
  common::Lock hold(lock_);
  const u32 caller = GetCurrentThreadId();
  const auto is_meant = [=](const Place& place) {
    return place.receive.overlapped == overlapped && place.receive.routine != nullptr;
  };
  u32 found =
      FindOldest([&](const Place& place) { return is_meant(place) && place.thread_id == caller; });
  if (found == kPlaces) found = FindOldest(is_meant);
  if (found == kPlaces) return false;
  *out = places_[found].receive;
  Remove(found);
  return true;
}

bool PendingReceives::Drop(u32 token, const WSAOVERLAPPED* overlapped) noexcept {
  if (IsEmpty()) return false;
  bool dropped = false;
  DropEach([&](const PendingReceive& receive) {
    if (receive.token != token || receive.overlapped != overlapped) return false;
    dropped = true;
    return true;
  });
  return dropped;
}

void PendingReceives::DropAllOf(u32 token) noexcept {
  if (IsEmpty()) return;
  DropEach([=](const PendingReceive& receive) { return receive.token == token; });
}

void PendingReceives::DropAll() noexcept {
  DropEach([](const PendingReceive&) { return true; });
}

PendingReceives& GetPendingReceives() noexcept {
  static constinit PendingReceives receives;
  return receives;
}

}  // namespace moru_vyr::lsp
