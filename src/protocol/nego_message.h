// What request and response have in common: a header, and a body in one of several forms.
#pragma once
#include <span>

#include "common/types.h"
#include "protocol/codec.h"
#include "protocol/nego_header.h"

namespace moru_vyr::lsp {

// Both parts are packed, so nothing lies between them.
template <class Body>
struct NegoMessage {
  NegoHeader header;
  Body body;

  void Init(u32 version) noexcept {
    header = {};
    header.version = static_cast<u16>(NormaliseVersion(version, kNegoVersion));
    body.Init(version);
  }

  // Version 0 takes the header's version. Either way the record's own header gets the version that
  // was packed and its length. Kept: there must be room for the longest form, even if a shorter one
  // would fit.
  int Pack(std::span<u8> out, u32 version = 0) noexcept {
    if (out.size() < sizeof *this) return kPackTooShort;
    const u32 packed = NormaliseVersion(version != 0 ? version : header.version, kNegoVersion);
    header.version = static_cast<u16>(packed);
    const int size =
        static_cast<int>(sizeof header) + body.Pack(out.subspan(sizeof header), packed);
    header.pkg_len = static_cast<u16>(size);
    header.Pack(out);
    return size;
  }

  // The header's version says how much is read, and an unknown one is replaced in the record by the
  // newest.
  int Unpack(std::span<const u8> in) noexcept {
    const int header_size = header.Unpack(in);
    if (header_size < 0) return header_size;
    if ((static_cast<u32>(in.size()) & Body::kLengthMask) < header.pkg_len) return kBadLength;
    header.version = static_cast<u16>(NormaliseVersion(header.version, kNegoVersion));
    const int body_size = body.Unpack(in.subspan(sizeof header), header.version);
    return body_size < 0 ? body_size : header_size + body_size;
  }
};

}  // namespace moru_vyr::lsp
