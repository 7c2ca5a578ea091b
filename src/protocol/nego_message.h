// What request and response have in common: a header, then a body in one of several forms. For
// their own sources only.
#pragma once
#include "common/types.h"
#include "protocol/byte_order.h"
#include "protocol/codec.h"
#include "protocol/nego_header.h"

namespace moru_vyr::lsp {

// One version of a body. The bytes after `size` are not touched.
struct NegoForm {
  u32 size;
  void (*convert)(u8* to, const u8* from) noexcept;
};

inline int PackForm(const NegoForm* form, void* body, void* buffer, u32 length) noexcept {
  if (form == nullptr) return kNoSuchVersion;
  if (buffer != nullptr && length < form->size) return kPackTooShort;
  form->convert(BufferOr(buffer, body), BytesOf(body));
  return static_cast<int>(form->size);
}

inline int UnpackForm(const NegoForm* form, void* body, const void* buffer, u32 length) noexcept {
  if (form == nullptr) return kNoSuchVersion;
  if (buffer != nullptr && length < form->size) return kUnpackTooShort;
  form->convert(BytesOf(body), BufferOr(buffer, body));
  return static_cast<int>(form->size);
}

// Gives the fields of one version their initial values.
template <class Body>
void InitForm(const NegoForm* form, Body* body) noexcept {
  const Body initial;
  if (form != nullptr) std::memcpy(BytesOf(body), &initial, form->size);
}

template <class Message>
int PackMessage(Message* message, void* buffer, u32 length, u32 version) noexcept {
  // Kept: the size of the longest form, even if a shorter one would fit.
  if (buffer != nullptr && length < sizeof *message) return kPackTooShort;
  NegoHeader& header = message->header;
  const u32 packed = NormaliseVersion(version != 0 ? version : header.version, kNegoVersion);
  header.version = static_cast<u16>(packed);
  u8* const body_place = buffer != nullptr ? BytesOf(buffer) + sizeof header : nullptr;
  const u32 body_room = length - static_cast<u32>(sizeof header);
  const int body_size = message->body.Pack(body_place, body_room, packed);
  if (body_size < 0) return body_size;
  const int size = static_cast<int>(sizeof header) + body_size;
  header.pkg_len = static_cast<u16>(size);
  const int header_size = header.Pack(buffer, sizeof header);  // last: in place it ends host order
  return header_size < 0 ? header_size : size;
}

// `claimable` is the most that pkg_len may claim, if there is a buffer.
template <class Message>
int UnpackMessage(Message* message, const void* buffer, u32 length, u32 claimable) noexcept {
  NegoHeader& header = message->header;
  const int header_size = header.Unpack(buffer, length);
  if (header_size < 0) return header_size;
  if (buffer != nullptr && claimable < header.pkg_len) return kBadLength;
  header.version = static_cast<u16>(NormaliseVersion(header.version, kNegoVersion));
  const u8* const body =
      buffer != nullptr ? static_cast<const u8*>(buffer) + sizeof header : nullptr;
  const u32 body_length = length - static_cast<u32>(sizeof header);
  const int body_size = message->body.Unpack(body, body_length, header.version);
  return body_size < 0 ? body_size : header_size + body_size;
}

}  // namespace moru_vyr::lsp
