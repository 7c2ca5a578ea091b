// The relay's centre. For now it only names sockets; the worker thread and its providers will
// stand here.
#pragma once
#include "common/lock.h"
#include "common/types.h"

namespace moru_vyr::lsp {

// One per process. It starts no thread when it is built.
class RelayMgr {
 public:
  RelayMgr() = default;
  RelayMgr(const RelayMgr&) = delete;
  RelayMgr& operator=(const RelayMgr&) = delete;

  // The identity of one more socket: 1, 2, 3 … over the life of the process, from any thread.
  u32 NextToken() noexcept;

 private:
  common::Mutex token_lock_;  // guards last_token_; a leaf
  u32 last_token_ = 0;
};

// The process's relay, built at first use and alive until the process ends.
RelayMgr& GetRelayMgr();

}  // namespace moru_vyr::lsp
