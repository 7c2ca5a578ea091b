// Which of this provider's layered entries a start refers to.
#pragma once
#include "start/catalogue.h"

namespace moru_vyr::lsp {

// The record of `list` that `in_info` refers to, or null. Four passes, from the entry itself to a
// start that comes through a provider layered above this one; the first match decides.
LspProvider* FindMatchingProvider(const WSAPROTOCOL_INFOW* in_info, LspProvider* list,
                                  int count) noexcept;

}  // namespace moru_vyr::lsp
