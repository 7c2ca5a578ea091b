#include "protocol/udp_accl_header.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kReadFirst = offsetof(UdpAcclHeader, seq);  // the fields that say what follows

constexpr WireInteger kIntegers[] = {
    {offsetof(UdpAcclHeader, seq), sizeof(u32)},
    {offsetof(UdpAcclHeader, accl_token), sizeof(u32)},
    {offsetof(UdpAcclHeader, game_ip), sizeof(u32)},
    {offsetof(UdpAcclHeader, game_port), sizeof(u16)},
};

}  // namespace

int UdpAcclHeader::Pack(std::span<u8> out, u32 packed_version) noexcept {
  if (out.size() < sizeof *this) return kPackTooShort;
  if (packed_version == 0) packed_version = version;
  version = static_cast<u8>(NormaliseVersion(packed_version, kUdpAcclVersion));
  head_len = sizeof *this;
  return PackRecord(*this, kIntegers, out);
}

int UdpAcclHeader::Unpack(std::span<const u8> in) noexcept {
  if (in.size() < kReadFirst) return kUnpackTooShort;
  if (in[offsetof(UdpAcclHeader, head_len)] < sizeof *this) return kBadLength;
  if (const int size = UnpackRecord(this, kIntegers, in); size < 0) return size;
  version = static_cast<u8>(NormaliseVersion(version, kUdpAcclVersion));
  return head_len;
}

}  // namespace moru_vyr::lsp
