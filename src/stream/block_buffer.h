// The byte queue of one direction of a relayed connection.
//
// The writer receives straight into it and the reader sends straight out of it, so nothing is
// copied. It grows in blocks up to 2 MiB, and that limit is the relay's back-pressure: when Reserve
// refuses, the session stops reading. Blocks are allocated at first use and kept for reuse until
// Clear. One thread; nothing throws.
#pragma once
#include <list>
#include <memory>

#include "common/types.h"

namespace moru_vyr::lsp {

// Pages come from the system itself: it provides them zeroed, and commits one only when it is
// touched, so that a connection with little traffic costs little. A heap may return a block that
// was used before, and then has to clear all of it.
struct FreePages {
  void operator()(u8* bytes) const noexcept;
};

struct BufferBlock {
  explicit BufferBlock(u32 size);  // throws std::bad_alloc

  void Reset() noexcept { read_pos = write_pos = data.get(); }
  u32 Pending() const noexcept { return static_cast<u32>(write_pos - read_pos); }
  // Nominal free space: what has been read counts as free, although its room comes back only when
  // the whole block has drained.
  u32 Free() const noexcept { return capacity - Pending(); }
  // Whether `size` bytes can be written: nominally free, and before the block's end.
  bool Fits(u32 size) const noexcept {
    return size <= Free() && size <= static_cast<u32>(data.get() + capacity - write_pos);
  }

  std::unique_ptr<u8[], FreePages> data;  // zero-filled
  u32 capacity;
  u8* read_pos;
  u8* write_pos;
};

class BlockBuffer {
 public:
  static constexpr u32 kBlockSize = 1u << 19;
  static constexpr u32 kGrowthLimit = 2097153;  // all blocks together stay below it

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

  // Discards all bytes and frees the memory at once.
  void Clear() noexcept;

 private:
  bool AddBlock() noexcept;

  // Lists, because a block moves from one to the other without an allocation that could fail.
  std::list<BufferBlock> active_;  // the reader at the front, the writer at the back
  std::list<BufferBlock> spare_;   // drained, for reuse
};

}  // namespace moru_vyr::lsp
