#include "client/dump/region_reader.h"

#include <algorithm>
#include <cstring>

#include "client/bounded_lock.h"
#include "client/files.h"
#include "common/shared_mem_obj.h"

namespace client {
namespace {

using moru_vyr::lsp::RouteTableImage;

bool CopyRegion(const RegionRow& row, unsigned wait_ms, std::byte* to) {
  BoundedLock lock(row.mutex_name, wait_ms);
  if (!lock.owns()) return false;
  common::Shared_mem_obj owner(row.name, static_cast<uint32_t>(row.size), row.mutex_name,
                               row.double_buffered);
  const void* const record = owner.Open(common::kOpenForReading, true);
  if (record != nullptr) std::memcpy(to, record, row.size);
  owner.Close();
  return record != nullptr;
}

}  // namespace

bool StandingTables::AnyPresent() const {
  return std::any_of(present.begin(), present.end(), [](bool there) { return there; });
}

StandingTables ReadRegions(unsigned wait_ms) {
  StandingTables standing;
  standing.tables = NewTables();
  for (int i = 0; i < kRegionCount; ++i) {
    const RegionRow& row = Regions()[static_cast<size_t>(i)];
    if (!common::Shared_mem_obj::Exists(row.name)) continue;
    if (CopyRegion(row, wait_ms, RegionOf(*standing.tables, row))) {
      standing.present[static_cast<size_t>(i)] = true;
    } else {
      standing.error += (standing.error.empty() ? "cannot read " : ", ") + std::string(row.name);
    }
  }
  return standing;
}

std::string ReadRouteFile(const std::string& path, Tables* tables) {
  const FileText file = ReadWhole(path);
  if (!file.text) return file.problem;
  const std::string& bytes = *file.text;
  if (bytes.size() != sizeof(RouteTableImage)) {
    return "has " + std::to_string(bytes.size()) + " bytes, a route table has " +
           std::to_string(sizeof(RouteTableImage));
  }
  std::memcpy(reinterpret_cast<std::byte*>(&tables->route.image), bytes.data(), bytes.size());
  return "";
}

// Written beside the file first: a game that starts at this moment must not find half of it.
std::string WriteRouteFile(const std::string& path, const Tables& tables) {
  const auto* const bytes = reinterpret_cast<const char*>(&tables.route.image);
  return WriteWhole(path, std::string(bytes, sizeof(RouteTableImage)));
}

}  // namespace client
