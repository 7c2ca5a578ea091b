#include <rpc.h>

#include "port/shared/backend.h"
#include "port/shared/faults.h"

int rand_s(unsigned int* out) {
  if (!out || port::Fails("rand_s")) return EINVAL;
  *out = port::RandomBits();
  return 0;
}

RPC_STATUS WINAPI UuidCreate(UUID* out) {
  INT error = 0;
  if (port::Fails("UuidCreate", &error)) return error;
  uint32_t words[4];
  for (uint32_t& word : words) word = port::RandomBits();
  std::memcpy(out, words, sizeof words);
  out->Data3 = static_cast<uint16_t>((out->Data3 & 0x0fff) | 0x4000);   // version 4: random
  out->Data4[0] = static_cast<uint8_t>((out->Data4[0] & 0x3f) | 0x80);  // the usual variant
  return RPC_S_OK;
}
