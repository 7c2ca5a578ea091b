#include <winsock2.h>

#include <cstdio>

#include "port/shared/backend.h"
#include "port/shared/process.h"

namespace {

// One part of an address: decimal, 0-octal or 0x-hexadecimal. Advances `text` past it.
bool ParsePart(const char** text, uint32_t* value) {
  const char* at = *text;
  if (*at < '0' || *at > '9') return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long number = std::strtoull(at, &end, 0);
  if (errno != 0 || end == at || number > 0xffffffffull) return false;
  *value = static_cast<uint32_t>(number);
  *text = end;
  return true;
}

constexpr uint32_t kNoAddress = 0xffffffffu;

// The classic forms: a.b.c.d, a.b.c (c of 16 bits), a.b (b of 24 bits), a (32 bits).
uint32_t Parse(const char* text) {
  uint32_t parts[4] = {};
  int count = 0;
  do {
    if (count == 4 || !ParsePart(&text, &parts[count++])) return kNoAddress;
  } while (*text == '.' && ++text);
  if (*text != '\0' && *text != ' ' && *text != '\t') return kNoAddress;
  uint32_t address = 0;
  for (int i = 0; i + 1 < count; ++i) {
    if (parts[i] > 255) return kNoAddress;
    address |= parts[i] << (24 - 8 * i);
  }
  const uint32_t last = parts[count - 1];
  const int last_bits = 32 - 8 * (count - 1);
  if (last_bits < 32 && last >> last_bits != 0) return kNoAddress;
  return address | last;
}

}  // namespace

unsigned long vyr_port_inet_addr(const char* text) {
  if (!text) return kNoAddress;
  if (*text == '\0' || std::strcmp(text, " ") == 0) return 0;  // documented: a blank is 0.0.0.0
  return htonl(Parse(text));
}

char* vyr_port_inet_ntoa(struct in_addr address) {
  port::CurrentProcess().layers.AwaitStartLock();
  auto& text = port::CurrentThreadState().inet_text;
  const uint32_t value = ntohl(address.s_addr);
  std::snprintf(text, sizeof text, "%u.%u.%u.%u", value >> 24, value >> 16 & 255, value >> 8 & 255,
                value & 255);
  return text;
}
