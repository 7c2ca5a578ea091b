// Every socket handle of the base provider is one of the platform's own (an IFS handle), and is
// made known to Winsock by WPUModifyIFSHandle, under the catalogue entry that its maker was asked
// for: with a layer above, the layer's entry, so that calls on the socket go to the layer.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace winsock_base {

// Each start hands over the same upcalls. A table without the upcall changes nothing.
void UseUpcalls(const WSPUPCALLTABLE& upcalls);

// A socket made for the entry that `info` describes; null or an info that is not of the host's
// catalogue: the socket stays unknown to Winsock. Where Winsock refuses the handle it is closed.
SOCKET RegisterNew(SOCKET s, const WSAPROTOCOL_INFOW* info, LPINT error);

// A socket that was accepted by `parent` is registered under the entry that last made a stream of
// its family.
SOCKET RegisterChild(SOCKET s, SOCKET parent, LPINT error);

// Whether `info` describes an entry of the host's catalogue.
bool IsOurs(const WSAPROTOCOL_INFOW* info);

}  // namespace winsock_base
