// Which call table serves which socket.
//
// A catalogue entry is started at the first socket that matches it, once, under a lock; a start
// that failed is tried again at the next such socket. Records of started providers are never
// freed: sockets point to them for as long as the process lives. All operations may be called
// from any thread.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <cstdint>

#include "host_config.h"
#include "report.h"

namespace winsock_host {

struct Provider {
  WSAPROTOCOL_INFOW info;  // the entry that was started
  WSPPROC_TABLE table;
  uint32_t replaced;  // bit n: entry n of the table lies in the library's own module
};

inline bool SeenByLibrary(const Provider& provider, Call call) {
  return (provider.replaced >> call & 1) != 0;
}

// Loads and starts the base provider that serves sockets which no started entry knows: inherited
// ones, ones made before the host came, and values that are no sockets. False when it cannot.
bool StartDirectProvider(const HostConfig& config);
const Provider& DirectProvider();

// The provider for a new socket of these kinds, started if need be; null with `*error` when the
// start fails. Kinds that no entry matches get the direct provider, so that the platform refuses
// (or serves) them in its own way.
const Provider* ProviderForNewSocket(int family, int type, int protocol, int* error);

// Socket ownership. `Disown` answers the owner that was recorded, or null.
const Provider& OwnerOf(SOCKET s);
void Own(SOCKET s, const Provider& provider);
const Provider* Disown(SOCKET s);

// The program's last WSACleanup: every started provider is told, and the next socket starts
// anew. Sockets keep their tables.
void CleanUpProviders();

}  // namespace winsock_host
