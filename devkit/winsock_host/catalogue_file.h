// A catalogue that vyr_setup has written to a file, as the host serves it: for programs of the
// host's own kind, with the host's numbers for entries, so that the base provider can tell them
// from the platform's.
#pragma once

#include <winsock2.h>
#include <ws2spi.h>

#include <string>
#include <utility>
#include <vector>

namespace winsock_host {

struct FileCatalogue {
  std::vector<WSAPROTOCOL_INFOW> entries;
  std::vector<std::pair<GUID, std::wstring>> paths;
};

// False if the file cannot be read, holds nothing for this kind, or more than there are numbers.
bool ReadCatalogueFile(const wchar_t* path, FileCatalogue* catalogue);

// Null if the provider is not known.
const std::wstring* PathIn(const FileCatalogue& catalogue, const GUID& provider);

}  // namespace winsock_host
