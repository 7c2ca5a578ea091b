// Owns one kernel handle. Null and the invalid handle both count as empty, because the platform
// uses either, depending on the call.
#pragma once
#include <winsock2.h>

#include <utility>

namespace common {

class UniqueHandle {
 public:
  UniqueHandle() noexcept = default;
  explicit UniqueHandle(HANDLE handle) noexcept : handle_(handle) {}
  UniqueHandle(UniqueHandle&& other) noexcept : handle_(other.Release()) {}
  UniqueHandle& operator=(UniqueHandle&& other) noexcept {
    if (this != &other) Reset(other.Release());
    return *this;
  }
  ~UniqueHandle() { Reset(); }

  HANDLE get() const noexcept { return handle_; }
  explicit operator bool() const noexcept {
    return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE;
  }
  HANDLE Release() noexcept { return std::exchange(handle_, nullptr); }
  void Reset(HANDLE handle = nullptr) noexcept {
    if (*this) CloseHandle(handle_);
    handle_ = handle;
  }

 private:
  HANDLE handle_ = nullptr;
};

}  // namespace common
