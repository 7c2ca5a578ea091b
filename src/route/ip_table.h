// Which addresses belong to the game, and to which of its data centres. Filled while the provider
// starts, before any worker exists; only read afterwards, by any thread and without a lock.
#pragma once
#include "abi/ip_table_formats.h"
#include "common/types.h"
#include "route/ip_idc_map.h"

namespace moru_vyr::lsp {

class IpTable {
 public:
  // Reads the region once: a table that is not empty stays. True if the table is not empty.
  bool LoadIpTable() noexcept;

  // Takes the records of the configured game VIP level and ignores the rest: up to ten tables are
  // interleaved in one region. May throw std::bad_alloc; the table is unchanged then.
  void LoadIpTableFromMem(const IpTableRegion& region);

  const u32* Find(u32 ip) const noexcept { return ip_table_.Find(ip); }  // network byte order
  bool empty() const noexcept { return ip_table_.empty(); }
  std::size_t size() const noexcept { return ip_table_.size(); }

 private:
  IpIdcMap ip_table_;
};

}  // namespace moru_vyr::lsp
