#include "route/spur_list.h"

#include <algorithm>
#include <vector>

#include "common/log.h"
#include "common/net_text.h"
#include "route/region_reader.h"

namespace moru_vyr::lsp {

bool SpurList::LoadSpurIplistTable() noexcept {
  return ReadRegion<SpurRegion>(
      kSpurRegionName, kSpurMutexName,
      {"LoadSpurIplistTable read route table from shared memory failed, mem_addr=null",
       "LoadSpurIplistTable read route table from shared memory failed, mem_addr.get()=null",
       "LoadSpurIplistTable read iptable from shared memory failed, iptable_pointer alloc failed "
       "with null"},
      [this](const SpurRegion& region) { LoadSpurIplistTableFromMem(region); });
}

void SpurList::LoadSpurIplistTableFromMem(const SpurRegion& region) {
  const u32 count = std::min(region.spur_count, kMaxSpurRecords);
  std::vector<IpIdcMap::Record> records;
  records.reserve(count);
  for (u32 i = 0; i < count; ++i) {
    const SpurIpRecord& record = region.records[i];
    LSP_LOG(0, "[LoadSpurIplistTableFromMem] game_idc=%d, ip=%u(%s)",
            static_cast<int>(record.game_idc), record.ip, common::IpToString(record.ip).c_str());
    records.push_back({record.ip, record.game_idc});
  }
  IpIdcMap list(records);
  LSP_LOG(5, "[LoadSpurIplistTableFromMem] spur iptable entries count(%d)!",
          static_cast<int>(list.size()));
  if (list.empty()) return;
  const common::Lock hold(lock_);
  list.swap(spur_iplist_);
  // The old list dies with `list`, which was there before the lock and outlives it.
}

std::optional<u32> SpurList::Find(u32 ip) const noexcept {
  const common::Lock hold(lock_);
  const u32* const idc = spur_iplist_.Find(ip);
  return idc != nullptr ? std::optional<u32>(*idc) : std::nullopt;
}

}  // namespace moru_vyr::lsp
