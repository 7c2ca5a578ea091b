// Addresses that are added to the game while it runs, with their data centres, for every VIP level.
// Replaced by the worker, looked up by application threads.
#pragma once
#include <optional>

#include "abi/ip_table_formats.h"
#include "common/lock.h"
#include "common/types.h"
#include "route/ip_idc_map.h"

namespace moru_vyr::lsp {

class SpurList {
 public:
  // Reads the region again. If it cannot be read, the list stays as it was. False if that is
  // because the mutex was not free, and a later try may succeed.
  bool LoadSpurIplistTable() noexcept;

  // Kept: an empty table never replaces what was loaded before, so the client program cannot
  // empty the list. May throw std::bad_alloc; the list is unchanged then.
  void LoadSpurIplistTableFromMem(const SpurRegion& region);

  std::optional<u32> Find(u32 ip) const noexcept;  // network byte order

 private:
  mutable common::Mutex lock_;  // guards spur_iplist_, for one lookup or one swap; a leaf
  IpIdcMap spur_iplist_;
};

}  // namespace moru_vyr::lsp
