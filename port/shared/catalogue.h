// The machine's Winsock catalogue: a list that tests can replace.
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

// From now on the list of entries claims to have so many more than it gives, as no platform should.
void ClaimMoreEntries(int more);

// Paths may contain %NAME%. The path of the base provider is preset.
void SetProviderPath(const GUID& provider, const std::wstring& path);
void RemoveProviderPath(const GUID& provider);

// Empty if the provider is unknown.
std::wstring ProviderPath(const GUID& provider);

// The three base entries.
std::vector<WSAPROTOCOL_INFOW> BaseEntries();

// A catalogue with a layered provider: its hidden entry, then a layered entry with the chain
// {hidden, base} for each base entry, then the base entries.
std::vector<WSAPROTOCOL_INFOW> LayeredCatalogue(const GUID& provider, DWORD first_id);

// One entry, filled in as the platform does.
WSAPROTOCOL_INFOW MakeEntry(const GUID& provider, DWORD id, int type, int protocol,
                            const std::vector<DWORD>& chain);

// Stores the error of a call on the catalogue, if the caller wants it, and gives what the call
// does.
int FailCatalogueCall(LPINT error, int number);

}  // namespace port
