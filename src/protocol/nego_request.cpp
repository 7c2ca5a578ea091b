#include "protocol/nego_request.h"

#include "protocol/byte_order.h"
#include "protocol/nego_message.h"

namespace moru_vyr::lsp {
namespace {

void ConvertVersion1(u8* to, const u8* from) noexcept {
  ConvertField<u32>(to, from, offsetof(NegoRequestBody, flags));
  CopyBytes(to, from, offsetof(NegoRequestBody, retry), sizeof NegoRequestBody::retry);
  ConvertField<u64>(to, from, offsetof(NegoRequestBody, uin));
  ConvertField<u32>(to, from, offsetof(NegoRequestBody, game_id_low));
  ConvertField<u32>(to, from, offsetof(NegoRequestBody, game_ip));
  ConvertField<u16>(to, from, offsetof(NegoRequestBody, game_port));
  constexpr std::size_t kGuid = offsetof(NegoRequestBody, guid);
  ConvertSessionGuid(to + kGuid, from + kGuid);
}

void ConvertVersion2(u8* to, const u8* from) noexcept {
  ConvertVersion1(to, from);
  constexpr std::size_t kLastNode = offsetof(NegoRequestBody, last_node);
  ConvertLastNodeInfo(to + kLastNode, from + kLastNode);
  ConvertField<u32>(to, from, offsetof(NegoRequestBody, game_idc));
}

void ConvertVersion3(u8* to, const u8* from) noexcept {
  ConvertVersion2(to, from);
  ConvertField<u64>(to, from, offsetof(NegoRequestBody, game_id));
}

const NegoForm* FormOf(u32 version) noexcept {
  static constexpr NegoForm kForms[] = {
      {offsetof(NegoRequestBody, last_node), ConvertVersion1},
      {offsetof(NegoRequestBody, game_id), ConvertVersion2},
      {sizeof(NegoRequestBody), ConvertVersion3},
  };
  switch (NormaliseVersion(version, kNegoVersion)) {
    case 1:
      return &kForms[0];
    case 2:
      return &kForms[1];
    case 3:
      return &kForms[2];
    default:
      return nullptr;
  }
}

}  // namespace

void NegoRequestBody::Init(u32 version) noexcept { InitForm(FormOf(version), this); }

int NegoRequestBody::Pack(void* buffer, u32 length, u32 version) noexcept {
  return PackForm(FormOf(version), this, buffer, length);
}

int NegoRequestBody::Unpack(const void* buffer, u32 length, u32 version) noexcept {
  return UnpackForm(FormOf(version), this, buffer, length);
}

void NegoRequest::Init(u32 version) noexcept {
  header = {};
  header.version = static_cast<u16>(NormaliseVersion(version, kNegoVersion));
  body.Init(version);
}

int NegoRequest::Pack(void* buffer, u32 length, u32 version) noexcept {
  return PackMessage(this, buffer, length, version);
}

int NegoRequest::Unpack(const void* buffer, u32 length) noexcept {
  return UnpackMessage(this, buffer, length, length);
}

}  // namespace moru_vyr::lsp
