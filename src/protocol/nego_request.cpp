#include "protocol/nego_request.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

using Body = NegoRequestBody;

constexpr WireInteger kIntegers[] = {
    {offsetof(Body, flags), sizeof(u32)},
    {offsetof(Body, uin), sizeof(u64)},
    {offsetof(Body, game_id_low), sizeof(u32)},
    {offsetof(Body, game_ip), sizeof(u32)},
    {offsetof(Body, game_port), sizeof(u16)},
    {offsetof(Body, guid.data1), sizeof(u32)},
    {offsetof(Body, guid.data2), sizeof(u16)},
    {offsetof(Body, guid.data3), sizeof(u16)},
    {offsetof(Body, last_node.node_id), sizeof(u16)},
    {offsetof(Body, last_node.port), sizeof(u16)},
    {offsetof(Body, last_node.ip), sizeof(u32)},
    {offsetof(Body, last_node.accl_token), sizeof(u32)},
    {offsetof(Body, game_idc), sizeof(u32)},
    {offsetof(Body, game_id), sizeof(u64)},
};

constexpr std::size_t SizeOf(u32 version) noexcept {
  const u32 known = NormaliseVersion(version, kNegoVersion);
  return known == 1   ? offsetof(Body, last_node)
         : known == 2 ? offsetof(Body, game_id)
                      : sizeof(Body);
}

}  // namespace

void NegoRequestBody::Init(u32 version) noexcept {
  const NegoRequestBody initial;
  std::memcpy(static_cast<void*>(this), &initial, SizeOf(version));
}

int NegoRequestBody::Pack(std::span<u8> out, u32 version) const noexcept {
  return PackRecord(*this, kIntegers, out, SizeOf(version));
}

int NegoRequestBody::Unpack(std::span<const u8> in, u32 version) noexcept {
  return UnpackRecord(this, kIntegers, in, SizeOf(version));
}

}  // namespace moru_vyr::lsp
