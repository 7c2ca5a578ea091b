#include "stream/block_buffer.h"

#include <iterator>

namespace moru_vyr::lsp {

bool BlockBuffer::AddBlock() noexcept {
  if (!spare_.empty()) {
    active_.splice(active_.end(), spare_, std::prev(spare_.end()));
    return true;
  }
  if ((active_.size() + 1) * kBlockSize >= kGrowthLimit) return false;
  try {
    if (pool_ != nullptr) {
      pool_->Take(kBlockSize, &active_);
    } else {
      active_.emplace_back(kBlockSize);
    }
    return true;
  } catch (...) {
    return false;  // out of memory: the relay stops reading, as with a full buffer
  }
}

bool BlockBuffer::Reserve(u8** ptr, u32 size) noexcept {
  if (ptr == nullptr || size == 0) return false;
  // A block may count as having room and yet have none at its end; then the next one is taken. That
  // cannot fail for lack of blocks: only the front block is ever read from, so such a block is the
  // only one in use.
  if (active_.empty() || !active_.back().Fits(size)) AddBlock();
  if (active_.empty()) return false;
  BufferBlock& block = active_.back();
  *ptr = block.Fits(size) ? block.write_pos : nullptr;
  return *ptr != nullptr;
}

bool BlockBuffer::Commit(u32 size) noexcept {
  if (active_.empty() || !active_.back().Fits(size)) return false;
  active_.back().Wrote(size);
  return true;
}

bool BlockBuffer::Peek(u8** ptr, u32* len) const noexcept {
  if (ptr == nullptr || len == nullptr || active_.empty()) return false;
  const BufferBlock& block = active_.front();
  *len = block.Pending();
  *ptr = *len != 0 ? block.read_pos : nullptr;
  return *ptr != nullptr;
}

bool BlockBuffer::Consume(u32 size) noexcept {
  if (active_.empty() || size > active_.front().Pending()) return false;
  BufferBlock& block = active_.front();
  block.read_pos += size;
  if (block.read_pos == block.write_pos) {
    block.Reset();
    spare_.splice(spare_.end(), active_, active_.begin());
  }
  return true;
}

bool BlockBuffer::IsEmpty() const noexcept {
  u8* ptr;
  u32 len;
  return !Peek(&ptr, &len);
}

void BlockBuffer::Clear() noexcept {
  if (pool_ != nullptr) {
    pool_->Put(&spare_);
    pool_->Put(&active_);
  }
  spare_.clear();
  active_.clear();
}

}  // namespace moru_vyr::lsp
