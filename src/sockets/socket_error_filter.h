// Limits the failure lines of a busy socket: each kind of failure is logged five times.
#pragma once
#include <map>
#include <utility>

#include "common/lock.h"
#include "common/types.h"

namespace moru_vyr::lsp {

enum SocketOperation : int {
  kOperationSend = 1,
  kOperationSendTo = 2,
  kOperationRecv = 3,
  kOperationRecvFrom = 4,
  kOperationConnect = 5,
};

constexpr int kMaxLinesPerFailure = 5;

// Any thread; the lock covers one operation. Nothing throws: when out of memory, a failure counts
// as new.
class SocketErrorFilter {
 public:
  // True for the first five times that this socket gets this error in this operation.
  bool ShouldLog(int operation, int error, u32 token) noexcept;
  // Forgets a closed socket's counts.
  void Forget(u32 token) noexcept;

 private:
  using Failure = std::pair<int, int>;  // operation, error

  common::Mutex lock_;  // guards tokens_; a leaf
  std::map<u32, std::map<Failure, int>> tokens_;
};

// The process's filter, built at first use and alive until the process ends.
SocketErrorFilter& GetSocketErrorFilter();

}  // namespace moru_vyr::lsp
