// The Winsock catalogue of the machine: a list that tests can replace.
//
// By default it holds three base entries over this port's base provider: TCP (id 1001), UDP (1002)
// and raw (1003).
#pragma once
#include <ws2spi.h>

#include <string>
#include <vector>

namespace port {

void SetCatalogue(std::vector<WSAPROTOCOL_INFOW> entries);
std::vector<WSAPROTOCOL_INFOW> Catalogue();

// Paths may hold %NAME%. The base provider's is known from the start.
void SetProviderPath(const GUID& provider, const std::wstring& path);
void RemoveProviderPath(const GUID& provider);

// Empty if the provider is unknown.
std::wstring ProviderPath(const GUID& provider);

// The three base entries.
std::vector<WSAPROTOCOL_INFOW> BaseEntries();

// A layered provider of one hidden entry and, above each base entry, one whose chain is
// {hidden, base}; in the order hidden, layered, base.
std::vector<WSAPROTOCOL_INFOW> LayeredCatalogue(const GUID& provider, DWORD first_id);

// One entry, filled as the platform fills its own.
WSAPROTOCOL_INFOW MakeEntry(const GUID& provider, DWORD id, int type, int protocol,
                            const std::vector<DWORD>& chain);

}  // namespace port
