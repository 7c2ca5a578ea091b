// Which entries of a catalogue are the library's, and under which GUIDs it is put there.
//
// Winsock starts a provider once for each GUID, so each layered entry has one of its own. They are
// the same on every machine and in both catalogues: whoever removes or repairs recognises them.
#pragma once
#include <optional>
#include <vector>

#include "setup/image.h"
#include "start/catalogue.h"

namespace setup {

constexpr GUID kHiddenGuid = moru_vyr::lsp::kLspGuid;

// The kinds of sockets that the library is layered over.
struct Protocol {
  const char* name;
  int type;
  int protocol;
  GUID guid;  // of the layered entry
};
constexpr Protocol kProtocols[] = {
    {"TCP",
     SOCK_STREAM,
     IPPROTO_TCP,
     {0x6A0B59C1, 0x2D3F, 0x4E87, {0xB1, 0x4C, 0x90, 0x5D, 0x27, 0xE8, 0x31, 0x01}}},
    {"UDP",
     SOCK_DGRAM,
     IPPROTO_UDP,
     {0x6A0B59C1, 0x2D3F, 0x4E87, {0xB1, 0x4C, 0x90, 0x5D, 0x27, 0xE8, 0x31, 0x02}}},
    {"raw",
     SOCK_RAW,
     IPPROTO_IP,
     {0x6A0B59C1, 0x2D3F, 0x4E87, {0xB1, 0x4C, 0x90, 0x5D, 0x27, 0xE8, 0x31, 0x03}}},
};

bool IsOwn(const GUID& provider);

// A provider of the library with all its entries, as one installation call takes them.
struct Provider {
  GUID guid;
  std::wstring path;
  std::vector<WSAPROTOCOL_INFOW> entries;
};

// The hidden one comes first: the others lead to it.
std::vector<Provider> OwnProviders(const CatalogueImage& image);

// The same catalogue without anything of the library.
CatalogueImage WithoutOwn(const CatalogueImage& image);

// What an entry is, whichever number it has: Windows numbers entries as they are installed, so
// ours have other numbers once they are put back.
struct EntryName {
  bool own = false;
  GUID provider = {};  // of an own entry
  size_t index = 0;    // of an own entry among those of its provider
  DWORD id = 0;        // of any other
  bool operator==(const EntryName&) const;
};
EntryName NameOf(const CatalogueImage& image, DWORD id);
std::optional<DWORD> IdOf(const CatalogueImage& image, const EntryName& name);

// Whether two providers of the same GUID are the same but for the numbers of entries.
bool AreSame(const CatalogueImage& image, const Provider& provider, const CatalogueImage& other,
             const Provider& in_other);

}  // namespace setup
