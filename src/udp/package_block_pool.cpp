#include "udp/package_block_pool.h"

#include <algorithm>

namespace moru_vyr::lsp {
namespace {

constexpr size_t kFirstGrowth = 4;
constexpr size_t kLargestGrowth = 16;

}  // namespace

PackageBlockPool::PackageBlockPool(u32 block_size) noexcept
    : block_size_(std::max(block_size, kMinBlockSize)) {}

void* PackageBlockPool::Get() noexcept {
  if (free_blocks_.empty()) Grow();
  if (free_blocks_.empty()) return nullptr;
  u8* const block = free_blocks_.back();
  free_blocks_.pop_back();
  return block;
}

void PackageBlockPool::Put(void* block) noexcept {
  free_blocks_.push_back(static_cast<u8*>(block));
}

// Doubles, up to the most memory that one burst of datagrams may take at once.
void PackageBlockPool::Grow() noexcept {
  const size_t total = all_blocks_.size();
  size_t growth = total * 2 > kLargestGrowth ? kLargestGrowth : total;
  if (total == 0) growth = kFirstGrowth;
  try {
    all_blocks_.reserve(total + growth);
    free_blocks_.reserve(total + growth);
    for (size_t i = 0; i < growth; ++i) {
      auto block = std::make_unique<u8[]>(block_size_);
      free_blocks_.push_back(block.get());
      all_blocks_.push_back(std::move(block));
    }
  } catch (...) {  // those that there was memory for are there
  }
}

}  // namespace moru_vyr::lsp
