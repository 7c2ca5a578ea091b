// Loads and starts the next provider of a chain.
#pragma once
#include "start/catalogue.h"

namespace moru_vyr::lsp {

// Finds the next provider's module, loads it and finds its WSPStartup. On false *error says why.
bool LoadProviderPath(LspProvider* provider, int* error) noexcept;

// Loads and starts it. 0; or -1 if it could not be loaded or returned an incomplete table, or the
// error that its own start returned, and then *error says why.
int InitializeProvider(LspProvider* provider, WORD version, LPWSAPROTOCOL_INFOW in_info,
                       WSPUPCALLTABLE upcalls, int* error) noexcept;

}  // namespace moru_vyr::lsp
