// From the start of one of our catalogue entries to the call table that Winsock gets.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

namespace moru_vyr::lsp {

// Finds, loads and starts the next provider; returns its table, with our entries in it if `hook` is
// set. A second start of TCP, UDP or raw goes to the base provider instead and is not hooked,
// unless WSPCleanup forgot the first (started_protocols.h). 0 or a Winsock error. `in_info` is not
// null; the out pointers may be. Start-up only, under its lock.
int InitLspChain(WORD version, LPWSPDATA wsp_data, LPWSAPROTOCOL_INFOW in_info,
                 WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out_table, bool hook) noexcept;

}  // namespace moru_vyr::lsp
