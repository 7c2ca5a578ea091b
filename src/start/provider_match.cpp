#include "start/provider_match.h"

#include <span>

#include "common/log.h"

namespace moru_vyr::lsp {
namespace {

using Providers = std::span<LspProvider>;

// The entry below the first entry of a chain.
std::span<const DWORD> LowerEntries(const WSAPROTOCOL_INFOW& info) {
  const int length = ChainLength(info);
  if (length < 2) return {};
  return {&info.ProtocolChain.ChainEntries[1], static_cast<std::size_t>(length - 1)};
}

// Whether a socket's own handle reaches the application differs from layer to layer, so that bit is
// not compared.
bool SameKind(const WSAPROTOCOL_INFOW& a, const WSAPROTOCOL_INFOW& b) {
  return a.iAddressFamily == b.iAddressFamily && a.iSocketType == b.iSocketType &&
         a.iProtocol == b.iProtocol &&
         ((a.dwServiceFlags1 ^ b.dwServiceFlags1) & ~static_cast<DWORD>(XP1_IFS_HANDLES)) == 0;
}

LspProvider* MatchEntry(const WSAPROTOCOL_INFOW& in_info, Providers list) {
  for (LspProvider& provider : list) {
    if (in_info.dwCatalogEntryId != provider.layer_provider.dwCatalogEntryId) continue;
    common::LspTrace("FindMatchingProvider: inInfo is one of the LSPs entry.");
    return &provider;
  }
  return nullptr;
}

LspProvider* MatchChain(const WSAPROTOCOL_INFOW& in_info, Providers list) {
  for (LspProvider& provider : list) {
    for (const DWORD id : LowerEntries(in_info)) {
      if (id == provider.lsp_catalog_id) {
        // The hidden entry says that we take part, but not with which entry: the next pass decides.
        common::LspTrace("FindMatchingProvider: our LSP in the in_info's protocol chains.");
        return nullptr;
      }
      if (id == provider.layer_provider.dwCatalogEntryId) {
        common::LspTrace("FindMatchingProvider: our LSP chains in in_info's protocol chains.");
        return &provider;
      }
    }
  }
  return nullptr;
}

LspProvider* MatchKind(const WSAPROTOCOL_INFOW& in_info, Providers list) {
  for (LspProvider& provider : list) {
    if (!SameKind(in_info, provider.layer_provider)) continue;
    common::LspTrace(
        "FindMatchingProvider: match address family, socket type, protocol and provider flags.");
    return &provider;
  }
  return nullptr;
}

// Whether the chain of a foreign layer leads to one of our records.
bool LeadsToUs(const WSAPROTOCOL_INFOW& entry, const WSAPROTOCOL_INFOW& in_info, Providers list) {
  for (const DWORD id : LowerEntries(entry)) {
    for (const LspProvider& provider : list) {
      if (id == provider.layer_provider.ProtocolChain.ChainEntries[0] &&
          SameKind(in_info, provider.layer_provider)) {
        common::LspTrace(
            "FindMatchingProvider: try to match according to the protocol triplet and provider "
            "flags");
        return true;
      }
      if (id == provider.layer_provider.dwCatalogEntryId) {
        common::LspTrace(
            "FindMatchingProvider: entry belongs to the LSP layered over us and it references our "
            "LSP");
        return true;
      }
    }
  }
  return false;
}

LspProvider* MatchCatalogue(const WSAPROTOCOL_INFOW& in_info, Providers list) {
  int count = 0;
  const GlobalPtr<WSAPROTOCOL_INFOW> protocols(GetProtocols(&count));
  if (protocols == nullptr) {
    common::LspTrace("FindMatchingProvider: GetProtocols failed!\n");
    return nullptr;
  }
  const Entries catalogue = EntriesOf(protocols.get(), count);
  const bool known =
      std::any_of(catalogue.begin(), catalogue.end(), [&](const WSAPROTOCOL_INFOW& entry) {
        return entry.dwCatalogEntryId == in_info.ProtocolChain.ChainEntries[0];
      });
  const DWORD top = known ? in_info.ProtocolChain.ChainEntries[0] : 0;
  for (std::size_t i = 0; i < catalogue.size(); ++i) {
    if (catalogue[i].ProtocolChain.ChainEntries[0] != top) continue;
    if (!LeadsToUs(catalogue[i], in_info, list)) continue;
    // Kept: the index of the catalogue picks the record, not the record that matched. Guard: where
    // the list is shorter than that there is no record.
    return i < list.size() ? &list[i] : nullptr;
  }
  return nullptr;
}

}  // namespace

LspProvider* FindMatchingProvider(const WSAPROTOCOL_INFOW* in_info, LspProvider* list,
                                  int count) noexcept {
  const Providers providers(list, static_cast<std::size_t>(std::max(count, 0)));
  if (LspProvider* const found = MatchEntry(*in_info, providers)) return found;
  if (LspProvider* const found = MatchChain(*in_info, providers)) return found;
  if (LspProvider* const found = MatchKind(*in_info, providers)) return found;
  return MatchCatalogue(*in_info, providers);
}

}  // namespace moru_vyr::lsp
