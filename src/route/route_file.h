// The route table as a file, for clients that publish no region.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

// Fills `buffer` from a file of exactly `size` bytes. On false the buffer may hold a part of it.
// Tries to open it for about 25 milliseconds, because the client program may be writing it.
bool LoadRouteFromBinFile(const char* utf8_path, void* buffer, u32 size) noexcept;

}  // namespace moru_vyr::lsp
