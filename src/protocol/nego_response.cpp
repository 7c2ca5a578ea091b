#include "protocol/nego_response.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

using Body = NegoResponseBody;

constexpr WireInteger kIntegers[] = {
    {offsetof(Body, accl_token), sizeof(u32)},
    {offsetof(Body, client_isp), sizeof(u32)},
    {offsetof(Body, client_ip), sizeof(u32)},
    {offsetof(Body, accl_data_ip), sizeof(u32)},
    {offsetof(Body, accl_data_port), sizeof(u16)},
    {offsetof(Body, last_node.node_id), sizeof(u16)},
    {offsetof(Body, last_node.port), sizeof(u16)},
    {offsetof(Body, last_node.ip), sizeof(u32)},
    {offsetof(Body, last_node.accl_token), sizeof(u32)},
};

constexpr std::size_t SizeOf(u32 version) noexcept {
  return version == 1 ? offsetof(Body, last_node) : sizeof(Body);
}

}  // namespace

void NegoResponseBody::Init(u32 version) noexcept {
  const NegoResponseBody initial;
  std::memcpy(static_cast<void*>(this), &initial, SizeOf(version));
}

int NegoResponseBody::Pack(std::span<u8> out, u32 version) const noexcept {
  return PackRecord(*this, kIntegers, out, SizeOf(version));
}

int NegoResponseBody::Unpack(std::span<const u8> in, u32 version) noexcept {
  return UnpackRecord(this, kIntegers, in, SizeOf(version));
}

}  // namespace moru_vyr::lsp
