// Which addresses belong to the game, and to which of its data centres. Filled once: while the
// provider starts, before any worker exists, or later by one thread, if the client program's mutex
// was not free then. Read by any thread and without a lock.
#pragma once
#include <atomic>

#include "abi/ip_table_formats.h"
#include "common/types.h"
#include "route/ip_idc_map.h"

namespace moru_vyr::lsp {

class IpTable {
 public:
  // Reads the region once: a table that is not empty stays. True if the table is not empty.
  bool LoadIpTable() noexcept;
  // Whether the last read has failed because the mutex was not free.
  bool was_held() const noexcept { return was_held_; }

  // Takes the records of the configured game VIP level and ignores the rest: up to ten tables are
  // interleaved in one region. May throw std::bad_alloc; the table is unchanged then.
  void LoadIpTableFromMem(const IpTableRegion& region);

  // ip in network byte order.
  const u32* Find(u32 ip) const noexcept { return empty() ? nullptr : ip_table_.Find(ip); }
  bool empty() const noexcept { return !is_filled_.load(std::memory_order_acquire); }
  std::size_t size() const noexcept { return ip_table_.size(); }

 private:
  IpIdcMap ip_table_;
  std::atomic<bool> is_filled_{false};  // set last
  bool was_held_ = false;
};

}  // namespace moru_vyr::lsp
