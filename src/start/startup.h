// The library's two exports.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

// WSPStartup is declared by the platform. Any thread; one start runs at a time.

// Copies the 16 bytes of this provider's identity, for the program that installs it. A null `out`
// does nothing.
extern "C" void WSPAPI GetLspGuid(GUID* out);
