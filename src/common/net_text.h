// How network values are spelled in log lines and reports.
#pragma once
#include <string>

#include "common/types.h"

namespace common {

std::string IpToString(u32 ip);         // network byte order; "0.0.0.0" where that fails
std::string SocketTypeName(int type);   // "TCP" for 1, "UDP" for 2, "RAW" for the rest
int SocketTypeCode(int type) noexcept;  // 0 for 1, 1 for 2, -1 for the rest

}  // namespace common
