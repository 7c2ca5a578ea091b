#include "start/catalogue.h"

#include <cstring>

#include "common/log.h"
#include "common/process_info.h"

namespace moru_vyr::lsp {
namespace {

bool IsOurs(const WSAPROTOCOL_INFOW& entry) {
  return std::memcmp(&entry.ProviderId, &kLspGuid, sizeof kLspGuid) == 0;
}

// The id is found once in a process and kept.
u32 FindOwnId(Entries catalogue) {
  u32& id = common::GetProcessInfo().lsp_catalog_id;
  if (id == 0) {
    const auto own = std::find_if(catalogue.begin(), catalogue.end(), IsOurs);
    if (own != catalogue.end()) id = own->dwCatalogEntryId;
  }
  return id;
}

bool IsLayeredOn(const WSAPROTOCOL_INFOW& entry, u32 lsp_catalog_id) {
  return entry.ProtocolChain.ChainLen > 1 && entry.ProtocolChain.ChainEntries[0] == lsp_catalog_id;
}

void CopyEntry(WSAPROTOCOL_INFOW& to, const WSAPROTOCOL_INFOW& from) {
  to = from;
  // Guard: another installer's text.
  to.szProtocol[WSAPROTOCOL_LEN] = 0;
}

void FillProvider(LspProvider& provider, const WSAPROTOCOL_INFOW& layered, u32 lsp_catalog_id,
                  Entries catalogue) {
  provider.lsp_catalog_id = lsp_catalog_id;
  CopyEntry(provider.layer_provider, layered);
  const DWORD next_id = layered.ProtocolChain.ChainEntries[1];
  const auto next = std::find_if(
      catalogue.begin(), catalogue.end(),
      [&](const WSAPROTOCOL_INFOW& entry) { return entry.dwCatalogEntryId == next_id; });
  if (next != catalogue.end()) CopyEntry(provider.next_provider, *next);
}

}  // namespace

WSAPROTOCOL_INFOW* GetProtocols(int* count) noexcept {
  *count = 0;
  DWORD size = 0;
  INT error = 0;
  if (WSCEnumProtocols(nullptr, nullptr, &size, &error) == SOCKET_ERROR && error != WSAENOBUFS) {
    common::LspTrace("GetProtocols failed, error=%d", error);
    return nullptr;
  }
  const std::size_t capacity = size / sizeof(WSAPROTOCOL_INFOW);
  GlobalPtr<WSAPROTOCOL_INFOW> catalogue(
      static_cast<WSAPROTOCOL_INFOW*>(GlobalAlloc(GPTR, std::max<SIZE_T>(size, 1))));
  // Guard: the entries that are looked at are those that there is room for. A catalogue that grew
  // in between no longer fits: the count is then -1, and every loop over it ends at once.
  *count = WSCEnumProtocols(nullptr, catalogue.get(), &size, &error);
  if (*count == 0) common::LspTrace("GetProtocols failed, protocol count=0, error=%d", error);
  *count = std::min(*count, static_cast<int>(capacity));
  return catalogue.release();
}

bool GetProviders(LspProvider** list, int* count) noexcept {
  if (list == nullptr || count == nullptr) {
    common::LspTrace("GetProviders: param invalid!");
    return false;
  }
  *list = nullptr;
  *count = 0;
  int protocol_count = 0;
  const GlobalPtr<WSAPROTOCOL_INFOW> protocols(GetProtocols(&protocol_count));
  if (protocols == nullptr) {
    common::LspTrace("GetProviders: EnumerateProviders failed!");
    return false;
  }
  const Entries catalogue = EntriesOf(protocols.get(), protocol_count);
  const u32 own_id = FindOwnId(catalogue);
  const auto is_layered = [&](const WSAPROTOCOL_INFOW& entry) {
    return IsLayeredOn(entry, own_id);
  };
  const auto layered_count =
      static_cast<std::size_t>(std::count_if(catalogue.begin(), catalogue.end(), is_layered));
  auto* const providers = static_cast<LspProvider*>(
      GlobalAlloc(GPTR, std::max<std::size_t>(layered_count, 1) * sizeof(LspProvider)));
  if (providers == nullptr) {
    common::LspTrace("GetProviders: alloc for providers failed");
    return false;
  }
  LspProvider* next = providers;
  for (const WSAPROTOCOL_INFOW& entry : catalogue) {
    if (is_layered(entry)) FillProvider(*next++, entry, own_id, catalogue);
  }
  *list = providers;
  *count = static_cast<int>(layered_count);
  return true;
}

}  // namespace moru_vyr::lsp
