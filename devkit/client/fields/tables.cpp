#include "client/fields/tables.h"

#include <algorithm>
#include <cstring>

namespace client {
namespace {

using namespace moru_vyr::lsp;

constexpr char kLaterStarts[] = "games that start from now on";

#define IN_TABLES(region) .offset = offsetof(Tables, region), .size = sizeof(Tables::region)
constexpr RegionRows kRegions = {{
    {.label = "mending",
     .name = kMendingRegionName,
     .mutex_name = kMendingMutexName,
     IN_TABLES(mending),
     .double_buffered = false,
     .effect = kLaterStarts},
    {.label = "games",
     .name = kRestrictionRegionName,
     .mutex_name = kRestrictionMutexName,
     IN_TABLES(restriction),
     .double_buffered = false,
     .effect = kLaterStarts},
    {.label = "route table",
     .name = kRouteRegionName,
     .mutex_name = kRouteMutexName,
     IN_TABLES(route),
     .double_buffered = true,
     .effect = "running games, at their next lookup"},
    {.label = "IP table",
     .name = kIpTableRegionName,
     .mutex_name = kIpTableMutexName,
     IN_TABLES(iptable),
     .double_buffered = false,
     .effect = kLaterStarts},
    {.label = "blacklist",
     .name = kBlacklistRegionName,
     .mutex_name = kBlacklistMutexName,
     IN_TABLES(blacklist),
     .double_buffered = false,
     .effect = kLaterStarts},
    {.label = "spur list",
     .name = kSpurRegionName,
     .mutex_name = kSpurMutexName,
     IN_TABLES(spur),
     .double_buffered = false,
     .effect = "running games that were notified, within 30 seconds"},
    {.label = "launch test",
     .name = kLaunchTestRegionName,
     .mutex_name = kLaunchTestMutexName,
     IN_TABLES(launch_test),
     .double_buffered = false,
     .effect = "running games, at their next decision"},
}};
#undef IN_TABLES

}  // namespace

const RegionRows& Regions() { return kRegions; }

std::unique_ptr<Tables> NewTables() {
  auto tables = std::make_unique<Tables>();
  for (const RegionRow& row : kRegions) {
    const common::SharedMemHeader header = {.shared_mem_size = static_cast<uint32_t>(row.size),
                                            .major_ver = common::kSharedMemMajorVersion,
                                            .minor_ver = common::kSharedMemMinorVersion};
    std::memcpy(RegionOf(*tables, row), &header, sizeof header);
  }
  return tables;
}

std::byte* RegionOf(Tables& tables, const RegionRow& row) {
  return reinterpret_cast<std::byte*>(&tables) + row.offset;
}

const std::byte* RegionOf(const Tables& tables, const RegionRow& row) {
  return reinterpret_cast<const std::byte*>(&tables) + row.offset;
}

bool HasContent(const Tables& tables, const RegionRow& row) {
  const std::byte* const begin = RegionOf(tables, row) + sizeof(common::SharedMemHeader);
  return std::any_of(begin, RegionOf(tables, row) + row.size,
                     [](std::byte byte) { return byte != std::byte{0}; });
}

}  // namespace client
