#include "route/blacklist.h"

#include <winsock2.h>

#include <algorithm>

#include "common/log.h"
#include "common/net_text.h"
#include "route/region_reader.h"

namespace moru_vyr::lsp {
namespace {

bool MatchesNothing(const BlacklistRecord& record) noexcept {
  return record.game_id == 0 && record.ip == 0 && record.port == 0;
}

// What a record leaves at zero matches everything; type must always match.
bool Matches(const BlacklistRecord& record, u64 game_id, u32 ip, u32 host_port,
             i32 socket_type) noexcept {
  return (record.game_id == 0 || record.game_id == game_id) &&
         (record.ip == 0 || record.ip == ip) && (record.port == 0 || record.port == host_port) &&
         record.type == static_cast<u32>(socket_type);
}

}  // namespace

bool Blacklist::LoadBlacklistTable() noexcept {
  return ReadRegion<BlacklistRegion>(
      kBlacklistRegionName, kBlacklistMutexName,
      {"LoadBlacklistTable read route table from shared memory failed, mem_addr=null",
       "LoadBlacklistTable read route table from shared memory failed, mem_addr.get()=null",
       "LoadBlacklistTable read iptable from shared memory failed, iptable_pointer alloc failed "
       "with null"},
      [this](const BlacklistRegion& region) { LoadBlacklistTableFromMem(region); });
}

void Blacklist::LoadBlacklistTableFromMem(const BlacklistRegion& region) {
  const u32 count = std::min(region.blacklist_count, kMaxBlacklistRecords);
  records_.reserve(count);  // what can fail comes before the old records go
  records_.clear();
  for (u32 i = 0; i < count; ++i) {
    const BlacklistRecord& record = region.records[i];
    if (record.type != kBlacklistTcp && record.type != kBlacklistUdp) continue;
    records_.push_back(record);
    LSP_LOG(0, "[LoadBlacklistTableFromMem] game_id=%llu, ip=%u(%s), port=%d, type=%s",
            static_cast<unsigned long long>(record.game_id), record.ip,
            common::IpToString(record.ip).c_str(), static_cast<int>(record.port),
            record.type == kBlacklistTcp ? "TCP" : "UDP");
  }
  is_filled_.store(!records_.empty(), std::memory_order_release);
  LSP_LOG(5, "[Route][LoadBlacklistTableFromMem] blacklist entries count(%d)!",
          static_cast<int>(records_.size()));
}

bool Blacklist::IsInAccBlacklist(u64 game_id, u32 ip, u16 port, i32 socket_type) const noexcept {
  if (!is_filled_.load(std::memory_order_acquire)) return false;
  const u32 host_port = ntohs(port);
  for (const BlacklistRecord& record : records_) {
    // Kept: a record of nothing but zeros is not a wildcard for everything; it does not count.
    if (MatchesNothing(record)) continue;
    if (Matches(record, game_id, ip, host_port, socket_type)) return true;
  }
  return false;
}

}  // namespace moru_vyr::lsp
