#include "setup/goal.h"

#include <algorithm>
#include <iterator>

#include "setup/install_calls.h"

namespace setup {
namespace {

// Numbers of entries that are not installed yet. Windows counts from 1001.
constexpr DWORD kPlannedIds = 0xFFFF0000;
constexpr size_t kMostBelow = MAX_PROTOCOL_CHAIN - 1;

bool Serves(const WSAPROTOCOL_INFOW& entry, const Protocol& protocol) {
  return entry.iAddressFamily == AF_INET && entry.iSocketType == protocol.type &&
         entry.iProtocol == protocol.protocol && (entry.dwProviderFlags & PFL_HIDDEN) == 0;
}

const WSAPROTOCOL_INFOW* FindBase(const CatalogueImage& image, const Protocol& protocol) {
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (IsBase(entry) && Serves(entry, protocol)) return &entry;
  }
  return nullptr;
}

void SetName(WSAPROTOCOL_INFOW* entry, const std::wstring& name) {
  std::ranges::fill(entry->szProtocol, L'\0');
  name.copy(entry->szProtocol, std::size(entry->szProtocol) - 1);
}

// A layer does not promise handles that behave like the platform's own in every respect: programs
// that see this keep to their completion ports for calls that succeed at once, as they must with
// the library.
WSAPROTOCOL_INFOW LayerOf(const WSAPROTOCOL_INFOW& below, const GUID& provider, DWORD id) {
  WSAPROTOCOL_INFOW entry = below;
  entry.dwServiceFlags1 &= ~DWORD{XP1_IFS_HANDLES};
  entry.dwProviderFlags &= ~DWORD{PFL_RECOMMENDED_PROTO_ENTRY};
  entry.ProviderId = provider;
  entry.dwCatalogEntryId = id;
  entry.ProtocolChain = {};
  return entry;
}

WSAPROTOCOL_INFOW Hidden(const WSAPROTOCOL_INFOW& like) {
  WSAPROTOCOL_INFOW entry = LayerOf(like, kHiddenGuid, kPlannedIds);
  entry.dwProviderFlags |= PFL_HIDDEN;
  entry.ProtocolChain.ChainLen = LAYERED_PROTOCOL;
  SetName(&entry, L"vyr");
  return entry;
}

WSAPROTOCOL_INFOW Layered(const WSAPROTOCOL_INFOW& below, const GUID& provider, DWORD id) {
  WSAPROTOCOL_INFOW entry = LayerOf(below, provider, id);
  // An entry of another layer is in the chain itself, and then what is below it there.
  std::vector<DWORD> chain = {kPlannedIds, below.dwCatalogEntryId};
  const std::vector<DWORD> rest = ChainOf(below);
  if (!rest.empty()) chain.insert(chain.end(), rest.begin() + 1, rest.end());
  entry.ProtocolChain.ChainLen = static_cast<int>(chain.size());
  std::ranges::copy(chain, entry.ProtocolChain.ChainEntries);
  SetName(&entry, L"vyr over [" + std::wstring(below.szProtocol) + L"]");
  return entry;
}

const WSAPROTOCOL_INFOW* Below(const CatalogueImage& rest, const Protocol& protocol,
                               bool over_others) {
  const WSAPROTOCOL_INFOW* serving = over_others ? Serving(rest, protocol) : nullptr;
  if (serving != nullptr && ChainOf(*serving).size() <= kMostBelow) return serving;
  return FindBase(rest, protocol);
}

void PutBefore(CatalogueImage* image, DWORD id, const WSAPROTOCOL_INFOW& entry) {
  const auto at = std::ranges::find_if(
      image->entries, [&](const WSAPROTOCOL_INFOW& e) { return e.dwCatalogEntryId == id; });
  image->entries.insert(at, entry);
}

// Each layered entry directly before the one that it leads to, and the hidden one before the first
// of them: nothing else changes its place.
bool AddLibrary(CatalogueImage* image, const std::wstring& path, bool over_others) {
  const CatalogueImage rest = *image;
  DWORD id = kPlannedIds;
  std::optional<WSAPROTOCOL_INFOW> hidden;
  for (const Protocol& protocol : kProtocols) {
    const WSAPROTOCOL_INFOW* below = Below(rest, protocol, over_others);
    if (below == nullptr) continue;
    if (!hidden) hidden = Hidden(*below);
    PutBefore(image, below->dwCatalogEntryId, Layered(*below, protocol.guid, ++id));
    image->paths.push_back({protocol.guid, path});
  }
  const auto first = std::ranges::find_if(
      image->entries, [](const WSAPROTOCOL_INFOW& entry) { return IsOwn(entry.ProviderId); });
  if (!hidden) return false;
  image->entries.insert(first, *hidden);
  image->paths.push_back({kHiddenGuid, path});
  return true;
}

}  // namespace

std::optional<MachineImage> InstallGoal(const MachineImage& now, const InstallOptions& options,
                                        std::string* problem) {
  MachineImage goal = now;
  goal.applications.clear();
  for (auto& [kind, catalogue] : goal.catalogues) {
    const auto library = options.libraries.find(kind);
    if (library == options.libraries.end()) continue;
    catalogue = WithoutOwn(catalogue);
    if (AddLibrary(&catalogue, library->second, options.over_others)) continue;
    *problem = std::string("the ") + KindName(kind) +
               "-bit catalogue has no base provider for IPv4: nothing to layer over";
    return std::nullopt;
  }
  return goal;
}

MachineImage UninstallGoal(const MachineImage& now) {
  MachineImage goal;
  for (const auto& [kind, catalogue] : now.catalogues) {
    goal.catalogues[kind] = WithoutOwn(catalogue);
  }
  return goal;
}

const WSAPROTOCOL_INFOW* Serving(const CatalogueImage& image, const Protocol& protocol) {
  for (const WSAPROTOCOL_INFOW& entry : image.entries) {
    if (Serves(entry, protocol)) return &entry;
  }
  return nullptr;
}

bool IsOverOthers(const CatalogueImage& image) {
  return std::ranges::any_of(image.entries, [](const WSAPROTOCOL_INFOW& entry) {
    return IsOwn(entry.ProviderId) && ChainOf(entry).size() > 2;
  });
}

}  // namespace setup
