// The memory of held requests: one block of 512, and the heap for what goes beyond.
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
  PingPool(const PingPool&) = delete;
  PingPool& operator=(const PingPool&) = delete;

  // A cleared record, null when out of memory. Slots are handed out in the order in which they
  // came free.
  ping_request_t* AllocPingRequest() noexcept;
  // Gives a record of AllocPingRequest back, whatever became of the pool meanwhile. Null may be.
  void FreePingRequestCache(ping_request_t* request) noexcept;

  // Forgets the block, and frees nothing: for start-up, when there should be none.
  void ResetPool() noexcept;
  // Frees the block; the next request makes a new one. Guard: a block with slots still out is set
  // aside instead and lives until they are back. Those that a closed socket has lost never are.
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
