#include "client/fields/fields.h"

#include "client/fields/field_rows.h"
#include "client/fields/sample_tables.h"
#include "client/fields/tables.h"

namespace client {
namespace {

constexpr const char* kOnePerNode[] = {"proxy_idc", "proxy_name"};
constexpr const char* kOnePerDataCentre[] = {"game_idc"};
constexpr const char* kOnePerGroup[] = {"game_idc", "name"};

// Nodes and data centres come first: the rest refers to them by name.
constexpr Field kFileFields[] = {
    {.key = "route_binary_file_path",
     .kind = Kind::kText,
     AT(Tables, restriction.route_binary_file_path),
     .doc = "file with the route table, read where the route region is missing",
     .sample = "''"},
    {.key = "second_path",
     .kind = Kind::kText,
     AT(Tables, restriction.second_path),
     .doc = "carried, read by nothing",
     .sample = "''"},
    {.key = "header0",
     AT(Tables, route.image.header0),
     .doc = "header0 to header3 stand at the head of the route table and are carried into reports",
     .sample = "0"},
    {.key = "header1", AT(Tables, route.image.header1), .doc = "see header0", .sample = "0"},
    {.key = "header2", AT(Tables, route.image.header2), .doc = "see header0", .sample = "0"},
    {.key = "header3", AT(Tables, route.image.header3), .doc = "see header0", .sample = "0"},
    {.key = "iptable_word",
     AT(Tables, iptable.iptable_word),
     .doc = "carried, read by nothing",
     .sample = "0"},
    {.key = "node",
     .kind = Kind::kRecord,
     COUNTED(Tables, route.image.proxies, route.image.proxy_count),
     .doc = "one node, at most 150 of them",
     .shape = &kNodeShape,
     .unique = kOnePerNode,
     .example = kSampleNodes},
    {.key = "idc",
     .kind = Kind::kGroups,
     COUNTED(Tables, iptable.records, iptable.ip_count),
     .doc = "one data centre of a game with the addresses of its servers, at most 81920 addresses "
            "in all",
     .shape = &kIdcShape,
     .unique = kOnePerGroup,
     .example = kSampleIdcs},
    {.key = "game",
     .kind = Kind::kRecord,
     LIST(Tables, restriction.games),
     .doc = "one game, at most 10 of them; the first whose paths hold a process's own wins",
     .required = true,
     .shape = &kGameShape},
    {.key = "route",
     .kind = Kind::kRecord,
     COUNTED(Tables, route.image.route_sets[0].routes, route.image.route_sets[0].route_count),
     .doc = "the route to one data centre, at most 60 of them; for games whose acc_mode is not 2",
     .shape = &kRouteShape,
     .unique = kOnePerDataCentre,
     .example = kSampleRoutes},
    {.key = "route_mode2",
     .kind = Kind::kRecord,
     COUNTED(Tables, route.image.route_sets[1].routes, route.image.route_sets[1].route_count),
     .doc = "the same, for games whose acc_mode is 2",
     .shape = &kRouteShape,
     .unique = kOnePerDataCentre,
     .example = kSampleRoutesMode2},
    {.key = "spur",
     .kind = Kind::kGroups,
     COUNTED(Tables, spur.records, spur.spur_count),
     .doc = "addresses that join a data centre while games run, for every VIP level; at most 2048 "
            "addresses in all. Once a game has read such addresses, only others replace them: an "
            "empty list never does",
     .shape = &kSpurShape,
     .unique = kOnePerDataCentre,
     .example = kSampleSpurs},
    {.key = "blacklist",
     .kind = Kind::kRecord,
     COUNTED(Tables, blacklist.records, blacklist.blacklist_count),
     .doc = "destinations that are never relayed, at most 1024",
     .shape = &kBlacklistShape,
     .example = kSampleBlacklist},
    {.key = "launch_test",
     .kind = Kind::kRecord,
     COUNTED(Tables, launch_test.records, launch_test.valid_count),
     .doc = "the node that was found best for a data centre when the game was launched, at most "
            "64; counts for games with game_launch_test_use",
     .shape = &kLaunchTestShape,
     .unique = kOnePerDataCentre,
     .example = kSampleLaunchTest},
};
constexpr Shape kFileShape = {"Tables", sizeof(Tables), kFileFields};

}  // namespace

uint64_t Field::Max() const {
  if (max != 0) return max;
  return size >= sizeof(uint64_t) ? UINT64_MAX : (uint64_t{1} << (8 * size)) - 1;
}

const std::byte* Field::RecordOf(const std::byte* record, const std::byte* tables) const {
  if (beside == nullptr) return record;
  const auto place = reinterpret_cast<uintptr_t>(record) - reinterpret_cast<uintptr_t>(tables);
  const size_t index = (place - beside->records) / beside->record_size;
  if (place < beside->records || index >= beside->count) return nullptr;
  return tables + beside->list + index * beside->entry_size;
}

std::byte* Field::RecordOf(std::byte* record, std::byte* tables) const {
  return const_cast<std::byte*>(RecordOf(static_cast<const std::byte*>(record), tables));
}

bool Field::IsText() const {
  switch (kind) {
    case Kind::kText:
    case Kind::kDigits:
    case Kind::kDigitList:
    case Kind::kPath:
    case Kind::kDirectory:
    case Kind::kAddress:
      return true;
    default:
      return false;
  }
}

const Field* Shape::Find(std::string_view wanted) const {
  for (const Field& field : fields) {
    if (wanted == field.key) return &field;
  }
  return nullptr;
}

const Shape& FileShape() { return kFileShape; }

}  // namespace client
