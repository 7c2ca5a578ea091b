#include "setup/image.h"

#include <algorithm>

namespace setup {

const WSAPROTOCOL_INFOW* FindEntry(const CatalogueImage& image, DWORD id) {
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (entry.dwCatalogEntryId == id) return &entry;
  }
  return nullptr;
}

std::wstring PathOf(const CatalogueImage& image, const GUID& provider) {
  for (const ProviderPath& known : image.paths) {
    if (known.provider == provider) return known.path;
  }
  return {};
}

std::vector<DWORD> ChainOf(const WSAPROTOCOL_INFOW& entry) {
  const WSAPROTOCOLCHAIN& chain = entry.ProtocolChain;
  if (chain.ChainLen <= BASE_PROTOCOL) return {};
  const int length = std::min(chain.ChainLen, static_cast<int>(MAX_PROTOCOL_CHAIN));
  return {chain.ChainEntries, chain.ChainEntries + length};
}

}  // namespace setup
