#include "protocol/udp_accl_header.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kReadFirst = offsetof(UdpAcclHeader, seq);  // what the version decides about

void Convert(u8* to, const u8* from) noexcept {
  CopyBytes(to, from, 0, kReadFirst);
  ConvertField<u32>(to, from, offsetof(UdpAcclHeader, seq));
  ConvertField<u32>(to, from, offsetof(UdpAcclHeader, accl_token));
  ConvertField<u32>(to, from, offsetof(UdpAcclHeader, game_ip));
  ConvertField<u16>(to, from, offsetof(UdpAcclHeader, game_port));
  CopyBytes(to, from, offsetof(UdpAcclHeader, reserved), sizeof UdpAcclHeader::reserved);
  CopyBytes(to, from, offsetof(UdpAcclHeader, lost), sizeof UdpAcclHeader::lost);
}

}  // namespace

int UdpAcclHeader::Pack(void* buffer, u32 length, u32 packed_version) noexcept {
  if (buffer != nullptr && length < sizeof *this) return kPackTooShort;
  if (packed_version == 0) packed_version = version;
  version = static_cast<u8>(NormaliseVersion(packed_version, kUdpAcclVersion));
  head_len = sizeof *this;
  Convert(BufferOr(buffer, this), BytesOf(this));
  return sizeof *this;
}

int UdpAcclHeader::Unpack(void* buffer, u32 length) noexcept {
  if (buffer != nullptr && length < kReadFirst) return kUnpackTooShort;
  u8* const from = BufferOr(buffer, this);
  u8* const version_byte = from + offsetof(UdpAcclHeader, version);
  *version_byte = static_cast<u8>(NormaliseVersion(*version_byte, kUdpAcclVersion));
  if (from[offsetof(UdpAcclHeader, head_len)] < sizeof *this) return kBadLength;
  if (buffer != nullptr && length < sizeof *this) return kUnpackTooShort;
  Convert(BytesOf(this), from);
  return head_len;
}

}  // namespace moru_vyr::lsp
