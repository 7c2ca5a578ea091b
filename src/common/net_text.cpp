#include "common/net_text.h"

#include <winsock2.h>

#include <cstdio>
#include <cstring>

namespace common {

std::string IpToString(u32 ip) {
  unsigned char bytes[sizeof ip];
  std::memcpy(bytes, &ip, sizeof ip);
  char text[sizeof "255.255.255.255"];
  const int size = std::snprintf(text, sizeof text, "%u.%u.%u.%u", unsigned{bytes[0]},
                                 unsigned{bytes[1]}, unsigned{bytes[2]}, unsigned{bytes[3]});
  return size > 0 ? text : "0.0.0.0";
}

std::string SocketTypeName(int type) {
  switch (type) {
    case SOCK_STREAM:
      return "TCP";
    case SOCK_DGRAM:
      return "UDP";
    default:
      return "RAW";
  }
}

int SocketTypeCode(int type) noexcept {
  switch (type) {
    case SOCK_STREAM:
      return 0;
    case SOCK_DGRAM:
      return 1;
    default:
      return -1;
  }
}

}  // namespace common
