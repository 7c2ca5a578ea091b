// Loads and starts the next provider of a chain.
#pragma once
#include "start/catalogue.h"

namespace moru_vyr::lsp {

// Finds the next provider's module, loads it and finds its WSPStartup. On false *error says why.
bool LoadProviderPath(LspProvider* provider, int* error) noexcept;

// Loads and starts it. 0, or -1 where it could not be loaded or handed out an incomplete table,
// or the error that its own start returned; *error says why in the last two cases and the first.
int InitializeProvider(LspProvider* provider, WORD version, LPWSAPROTOCOL_INFOW in_info,
                       WSPUPCALLTABLE upcalls, int* error) noexcept;

}  // namespace moru_vyr::lsp
