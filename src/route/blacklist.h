// Destinations that the client program keeps out of acceleration. Filled while the provider starts,
// or while it is empty later by one thread, if the client program's mutex was not free then. Read
// by any thread and without a lock.
#pragma once
#include <atomic>
#include <vector>

#include "abi/blacklist_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class Blacklist {
 public:
  // Reads the region again, at every attempt of the start. If it cannot be read, the list stays as
  // it was. False if that is because the mutex was not free.
  bool LoadBlacklistTable() noexcept;

  // Drops records that are neither for TCP nor for UDP. May throw std::bad_alloc.
  void LoadBlacklistTableFromMem(const BlacklistRegion& region);

  // ip and port in network byte order, socket_type as in the socket calls.
  bool IsInAccBlacklist(u64 game_id, u32 ip, u16 port, i32 socket_type) const noexcept;

  std::size_t size() const noexcept { return records_.size(); }

 private:
  std::vector<BlacklistRecord> records_;
  std::atomic<bool> is_filled_{false};  // set last
};

}  // namespace moru_vyr::lsp
