// The memory of held requests: one block of 512, and the heap beyond that.
#pragma once
#include <memory>

#include "common/lock.h"
#include "icmp/ping_request.h"

namespace moru_vyr::lsp {

// Any thread. The block is made at the first request. Nothing throws.
class PingPool {
 public:
  static constexpr u32 kSlots = 512;

  PingPool() noexcept;
  ~PingPool();

  // A cleared record, or null when out of memory. Slots are reused in the order in which they were
  // freed.
  ping_request_t* AllocPingRequest() noexcept;
  // Returns a record of AllocPingRequest, even if the pool has been freed meanwhile. Null is
  // allowed.
  void FreePingRequestCache(ping_request_t* request) noexcept;

  // Forgets the block and frees nothing: for start-up, when there should be none.
  void ResetPool() noexcept;
  // Frees the block; the next request allocates a new one. Guard: a block with slots still out is
  // set aside instead and freed once they are back. The slots that a closed socket has lost never
  // come back.
  void FreePool() noexcept;

 private:
  struct Block;

  ping_request_t* TakeSlot() noexcept;
  void PutSlot(ping_request_t* request) noexcept;
  void Retire() noexcept;

  common::Mutex pool_lock_;  // guards what follows, each block's bookkeeping included; a leaf
  std::unique_ptr<Block> pool_;
  std::unique_ptr<Block> retired_;  // blocks that were freed under live requests, linked
};

}  // namespace moru_vyr::lsp
