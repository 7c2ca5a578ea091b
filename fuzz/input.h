// The fuzzer's bytes, taken from the front one by one. After their end there are zeros.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

namespace fuzz {

class Input {
 public:
  Input(const unsigned char* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }
  std::size_t size() const { return size_; }
  std::uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  std::uint16_t Word() {
    const unsigned low = Byte();
    return static_cast<std::uint16_t>(low | unsigned{Byte()} << 8);
  }
  std::uint32_t Long() {
    const std::uint32_t low = Word();
    return low | std::uint32_t{Word()} << 16;
  }
  // At most that many, and no more than there are.
  std::string Bytes(std::size_t most) {
    const std::size_t count = std::min(most, size_);
    std::string bytes(reinterpret_cast<const char*>(data_), count);
    data_ += count;
    size_ -= count;
    return bytes;
  }
  std::string Rest() { return Bytes(size_); }

  // A list of changes to a record: an offset of three bytes, a length of one, the bytes. Ends at an
  // offset of 0xffffff and at the end of the input.
  void Patch(void* record, std::size_t record_size) {
    while (size_ >= 5) {
      std::size_t offset = Word();
      offset |= std::size_t{Byte()} << 16;
      if (offset == 0xffffff) return;
      const std::string bytes = Bytes(Byte());
      offset %= record_size;
      bytes.copy(static_cast<char*>(record) + offset, record_size - offset);
    }
  }

 private:
  const unsigned char* data_;
  std::size_t size_;
};

}  // namespace fuzz
