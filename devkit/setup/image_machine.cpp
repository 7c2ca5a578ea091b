#include "setup/image_machine.h"

#include <algorithm>

#include "setup/image_json.h"
#include "setup/install_calls.h"

namespace setup {
namespace {

DWORD NextId(const CatalogueImage& image) {
  DWORD last = 1000;  // Windows counts from 1001
  for (const WSAPROTOCOL_INFOW& entry : image.entries)
    last = std::max(last, entry.dwCatalogEntryId);
  return last + 1;
}

}  // namespace

int ImageMachine::Keep(MachineImage image) {
  image_ = std::move(image);
  return 0;
}

int ImageMachine::Read(MachineImage* image) {
  *image = image_;
  return 0;
}

int ImageMachine::Install(Kind kind, const Provider& provider) {
  MachineImage changed = image_;
  const auto at = changed.catalogues.find(kind);
  if (at == changed.catalogues.end()) return WSAEINVAL;
  CatalogueImage& image = at->second;
  if (provider.entries.empty() || !PathOf(image, provider.guid).empty()) return WSAEINVAL;
  for (WSAPROTOCOL_INFOW entry : provider.entries) {
    entry.ProviderId = provider.guid;
    entry.dwCatalogEntryId = NextId(image);
    image.entries.push_back(entry);
  }
  image.paths.push_back({provider.guid, provider.path});
  return Keep(std::move(changed));
}

int ImageMachine::Deinstall(Kind kind, const GUID& provider) {
  MachineImage changed = image_;
  CatalogueImage& image = changed.catalogues[kind];
  const auto removed = std::erase_if(
      image.entries, [&](const WSAPROTOCOL_INFOW& entry) { return entry.ProviderId == provider; });
  if (removed == 0) return WSAEINVAL;
  std::erase_if(image.paths, [&](const ProviderPath& known) { return known.provider == provider; });
  return Keep(std::move(changed));
}

int ImageMachine::WriteOrder(Kind kind, const std::vector<DWORD>& ids) {
  MachineImage changed = image_;
  CatalogueImage& image = changed.catalogues[kind];
  if (ids.size() != image.entries.size()) return WSAEINVAL;
  std::vector<WSAPROTOCOL_INFOW> ordered;
  for (const DWORD id : ids) {
    const WSAPROTOCOL_INFOW* entry = FindEntry(image, id);
    if (entry == nullptr) return WSAEINVAL;
    ordered.push_back(*entry);
  }
  image.entries = std::move(ordered);
  return Keep(std::move(changed));
}

int ImageMachine::PermitCategories(const std::wstring& program, DWORD permitted) {
  MachineImage changed = image_;
  if (permitted == kEveryCategory) {
    changed.applications.erase(program);
  } else {
    changed.applications[program] = permitted;
  }
  return Keep(std::move(changed));
}

int FileMachine::Keep(MachineImage image) {
  if (!file_->Write(ImageText(image))) return WSANO_RECOVERY;
  return ImageMachine::Keep(std::move(image));
}

}  // namespace setup
