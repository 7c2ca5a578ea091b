#include "setup/own.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace setup {
namespace {

// A chain in terms that stay valid when entries get other numbers.
std::vector<EntryName> ChainNames(const CatalogueImage& image, const WSAPROTOCOL_INFOW& entry) {
  std::vector<EntryName> names;
  for (const DWORD id : ChainOf(entry)) names.push_back(NameOf(image, id));
  return names;
}

bool AreSameEntries(const CatalogueImage& image, const WSAPROTOCOL_INFOW& entry,
                    const CatalogueImage& other, const WSAPROTOCOL_INFOW& in_other) {
  if (ChainNames(image, entry) != ChainNames(other, in_other)) return false;
  WSAPROTOCOL_INFOW a = entry;
  WSAPROTOCOL_INFOW b = in_other;
  if (a.ProtocolChain.ChainLen != b.ProtocolChain.ChainLen) return false;
  for (WSAPROTOCOL_INFOW* one : {&a, &b}) {
    one->dwCatalogEntryId = 0;
    one->ProtocolChain = {};
    const auto end = std::ranges::find(one->szProtocol, L'\0');
    std::fill(end, std::end(one->szProtocol), L'\0');  // behind a name there may be anything
  }
  return std::memcmp(&a, &b, sizeof a) == 0;
}

}  // namespace

bool EntryName::operator==(const EntryName& other) const {
  return own == other.own && provider == other.provider && index == other.index && id == other.id;
}

bool IsOwn(const GUID& provider) {
  const auto has_guid = [&](const Protocol& protocol) { return protocol.guid == provider; };
  return provider == kHiddenGuid || std::ranges::any_of(kProtocols, has_guid);
}

std::vector<Provider> OwnProviders(const CatalogueImage& image) {
  std::vector<Provider> found;
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (!IsOwn(entry.ProviderId)) continue;
    auto at = std::ranges::find_if(
        found, [&](const Provider& known) { return known.guid == entry.ProviderId; });
    if (at == found.end()) {
      at = found.insert(entry.ProviderId == kHiddenGuid ? found.begin() : found.end(),
                        {entry.ProviderId, PathOf(image, entry.ProviderId), {}});
    }
    at->entries.push_back(entry);
  }
  return found;
}

CatalogueImage WithoutOwn(const CatalogueImage& image) {
  CatalogueImage rest = image;
  std::erase_if(rest.entries, [](const WSAPROTOCOL_INFOW& e) { return IsOwn(e.ProviderId); });
  std::erase_if(rest.paths, [](const ProviderPath& known) { return IsOwn(known.provider); });
  return rest;
}

EntryName NameOf(const CatalogueImage& image, DWORD id) {
  const WSAPROTOCOL_INFOW* named = FindEntry(image, id);
  if (named == nullptr || !IsOwn(named->ProviderId)) return {.id = id};
  EntryName name = {.own = true, .provider = named->ProviderId};
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (&entry == named) break;
    if (entry.ProviderId == named->ProviderId) ++name.index;
  }
  return name;
}

std::optional<DWORD> IdOf(const CatalogueImage& image, const EntryName& name) {
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (NameOf(image, entry.dwCatalogEntryId) == name) return entry.dwCatalogEntryId;
  }
  return std::nullopt;
}

bool AreSame(const CatalogueImage& image, const Provider& provider, const CatalogueImage& other,
             const Provider& in_other) {
  if (provider.path != in_other.path) return false;
  if (provider.entries.size() != in_other.entries.size()) return false;
  for (size_t i = 0; i < provider.entries.size(); ++i) {
    if (!AreSameEntries(image, provider.entries[i], other, in_other.entries[i])) return false;
  }
  return true;
}

}  // namespace setup
