// A first-in, first-out queue of bytes, used for the buffers of a stream.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

namespace sim {

class ByteQueue {
 public:
  size_t size() const { return bytes_.size() - head_; }
  bool empty() const { return size() == 0; }
  void Append(std::string_view more) { bytes_.append(more); }
  std::string Copy(size_t offset, size_t most) const { return bytes_.substr(head_ + offset, most); }

  size_t Peek(char* out, size_t most) const {
    const size_t n = std::min(most, size());
    if (n > 0) std::memcpy(out, bytes_.data() + head_, n);
    return n;
  }
  void Drop(size_t n) {
    head_ += n;
    if (head_ < bytes_.size() / 2) return;
    bytes_.erase(0, head_);
    head_ = 0;
  }
  void Clear() {
    bytes_.clear();
    head_ = 0;
  }

 private:
  std::string bytes_;
  size_t head_ = 0;
};

}  // namespace sim
