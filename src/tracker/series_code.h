// The text by which log lines distinguish one use of a socket handle from the next.
#pragma once
#include <winsock2.h>

#include <cstddef>

#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr std::size_t kSeriesCodeSize = 65;  // terminator included

// Writes one into a buffer of at least kSeriesCodeSize bytes, and nothing into a smaller one. Cut
// if it is longer.
void MakeSeriesCode(SOCKET socket, char* buffer, std::size_t size) noexcept;

}  // namespace moru_vyr::lsp
