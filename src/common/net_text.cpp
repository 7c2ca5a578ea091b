#include "common/net_text.h"

#include <winsock2.h>

namespace common {

std::string IpToString(u32 ip) {
  in_addr address = {};
  address.s_addr = ip;
  const char* const text = inet_ntoa(address);
  return text != nullptr ? text : "0.0.0.0";
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
