// The spelling of network values in log lines and reports.
#pragma once
#include <string>

#include "common/types.h"

namespace common {

// Network byte order. Does not use inet_ntoa, which waits while Winsock starts or ends in this
// process; a thread that ends Winsock waits for our worker.
std::string IpToString(u32 ip);
std::string SocketTypeName(int type);   // "TCP" for 1, "UDP" for 2, "RAW" for the rest
int SocketTypeCode(int type) noexcept;  // 0 for 1, 1 for 2, -1 for the rest

}  // namespace common
