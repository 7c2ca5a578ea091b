// Every socket handle of the base provider is one of the platform's own (an IFS handle). It is
// registered with Winsock by WPUModifyIFSHandle, under the catalogue entry with which it was
// created. With a layer above this is the layer's entry, so calls on the socket go to the layer.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

namespace winsock_base {

// Each start passes the same upcalls. A table without the upcall changes nothing.
void UseUpcalls(const WSPUPCALLTABLE& upcalls);

// Registers a socket for the entry that `info` describes. If `info` is null or not from the host's
// catalogue, the socket stays unknown to Winsock. If Winsock refuses the handle, it is closed.
SOCKET RegisterNew(SOCKET s, const WSAPROTOCOL_INFOW* info, LPINT error);

// A socket that was accepted by `parent` is registered under the entry that last made a stream of
// its family.
SOCKET RegisterChild(SOCKET s, SOCKET parent, LPINT error);

// Whether `info` describes an entry of the host's catalogue.
bool IsOurs(const WSAPROTOCOL_INFOW* info);

}  // namespace winsock_base
