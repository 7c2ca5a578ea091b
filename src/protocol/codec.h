// What all records have in common.
//
//   int Pack(void* buffer, u32 length[, u32 version]);    host order -> wire order
//   int Unpack(buffer, u32 length[, u32 version]);        wire order -> host order
//
// With a buffer, Pack writes the wire form there and Unpack reads it from there; the length is
// checked first, so a record that does not fit changes nothing. With a null buffer the record
// converts itself in place, ready to be sent from its own memory or just received into it, and the
// length is ignored. The result is the number of bytes converted or a CodecError. A buffer must not
// overlap the record.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

enum CodecError : int {
  kPackTooShort = -2,
  kUnpackTooShort = -3,
  kNoSuchVersion = -4,
  kBadLength = -5,  // the record claims more bytes than were given, or a header shorter than it is
  kBadMagic = -6,
};

inline constexpr u32 kNegoVersion = 3;
inline constexpr u32 kUdpAcclVersion = 1;

// 0 asks for the newest form, and so does a version that is not known yet.
constexpr u32 NormaliseVersion(u32 version, u32 newest) noexcept {
  return version == 0 || version > newest ? newest : version;
}

}  // namespace moru_vyr::lsp
