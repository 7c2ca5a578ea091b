#include "protocol/session_guid.h"

#include <winsock2.h>
//
#include <rpc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

constexpr WireInteger kIntegers[] = {
    {offsetof(SessionGuid, data1), sizeof(u32)},
    {offsetof(SessionGuid, data2), sizeof(u16)},
    {offsetof(SessionGuid, data3), sizeof(u16)},
};

u32 DrawRandom() noexcept {
  unsigned int value = 0;
  rand_s(&value);
  return value;
}

// For machines without a network address, where the system gives no identifier. Kept: the fourth
// draw lies half over the third, and the last two bytes stay as the system left them.
void FillFromRandom(SessionGuid* guid) noexcept {
  guid->data1 = DrawRandom();
  const u32 second = DrawRandom();
  guid->data2 = static_cast<u16>(second);
  guid->data3 = static_cast<u16>(second >> 16);
  const u32 third = DrawRandom();
  std::memcpy(guid->data4, &third, sizeof third);
  const u32 fourth = DrawRandom();
  std::memcpy(guid->data4 + 2, &fourth, sizeof fourth);
}

}  // namespace

SessionGuid SessionGuid::Make() noexcept {
  UUID uuid = {};
  static_assert(sizeof uuid == sizeof(SessionGuid));
  const RPC_STATUS status = UuidCreate(&uuid);
  SessionGuid guid;
  std::memcpy(static_cast<void*>(&guid), &uuid, sizeof guid);
  if (status == RPC_S_UUID_NO_ADDRESS) FillFromRandom(&guid);
  return guid;
}

int SessionGuid::Pack(std::span<u8> out) const noexcept {
  return PackRecord(*this, kIntegers, out);
}

int SessionGuid::Unpack(std::span<const u8> in) noexcept {
  return UnpackRecord(this, kIntegers, in);
}

char* SessionGuid::ToString(char* buffer, u32 size) const noexcept {
  if (buffer == nullptr || size < kTextSize) return nullptr;
  std::snprintf(buffer, size, "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X", data1, data2,
                data3, data4[0], data4[1], data4[2], data4[3], data4[4], data4[5], data4[6],
                data4[7]);
  buffer[size - 1] = '\0';
  return buffer;
}

}  // namespace moru_vyr::lsp
