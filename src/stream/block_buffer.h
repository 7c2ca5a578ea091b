// The byte queue of one direction of a relayed connection.
//
// The writer receives straight into it and the reader sends straight out of it, so nothing is
// copied. It grows in blocks up to 2 MiB, and that limit is the relay's back-pressure: when Reserve
// refuses, the session stops reading. Blocks are taken from the pool at first use and kept for
// reuse until Clear. One thread, which is the pool's; nothing throws.
#pragma once
#include <list>

#include "common/types.h"
#include "stream/block_pool.h"

namespace moru_vyr::lsp {

class BlockBuffer {
 public:
  static constexpr u32 kBlockSize = 1u << 19;
  static constexpr u32 kGrowthLimit = 2097153;  // all blocks together stay below it

  // The pool outlives the buffer. Null: blocks come from the system and go back to it.
  explicit BlockBuffer(BlockPool* pool = nullptr) noexcept : pool_(pool) {}
  ~BlockBuffer() { Clear(); }
  BlockBuffer(const BlockBuffer&) = delete;
  BlockBuffer& operator=(const BlockBuffer&) = delete;

  // Room for `size` bytes, to be followed by Commit. False, with *ptr null, if there is no room;
  // false, with *ptr untouched, for a null `ptr`, for no bytes and without memory.
  bool Reserve(u8** ptr, u32 size) noexcept;
  // `size` bytes were written at the place reserved last. False if they are more than fit there.
  bool Commit(u32 size) noexcept;

  // The oldest contiguous bytes. False if there are none; *ptr is then null and *len 0, unless a
  // pointer is null or no block is in use.
  bool Peek(u8** ptr, u32* len) const noexcept;
  // `size` of the bytes that Peek returned were read. False, with nothing changed, for more than
  // that.
  bool Consume(u32 size) noexcept;

  bool IsEmpty() const noexcept;  // whether Peek returns nothing

  // Discards all bytes and gives the blocks back at once.
  void Clear() noexcept;

 private:
  bool AddBlock() noexcept;

  BlockPool* const pool_;
  // Lists, because a block moves from one to the other without an allocation that could fail.
  std::list<BufferBlock> active_;  // the reader at the front, the writer at the back
  std::list<BufferBlock> spare_;   // drained, for reuse
};

}  // namespace moru_vyr::lsp
