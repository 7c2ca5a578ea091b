// Conversion of records between host order and the wire's big-endian order. For the sources of
// this folder.
//
// A record has the same layout in memory as on the wire, so a conversion is a copy that swaps the
// bytes of the integers, and the same copy serves both directions. Other fields have no byte order.
#pragma once
#include <winsock2.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <span>

#include "common/types.h"
#include "protocol/codec.h"

namespace moru_vyr::lsp {

// An integer field of a record or of a record inside it; both members in bytes.
struct WireInteger {
  std::size_t offset;
  std::size_t size;
};

// Copies the first `size` bytes of a record and swaps the integers in them.
template <std::size_t kCount>
void ConvertRecord(void* to, const void* from, std::size_t size,
                   const WireInteger (&integers)[kCount]) noexcept {
  auto* const bytes = static_cast<u8*>(to);
  std::memcpy(bytes, from, size);
  if (htons(1) == 1) return;
  for (const WireInteger& integer : integers) {
    if (integer.offset >= size) continue;
    std::reverse(bytes + integer.offset, bytes + integer.offset + integer.size);
  }
}

// `size` is that of the form, if a record has several; the bytes after it are not touched.
template <class Record, std::size_t kCount>
int PackRecord(const Record& record, const WireInteger (&integers)[kCount], std::span<u8> out,
               std::size_t size = sizeof(Record)) noexcept {
  if (out.size() < size) return kPackTooShort;
  ConvertRecord(out.data(), &record, size, integers);
  return static_cast<int>(size);
}

template <class Record, std::size_t kCount>
int UnpackRecord(Record* record, const WireInteger (&integers)[kCount], std::span<const u8> in,
                 std::size_t size = sizeof(Record)) noexcept {
  if (in.size() < size) return kUnpackTooShort;
  ConvertRecord(record, in.data(), size, integers);
  return static_cast<int>(size);
}

}  // namespace moru_vyr::lsp
