// Everything that the client program tells the library: every region, in our own memory.
#pragma once

#include <array>
#include <cstddef>
#include <memory>

#include "abi/mending_formats.h"
#include "abi/restriction_formats.h"
#include "abi/route_formats.h"

namespace client {

// The formats are packed, so the regions lie in here one behind the other without a gap, and a
// field of any of them is a place in this record. Nearly a megabyte: never on a stack.
struct Tables {
  moru_vyr::lsp::MendingRegion mending;
  moru_vyr::lsp::RestrictionRegion restriction;
  moru_vyr::lsp::RouteRegion route;
  moru_vyr::lsp::IpTableRegion iptable;
  moru_vyr::lsp::BlacklistRegion blacklist;
  moru_vyr::lsp::SpurRegion spur;
  moru_vyr::lsp::LaunchTestRegion launch_test;
};
static_assert(sizeof(Tables) == 336 + 134216 + 65680 + 655380 + 24600 + 16400 + 15120);

// Empty tables with valid headers.
std::unique_ptr<Tables> NewTables();

// One region: its name in the system, and its place in Tables.
struct RegionRow {
  const char* label;  // for people
  const char* name;
  const char* mutex_name;
  size_t offset;
  size_t size;
  bool double_buffered;
  const char* effect;  // when running games see a change
};

// In the order in which they are written: a game that starts once it is listed finds its mending.
enum RegionId {
  kMending,
  kRestriction,
  kRoute,
  kIpTable,
  kBlacklist,
  kSpur,
  kLaunchTest,
  kRegionCount
};
using RegionRows = std::array<RegionRow, kRegionCount>;
const RegionRows& Regions();

std::byte* RegionOf(Tables& tables, const RegionRow& row);
const std::byte* RegionOf(const Tables& tables, const RegionRow& row);

// Whether there is anything in the region but its header.
bool HasContent(const Tables& tables, const RegionRow& row);

}  // namespace client
