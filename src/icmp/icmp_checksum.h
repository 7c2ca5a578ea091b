// The two checksums of a ping. They differ on purpose and must not be merged: one reads words in
// host order, the other in network order, and both results are stored as host words.
#pragma once
#include <cstddef>

#include "common/types.h"

namespace moru_vyr::lsp {

// The Internet checksum over words in host order; an odd last byte counts as a value of its own.
u16 IcmpChecksum(const u8* data, std::size_t size) noexcept;

// The Internet checksum over words in network order; 0 for an odd size. Kept: it is stored as a
// host word, so its two bytes are swapped in the header.
u16 IpHeaderChecksum(const u8* data, std::size_t size) noexcept;

}  // namespace moru_vyr::lsp
