// What a vyr_client that serves says of itself, for a second one and for vyr_run: its process and
// its file. The region exists as long as that process holds it open.
#pragma once

#include <cstddef>
#include <cstdint>

namespace devkit {

inline constexpr char kServeClaimName[] = "vyr_client_serve";

struct ServeClaim {
  uint32_t process_id;  // 0: not written yet
  char file[1020];      // its full path in UTF-8, or as much of it as there is room for
};
static_assert(sizeof(ServeClaim) == 1024);
static_assert(offsetof(ServeClaim, process_id) == 0 && offsetof(ServeClaim, file) == 4);

}  // namespace devkit
