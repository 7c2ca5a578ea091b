// What a machine's Winsock catalogues hold, as plain values: read from Windows or from a file,
// compared, changed and written down. Knows nothing of the library.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <map>
#include <string>
#include <vector>

#include "winsock_host/kinds.h"

namespace setup {

// 64-bit Windows has a catalogue for programs of each kind.
using winsock_host::Kind;

struct ProviderPath {
  GUID provider;
  std::wstring path;  // as stored: may contain %NAME%
};

struct CatalogueImage {
  std::vector<WSAPROTOCOL_INFOW> entries;  // in the catalogue's order
  std::vector<ProviderPath> paths;
};

// Which categories of layered providers a program may load. A program that Windows knows nothing
// about may load all.
constexpr DWORD kEveryCategory = 0x800000FF;
constexpr DWORD kSystemCategory = 0x80000000;

struct MachineImage {
  std::map<Kind, CatalogueImage> catalogues;
  std::map<std::wstring, DWORD> applications;  // full path -> permitted categories
};

// Null if there is none.
const WSAPROTOCOL_INFOW* FindEntry(const CatalogueImage& image, DWORD id);

// Empty if it is not known.
std::wstring PathOf(const CatalogueImage& image, const GUID& provider);

inline bool IsBase(const WSAPROTOCOL_INFOW& entry) {
  return entry.ProtocolChain.ChainLen == BASE_PROTOCOL;
}

// The ids in an entry's chain; none for base entries and hidden ones. Lengths in a catalogue are
// not to be trusted.
std::vector<DWORD> ChainOf(const WSAPROTOCOL_INFOW& entry);

inline const char* KindName(Kind kind) { return kind == Kind::k64 ? "64" : "32"; }

}  // namespace setup
