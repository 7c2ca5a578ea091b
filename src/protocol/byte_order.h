// Conversion of record fields between host order and the wire's big-endian order.
//
// A record has the same layout in memory as on the wire, so a conversion is a copy that swaps, and
// the same copy serves both directions; `to` and `from` may be the same record. Fields may have any
// alignment: they are only accessed through memcpy.
#pragma once
#include <winsock2.h>

#include <cstddef>
#include <cstring>
#include <utility>

#include "common/types.h"

namespace moru_vyr::lsp {

inline u16 SwapToWire(u16 value) noexcept { return htons(value); }
inline u32 SwapToWire(u32 value) noexcept { return htonl(value); }

// The socket layer has no call for 64 bits.
inline u64 SwapToWire(u64 value) noexcept {
  if (htons(1) == 1) return value;
  u8 bytes[sizeof value];
  std::memcpy(bytes, &value, sizeof value);
  for (std::size_t i = 0; i < sizeof bytes / 2; ++i) {
    std::swap(bytes[i], bytes[sizeof bytes - 1 - i]);
  }
  std::memcpy(&value, bytes, sizeof value);
  return value;
}

// Converts the integer of type T at `offset` of both records.
template <class T>
void ConvertField(u8* to, const u8* from, std::size_t offset) noexcept {
  T value;
  std::memcpy(&value, from + offset, sizeof value);
  value = SwapToWire(value);
  std::memcpy(to + offset, &value, sizeof value);
}

// Fields that have no byte order.
inline void CopyBytes(u8* to, const u8* from, std::size_t offset, std::size_t size) noexcept {
  if (to != from) std::memcpy(to + offset, from + offset, size);
}

inline u8* BytesOf(void* record) noexcept { return static_cast<u8*>(record); }

// Where a conversion writes to or reads from: the caller's buffer, or the record itself, in place.
inline u8* BufferOr(void* buffer, void* record) noexcept {
  return static_cast<u8*>(buffer != nullptr ? buffer : record);
}
inline const u8* BufferOr(const void* buffer, const void* record) noexcept {
  return static_cast<const u8*>(buffer != nullptr ? buffer : record);
}

}  // namespace moru_vyr::lsp
