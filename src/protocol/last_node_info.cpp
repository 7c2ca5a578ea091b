#include "protocol/last_node_info.h"

#include "protocol/byte_order.h"
#include "protocol/codec.h"

namespace moru_vyr::lsp {

void ConvertLastNodeInfo(u8* to, const u8* from) noexcept {
  ConvertField<u16>(to, from, offsetof(LastNodeInfo, node_id));
  ConvertField<u16>(to, from, offsetof(LastNodeInfo, port));
  ConvertField<u32>(to, from, offsetof(LastNodeInfo, ip));
  ConvertField<u32>(to, from, offsetof(LastNodeInfo, accl_token));
}

int LastNodeInfo::Pack(void* buffer, u32 length) noexcept {
  if (buffer != nullptr && length < sizeof *this) return kPackTooShort;
  ConvertLastNodeInfo(BufferOr(buffer, this), BytesOf(this));
  return sizeof *this;
}

int LastNodeInfo::Unpack(const void* buffer, u32 length) noexcept {
  if (buffer != nullptr && length < sizeof *this) return kUnpackTooShort;
  ConvertLastNodeInfo(BytesOf(this), BufferOr(buffer, this));
  return sizeof *this;
}

}  // namespace moru_vyr::lsp
