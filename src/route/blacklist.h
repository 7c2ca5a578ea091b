// Destinations that the client program keeps out of acceleration. Filled while the provider
// starts; only read afterwards, by any thread and without a lock.
#pragma once
#include <vector>

#include "abi/blacklist_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class Blacklist {
 public:
  // Reads the region again, at every attempt of the start. If it cannot be read, the list stays as
  // it was.
  void LoadBlacklistTable() noexcept;

  // Drops records that are neither for TCP nor for UDP. May throw std::bad_alloc.
  void LoadBlacklistTableFromMem(const BlacklistRegion& region);

  // ip and port in network byte order, socket_type as in the socket calls.
  bool IsInAccBlacklist(u64 game_id, u32 ip, u16 port, i32 socket_type) const noexcept;

  std::size_t size() const noexcept { return records_.size(); }

 private:
  std::vector<BlacklistRecord> records_;
};

}  // namespace moru_vyr::lsp
