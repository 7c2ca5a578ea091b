#include "protocol/last_node_info.h"

#include "protocol/byte_order.h"

namespace moru_vyr::lsp {
namespace {

constexpr WireInteger kIntegers[] = {
    {offsetof(LastNodeInfo, node_id), sizeof(u16)},
    {offsetof(LastNodeInfo, port), sizeof(u16)},
    {offsetof(LastNodeInfo, ip), sizeof(u32)},
    {offsetof(LastNodeInfo, accl_token), sizeof(u32)},
};

}  // namespace

int LastNodeInfo::Pack(std::span<u8> out) const noexcept {
  return PackRecord(*this, kIntegers, out);
}

int LastNodeInfo::Unpack(std::span<const u8> in) noexcept {
  return UnpackRecord(this, kIntegers, in);
}

}  // namespace moru_vyr::lsp
