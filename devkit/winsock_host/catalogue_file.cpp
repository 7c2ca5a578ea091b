#include "catalogue_file.h"

#include "catalogue.h"
#include "setup/image_json.h"
#include "setup/storage.h"

namespace winsock_host {
namespace {

constexpr size_t kMostEntries = kLastCatalogId - kFirstCatalogId;

// The host's number of the entry that has `id` in the file; an entry that is gone keeps its own.
DWORD HostId(const setup::CatalogueImage& image, DWORD id) {
  for (size_t i = 0; i < image.entries.size(); ++i) {
    if (image.entries[i].dwCatalogEntryId == id) return kFirstCatalogId + 1 + static_cast<DWORD>(i);
  }
  return id;
}

}  // namespace

bool ReadCatalogueFile(const wchar_t* path, FileCatalogue* catalogue) {
  bool failed = false;
  const auto text = setup::FileStorage(path).Read(&failed);
  setup::MachineImage machine;
  std::string problem;
  if (!text || !setup::ParseImage(*text, &machine, &problem)) return false;
  const auto own = machine.catalogues.find(kOwnKind);
  if (own == machine.catalogues.end() || own->second.entries.size() > kMostEntries) return false;
  const setup::CatalogueImage& image = own->second;
  *catalogue = {};
  for (WSAPROTOCOL_INFOW entry : image.entries) {
    entry.dwCatalogEntryId = HostId(image, entry.dwCatalogEntryId);
    for (DWORD& id : entry.ProtocolChain.ChainEntries) id = HostId(image, id);
    catalogue->entries.push_back(entry);
  }
  for (const setup::ProviderPath& known : image.paths) {
    catalogue->paths.emplace_back(known.provider, known.path);
  }
  return true;
}

const std::wstring* PathIn(const FileCatalogue& catalogue, const GUID& provider) {
  for (const auto& [guid, path] : catalogue.paths) {
    if (guid == provider) return &path;
  }
  return nullptr;
}

}  // namespace winsock_host
