// What all records have in common.
//
//   int Pack(std::span<u8> out[, u32 version]);          host order -> wire order
//   int Unpack(std::span<const u8> in[, u32 version]);   wire order -> host order
//
// The length is checked first, so a record that does not fit changes nothing. The result is the
// number of bytes converted or a CodecError. The bytes must not overlap the record.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

enum CodecError : int {
  kPackTooShort = -2,
  kUnpackTooShort = -3,
  kNoSuchVersion = -4,  // never returned: an unknown version counts as the newest
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
