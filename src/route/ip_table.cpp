#include "route/ip_table.h"

#include <algorithm>
#include <vector>

#include "common/log.h"
#include "route/acc_config.h"
#include "route/region_reader.h"

namespace moru_vyr::lsp {
namespace {

u32 VipLevelOf(u32 game_idc) noexcept { return game_idc / 100 % 10; }

}  // namespace

bool IpTable::LoadIpTable() noexcept {
  if (!empty()) return true;
  was_held_ = !ReadRegion<IpTableRegion>(
      kIpTableRegionName, kIpTableMutexName,
      {"[Route][LoadIpTable] read route table from shared memory failed, mem_addr=null",
       "[Route][LoadIpTable] read route table from shared memory failed, mem_addr.get()=null",
       "[Route][LoadIpTable] read iptable from shared memory failed, iptable_pointer alloc failed "
       "with null"},
      [this](const IpTableRegion& region) { LoadIpTableFromMem(region); });
  return !empty();
}

void IpTable::LoadIpTableFromMem(const IpTableRegion& region) {
  LSP_LOG(0, "[Route][LoadIpTableFromMem] begin!");
  const u32 level = GetAccConfig()->game_vip_level;
  const u32 count = std::min(region.ip_count, kMaxIpRecords);
  std::vector<IpIdcMap::Record> records;
  for (u32 i = 0; i < count; ++i) {
    const IpRecord& record = region.records[i];
    if (VipLevelOf(record.game_idc) == level) records.push_back({record.ip, record.game_idc});
  }
  IpIdcMap(records).swap(ip_table_);
  is_filled_.store(!ip_table_.empty(), std::memory_order_release);
  LSP_LOG(5, "[Route][LoadIpTableFromMem] success ip count(%d), level=%lu!",
          static_cast<int>(ip_table_.size()), static_cast<unsigned long>(level));
}

}  // namespace moru_vyr::lsp
