// The catalogue that the library and Winsock's dispatch see instead of the platform's: the
// library's hidden entry, its layered entries, and the base entries below them. Built once by
// BuildCatalogue, constant afterwards, readable from any thread.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <windows.h>

#include <vector>

#include "host_config.h"

namespace winsock_host {

// Ids of our own entries; the base provider needs to tell them from the platform's ids, which
// count from 1001.
constexpr DWORD kFirstCatalogId = 0x5659'0000;
constexpr DWORD kLastCatalogId = 0x5659'00FF;

struct CatalogueEntry {
  WSAPROTOCOL_INFOW info;
  bool layered;  // an entry of the library
};

// Fills the catalogue: from the file that `config` names, else from its paths. Without a library
// (`bare`) it has only the base entries. False if the file cannot be used.
bool BuildCatalogue(const HostConfig& config);
const std::vector<CatalogueEntry>& Catalogue();

// The index of the entry that Winsock would start for a socket of these kinds: the first visible
// one in the catalogue's order that matches. -1 when none does.
int FindEntry(int family, int type, int protocol);

// The path of the module behind an entry; it may contain %NAME%. Base entries have the host's own
// base provider, whichever they are.
const wchar_t* ModulePath(const WSAPROTOCOL_INFOW& info);

// The replacements of the platform calls of these names, for the library and the program.
int WSPAPI EnumProtocols(LPINT protocols, LPWSAPROTOCOL_INFOW buffer, LPDWORD length, LPINT error);
int WSPAPI GetProviderPath(LPGUID provider, WCHAR* path, LPINT length, LPINT error);

}  // namespace winsock_host
