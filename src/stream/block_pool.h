// The blocks that the buffers of all relayed connections consist of.
//
// A block's pages come from the system itself: it provides them zeroed, and commits one only when
// it is touched, so that a connection with little traffic costs little. A heap may return a block
// that was used before, and then has to clear all of it. But asking the system costs several calls
// and a page fault for each connection, so the pool keeps some blocks of ended connections for the
// next ones: only those of which little was used, so that little has to be cleared and little
// memory is held. One thread; nothing throws but what says so.
#pragma once
#include <list>
#include <memory>

#include "common/types.h"

namespace moru_vyr::lsp {

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
  u32 Room() const noexcept { return static_cast<u32>(data.get() + capacity - write_pos); }
  // Whether `size` bytes can be written: nominally free, and before the block's end.
  bool Fits(u32 size) const noexcept { return size <= Free() && size <= Room(); }
  void Wrote(u32 size) noexcept {
    write_pos += size;
    const u32 end = capacity - Room();
    if (end > used) used = end;
  }

  std::unique_ptr<u8[], FreePages> data;  // zero after `used` bytes
  u32 capacity;
  u32 used = 0;  // the most that was ever written
  u8* read_pos;
  u8* write_pos;
};

class BlockPool {
 public:
  static constexpr std::size_t kKeptBlocks = 16;
  static constexpr u32 kLittleUsed = 1u << 14;  // the pool holds at most 256 KiB of touched memory

  // Appends a block, all zeros, to the list. Throws std::bad_alloc.
  void Take(u32 size, std::list<BufferBlock>* to);
  // Keeps or frees the blocks of the list, which is empty then.
  void Put(std::list<BufferBlock>* from) noexcept;

 private:
  std::list<BufferBlock> kept_;  // of one size, cleared
};

}  // namespace moru_vyr::lsp
