#include "icmp/ping_pool.h"

#include <functional>
#include <new>
#include <utility>

#include "common/log.h"

namespace moru_vyr::lsp {

// The slots, and which of them are free: a ring of their numbers, so that taking and returning one
// never allocates.
struct PingPool::Block {
  Block() noexcept {
    for (u32 i = 0; i < kSlots; ++i) free_list[i] = static_cast<u16>(i);
  }
  ping_request_t* Take() noexcept {
    if (free_count == 0) return nullptr;
    ping_request_t* const slot = &slots[free_list[first_free]];
    first_free = (first_free + 1) % kSlots;
    --free_count;
    return slot;
  }
  void Put(const ping_request_t* slot) noexcept {
    free_list[(first_free + free_count) % kSlots] = static_cast<u16>(slot - slots);
    ++free_count;
  }
  bool Owns(const ping_request_t* request) const noexcept {
    const std::less<const ping_request_t*> before;
    return !before(request, slots) && before(request, slots + kSlots);
  }

  std::unique_ptr<Block> next_retired;
  u32 first_free = 0;
  u32 free_count = kSlots;
  u16 free_list[kSlots];
  ping_request_t slots[kSlots];
};

PingPool::PingPool() noexcept = default;
PingPool::~PingPool() = default;

ping_request_t* PingPool::TakeSlot() noexcept {
  if (pool_ == nullptr) pool_.reset(new (std::nothrow) Block);
  return pool_ != nullptr ? pool_->Take() : nullptr;
}

ping_request_t* PingPool::AllocPingRequest() noexcept {
  const common::Lock hold(pool_lock_);
  ping_request_t* request = TakeSlot();
  if (request != nullptr) {
    *request = {};
    return request;
  }
  if (pool_ == nullptr) return nullptr;
  auto made = std::unique_ptr<ping_request_t>(new (std::nothrow) ping_request_t);
  if (made != nullptr) made->from_heap = 1;
  return made.release();
}

void PingPool::PutSlot(ping_request_t* request) noexcept {
  if (pool_ != nullptr && pool_->Owns(request)) {
    pool_->Put(request);
    return;
  }
  for (auto* at = &retired_; *at != nullptr; at = &(*at)->next_retired) {
    Block& block = **at;
    if (!block.Owns(request)) continue;
    block.Put(request);
    if (block.free_count == kSlots) *at = std::move(block.next_retired);
    return;
  }
}

void PingPool::FreePingRequestCache(ping_request_t* request) noexcept {
  if (request == nullptr) return;
  u32 free_count = 0;
  std::unique_ptr<ping_request_t> from_heap;
  if (request->from_heap != 0) from_heap.reset(request);
  {
    const common::Lock hold(pool_lock_);
    if (from_heap == nullptr) PutSlot(request);
    if (pool_ != nullptr) free_count = pool_->free_count;
  }
  LSP_LOG(0, "[RAW] FreePingRequestCache: cursize=%d", static_cast<int>(free_count));
}

void PingPool::Retire() noexcept {
  pool_->next_retired = std::move(retired_);
  retired_ = std::move(pool_);
}

void PingPool::ResetPool() noexcept {
  const common::Lock hold(pool_lock_);
  if (pool_ != nullptr) Retire();
}

void PingPool::FreePool() noexcept {
  const common::Lock hold(pool_lock_);
  if (pool_ != nullptr && pool_->free_count == kSlots) pool_ = nullptr;
  if (pool_ != nullptr) Retire();
}

}  // namespace moru_vyr::lsp
