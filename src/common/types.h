// Integers by width, for records whose layout is a contract and for counters that must wrap.
#pragma once
#include <cstdint>

namespace common {

using u8 = std::uint8_t;
using u16 = std::uint16_t;
using u32 = std::uint32_t;
using u64 = std::uint64_t;
using i32 = std::int32_t;

}  // namespace common

namespace moru_vyr::lsp {

using common::i32;
using common::u16;
using common::u32;
using common::u64;
using common::u8;

}  // namespace moru_vyr::lsp
