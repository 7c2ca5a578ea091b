// Shared by the files that list field rows.
#pragma once

#include <type_traits>

#include "client/fields/fields.h"

// The place of one value, and of a list with and without a field that counts its entries.
#define AT(record, field) .offset = offsetof(record, field), .size = sizeof(record::field)
#define LIST(record, field)                                            \
  .offset = offsetof(record, field), .size = sizeof(record::field[0]), \
  .capacity = std::extent_v<decltype(record::field)>
#define COUNTED(record, field, count)                                                \
  LIST(record, field), .count_key = #count, .count_offset = offsetof(record, count), \
                       .count_size = sizeof(record::count)

namespace client {

inline constexpr uint64_t kPercent = 100;

extern const Shape kProxyShape;       // a RouteProxyInfo
extern const Shape kNodeShape;        // a ProxyRecord
extern const Shape kRouteShape;       // a RouteEntry
extern const Shape kGameShape;        // an AccConfig
extern const Shape kIdcShape;         // an AddressGroup of the IP table
extern const Shape kSpurShape;        // an AddressGroup of the spur list
extern const Shape kBlacklistShape;   // a BlacklistRecord
extern const Shape kLaunchTestShape;  // a GltRouteInfo

}  // namespace client
