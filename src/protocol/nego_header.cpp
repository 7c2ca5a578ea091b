#include "protocol/nego_header.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

void Convert(u8* to, const u8* from) noexcept {
  ConvertField<u32>(to, from, offsetof(NegoHeader, magic));
  ConvertField<u16>(to, from, offsetof(NegoHeader, pkg_len));
  ConvertField<u16>(to, from, offsetof(NegoHeader, version));
  ConvertField<u16>(to, from, offsetof(NegoHeader, reserved));
}

}  // namespace

int NegoHeader::Pack(void* buffer, u32 length) noexcept {
  if (buffer != nullptr && length < sizeof *this) return kPackTooShort;
  Convert(BufferOr(buffer, this), BytesOf(this));
  return sizeof *this;
}

int NegoHeader::Unpack(const void* buffer, u32 length) noexcept {
  if (buffer != nullptr && length < sizeof *this) return kUnpackTooShort;
  Convert(BytesOf(this), BufferOr(buffer, this));
  return magic == kNegoMagic ? static_cast<int>(sizeof *this) : kBadMagic;
}

}  // namespace moru_vyr::lsp
