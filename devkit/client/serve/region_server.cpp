#include "client/serve/region_server.h"

#include <cstring>

#include "client/bounded_lock.h"

namespace client {
namespace {

// Whether readers would accept the existing region. Reading does not swap its buffers.
bool IsReadable(common::Shared_mem_obj* owner) {
  const bool readable = owner->Open(common::kOpenForReading, true) != nullptr;
  owner->Close();
  return readable;
}

bool Copy(common::Shared_mem_obj* owner, const std::byte* record, size_t size) {
  if (!IsReadable(owner)) return false;
  // The buffer that is not being read may hold anything: it is written whole, header included.
  void* const to = owner->Open(common::kOpenForWriting, false);
  if (to != nullptr) std::memcpy(to, record, size);
  owner->Close();
  return to != nullptr;
}

}  // namespace

RegionServer::Outcome RegionServer::Publish(const Tables& tables, unsigned wait_ms) {
  Outcome outcome;
  const std::unique_ptr<Tables> nothing = published_ ? nullptr : NewTables();
  const Tables& before = published_ ? *published_ : *nothing;
  auto now = std::make_unique<Tables>(before);
  for (int i = 0; i < kRegionCount; ++i) {
    const RegionId id = static_cast<RegionId>(i);
    const RegionRow& row = Regions()[id];
    // A region that exists at the start is a former client's, kept alive by the games that have it
    // open.
    const bool is_stale = !published_ && common::Shared_mem_obj::Exists(row.name);
    const bool must_exist = (id == kRestriction && !owners_[id]) || is_stale;
    const bool same = std::memcmp(RegionOf(before, row), RegionOf(tables, row), row.size) == 0;
    if (same && !must_exist) continue;
    const std::string error = Write(id, tables, wait_ms);
    if (!error.empty()) {
      outcome.error += (outcome.error.empty() ? "" : "; ") + error;
      continue;
    }
    std::memcpy(RegionOf(*now, row), RegionOf(tables, row), row.size);
    outcome.written.push_back(id);
  }
  published_ = std::move(now);
  return outcome;
}

// Empty on success, otherwise the reason in words.
std::string RegionServer::Write(RegionId id, const Tables& tables, unsigned wait_ms) {
  const RegionRow& row = Regions()[id];
  const BoundedLock lock(row.mutex_name, wait_ms);
  if (!lock.exists()) return std::string("cannot make the mutex ") + row.mutex_name;
  if (!lock.owns()) {
    return std::string("another process holds ") + row.mutex_name + " since " +
           std::to_string(wait_ms) + " ms";
  }
  auto& owner = owners_[id];
  if (!owner) {
    owner = std::make_unique<common::Shared_mem_obj>(row.name, static_cast<uint32_t>(row.size),
                                                     row.mutex_name, row.double_buffered);
  }
  const bool written = Copy(owner.get(), RegionOf(tables, row), row.size);
  if (written) return "";
  owner.reset();
  return std::string("cannot write ") + row.name +
         ": it cannot be made, or a program of another version holds it with another layout";
}

}  // namespace client
