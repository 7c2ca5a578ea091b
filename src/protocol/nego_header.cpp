#include "protocol/nego_header.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

constexpr WireInteger kIntegers[] = {
    {offsetof(NegoHeader, magic), sizeof(u32)},
    {offsetof(NegoHeader, pkg_len), sizeof(u16)},
    {offsetof(NegoHeader, version), sizeof(u16)},
    {offsetof(NegoHeader, reserved), sizeof(u16)},
};

}  // namespace

int NegoHeader::Pack(std::span<u8> out) const noexcept { return PackRecord(*this, kIntegers, out); }

int NegoHeader::Unpack(std::span<const u8> in) noexcept {
  const int size = UnpackRecord(this, kIntegers, in);
  return size < 0 || magic == kNegoMagic ? size : kBadMagic;
}

}  // namespace moru_vyr::lsp
