// The base provider's WSPStartup, as its module exports it.
#pragma once
#include <ws2spi.h>

namespace port {

// Returns BaseProviderTable(), or 10092 for a version below 2.2.
int WSPAPI BaseStartup(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info,
                       WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out);

// How often BaseStartup has been called, and the catalogue id of its last call.
int BaseStarts();
DWORD LastBaseEntry();

}  // namespace port
