// The call table of each catalogue entry that the program has started.
//
// An entry is started at the first socket that matches it, once, under a lock; a start that failed
// is repeated at the next such socket. Winsock starts a provider once for each provider GUID:
// further entries of a GUID get the table of its first start. Optionally each entry is started
// separately.
//
// At the program's last WSACleanup every start gets its WSPCleanup and its module is freed, even if
// threads still run there: a provider that is not finished by then has to keep itself in memory.
// Records of started providers are never freed, because a call in progress may use one. All
// operations may be called from any thread.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <cstdint>

#include "host_config.h"
#include "report.h"

namespace winsock_host {

struct Provider {
  WSAPROTOCOL_INFOW info;  // the entry that it serves
  WSPPROC_TABLE table;
  uint32_t replaced;  // bit n: entry n of the table lies in the library's own module
  HMODULE module;     // as loaded for the start; null where the start was another entry's
};

inline bool SeenByLibrary(const Provider& provider, Call call) {
  return (provider.replaced >> call & 1) != 0;
}

// Once, before anything is patched. Loads the base provider, which serves sockets without an owner
// (owners.h). False if that fails.
bool PrepareProviders(const HostConfig& config);
const Provider& DirectProvider();

// The provider for a new socket of these kinds, started if need be; null with `*error` when the
// start fails. Kinds that no entry matches get the direct provider, so that the platform refuses
// (or serves) them in its own way.
const Provider* ProviderForNewSocket(int family, int type, int protocol, int* error);

// The provider of a catalogue entry, null while the entry is not started.
const Provider* StartedProvider(DWORD catalog_id);

// The program's last WSACleanup: started providers get their WSPCleanup and are unloaded; the next
// socket starts them again.
void CleanUpProviders();

}  // namespace winsock_host
