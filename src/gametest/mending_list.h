// What a developer's file asks to be mended.
#pragma once
#include <string>
#include <string_view>

#include "common/types.h"

namespace moru_vyr::lsp {

// The bits of "none", or of names with commas between them, of which the first may be "all"; no
// text is "none". False, with the name in *unknown, where there is no such name. May throw
// std::bad_alloc.
bool ReadMendingList(std::string_view text, u32* bits, std::string* unknown);

}  // namespace moru_vyr::lsp
