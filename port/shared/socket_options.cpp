#include "port/shared/socket_options.h"

#include <winsock2.h>

#include <cstdint>
#include <cstring>

namespace port {
namespace {

template <class Value>
int Put(const Value& value, char* out, int* size) {
  std::memcpy(out, &value, sizeof value);
  *size = sizeof value;
  return 0;
}

}  // namespace

int PutOption(int value, char* out, int* size) {
  return *size < static_cast<int>(sizeof value) ? WSAEFAULT : Put(value, out, size);
}

int PutLinger(int on, int seconds, char* out, int* size) {
  const int host[2] = {on, seconds};
  if (*size >= static_cast<int>(sizeof host)) return Put(host, out, size);
  const uint16_t brief[2] = {static_cast<uint16_t>(on), static_cast<uint16_t>(seconds)};
  return *size < static_cast<int>(sizeof brief) ? WSAEFAULT : Put(brief, out, size);
}

int ReadLinger(const char* value, int size, int* on, int* seconds) {
  int host[2];
  uint16_t brief[2];
  if (size >= static_cast<int>(sizeof host)) {
    std::memcpy(host, value, sizeof host);
  } else if (size >= static_cast<int>(sizeof brief)) {
    std::memcpy(brief, value, sizeof brief);
    host[0] = brief[0];
    host[1] = brief[1];
  } else {
    return WSAEFAULT;
  }
  *on = host[0];
  *seconds = host[1];
  return 0;
}

}  // namespace port
