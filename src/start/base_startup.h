// Starts the base provider past every layer, this one included.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

namespace moru_vyr::lsp {

// Returns the base provider's own table. 0 or a Winsock error. Start-up only, under its lock.
int BSPStartup(WORD version, LPWSPDATA wsp_data, LPWSAPROTOCOL_INFOW in_info,
               WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out_table) noexcept;

}  // namespace moru_vyr::lsp
