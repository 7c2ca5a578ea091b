#include "stream/block_pool.h"

#include <winsock2.h>

#include <algorithm>
#include <iterator>
#include <new>

namespace moru_vyr::lsp {

void FreePages::operator()(u8* bytes) const noexcept { VirtualFree(bytes, 0, MEM_RELEASE); }

BufferBlock::BufferBlock(u32 size)
    : data(static_cast<u8*>(VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE))),
      capacity(size) {
  if (data == nullptr) throw std::bad_alloc();
  Reset();
}

void BlockPool::Take(u32 size, std::list<BufferBlock>* to) {
  if (kept_.empty() || kept_.back().capacity != size) {
    to->emplace_back(size);
  } else {
    to->splice(to->end(), kept_, std::prev(kept_.end()));
  }
}

void BlockPool::Put(std::list<BufferBlock>* from) noexcept {
  while (!from->empty()) {
    BufferBlock& block = from->front();
    if (block.used > kLittleUsed || kept_.size() >= kKeptBlocks) {
      from->pop_front();
      continue;
    }
    std::fill_n(block.data.get(), block.used, u8{0});
    block.used = 0;
    block.Reset();
    kept_.splice(kept_.end(), *from, from->begin());
  }
}

}  // namespace moru_vyr::lsp
