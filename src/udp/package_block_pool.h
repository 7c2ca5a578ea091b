// Equal blocks of memory for datagrams, which are reused: a steady flow allocates none.
//
// One thread at a time. Nothing throws. The pool owns every block, also those in use.
#pragma once
#include <memory>
#include <vector>

#include "common/types.h"

namespace moru_vyr::lsp {

class PackageBlockPool {
 public:
  static constexpr u32 kDatagramBlockSize = 2048;
  static constexpr u32 kMinBlockSize = 128;

  explicit PackageBlockPool(u32 block_size) noexcept;

  u32 block_size() const noexcept { return block_size_; }

  // A block that is not in use; null if there is no memory for one. The caller returns it.
  void* Get() noexcept;
  void Put(void* block) noexcept;

 private:
  void Grow() noexcept;

  const u32 block_size_;
  std::vector<std::unique_ptr<u8[]>> all_blocks_;
  std::vector<u8*> free_blocks_;  // has room for all blocks, so that Put never allocates
};

}  // namespace moru_vyr::lsp
