#include "protocol/nego_response.h"

#include "protocol/byte_order.h"
#include "protocol/nego_message.h"

namespace moru_vyr::lsp {
namespace {

void ConvertVersion1(u8* to, const u8* from) noexcept {
  CopyBytes(to, from, offsetof(NegoResponseBody, result), sizeof NegoResponseBody::result);
  ConvertField<u32>(to, from, offsetof(NegoResponseBody, accl_token));
  ConvertField<u32>(to, from, offsetof(NegoResponseBody, client_isp));
  ConvertField<u32>(to, from, offsetof(NegoResponseBody, client_ip));
  ConvertField<u32>(to, from, offsetof(NegoResponseBody, accl_data_ip));
  ConvertField<u16>(to, from, offsetof(NegoResponseBody, accl_data_port));
}

void ConvertVersion2(u8* to, const u8* from) noexcept {
  ConvertVersion1(to, from);
  constexpr std::size_t kLastNode = offsetof(NegoResponseBody, last_node);
  ConvertLastNodeInfo(to + kLastNode, from + kLastNode);
}

const NegoForm* FormOf(u32 version) noexcept {
  static constexpr NegoForm kForms[] = {
      {offsetof(NegoResponseBody, last_node), ConvertVersion1},
      {sizeof(NegoResponseBody), ConvertVersion2},
  };
  switch (NormaliseVersion(version, kNegoVersion)) {
    case 1:
      return &kForms[0];
    case 2:
    case 3:
      return &kForms[1];
    default:
      return nullptr;
  }
}

}  // namespace

void NegoResponseBody::Init(u32 version) noexcept { InitForm(FormOf(version), this); }

int NegoResponseBody::Pack(void* buffer, u32 length, u32 version) noexcept {
  return PackForm(FormOf(version), this, buffer, length);
}

int NegoResponseBody::Unpack(const void* buffer, u32 length, u32 version) noexcept {
  return UnpackForm(FormOf(version), this, buffer, length);
}

void NegoResponse::Init(u32 version) noexcept {
  header = {};
  header.version = static_cast<u16>(NormaliseVersion(version, kNegoVersion));
  body.Init(version);
}

int NegoResponse::Pack(void* buffer, u32 length, u32 version) noexcept {
  return PackMessage(this, buffer, length, version);
}

int NegoResponse::Unpack(const void* buffer, u32 length) noexcept {
  return UnpackMessage(this, buffer, length, static_cast<u16>(length));
}

}  // namespace moru_vyr::lsp
