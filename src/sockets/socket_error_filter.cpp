#include "sockets/socket_error_filter.h"

namespace moru_vyr::lsp {

bool SocketErrorFilter::ShouldLog(int operation, int error, u32 token) noexcept {
  common::Lock hold(lock_);
  try {
    int& count = tokens_[token][{operation, error}];
    if (count >= kMaxLinesPerFailure) return false;
    ++count;
  } catch (...) {
    // One line too many costs less than a failure that is not seen.
  }
  return true;
}

void SocketErrorFilter::Forget(u32 token) noexcept {
  common::Lock hold(lock_);
  tokens_.erase(token);
}

SocketErrorFilter& GetSocketErrorFilter() {
  static SocketErrorFilter& filter = *new SocketErrorFilter;
  return filter;
}

}  // namespace moru_vyr::lsp
