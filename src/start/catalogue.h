// The platform's catalogue of providers, and this provider's own layered entries in it.
//
// Nothing in the catalogue is trusted: entries may be missing, chains may be circular or have an
// impossible length. Start-up only, under its lock.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <algorithm>
#include <memory>
#include <span>

#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr GUID kLspGuid = {
    0x4d2062b0, 0x79ca, 0x466e, {0x94, 0xd4, 0x21, 0xfe, 0x2e, 0xd9, 0x0e, 0xe6}};

// One layered entry of this provider, with the results of starting its next provider.
struct LspProvider {
  u32 lsp_catalog_id;
  WSAPROTOCOL_INFOW next_provider;   // second in the layered entry's chain; zero if it is missing
  WSAPROTOCOL_INFOW layer_provider;  // the layered entry itself
  WSPPROC_TABLE next_table;
  wchar_t provider_path[260];  // as the catalogue gives it
  wchar_t expanded_path[260];  // environment variables expanded
  i32 path_length;
  LPWSPSTARTUP start_function;
  WSPDATA wsp_data;
  HMODULE module;  // stays loaded to the end of the process
};

// Releases what GetProtocols and GetProviders return.
struct GlobalDeleter {
  void operator()(void* memory) const noexcept { GlobalFree(memory); }
};
template <class T>
using GlobalPtr = std::unique_ptr<T, GlobalDeleter>;

// How many entries of the chain may be read.
inline int ChainLength(const WSAPROTOCOL_INFOW& info) {
  return std::clamp(info.ProtocolChain.ChainLen, 0, static_cast<int>(MAX_PROTOCOL_CHAIN));
}

// For the results of GetProtocols.
using Entries = std::span<const WSAPROTOCOL_INFOW>;
inline Entries EntriesOf(const WSAPROTOCOL_INFOW* catalogue, int count) {
  return {catalogue, static_cast<std::size_t>(std::max(count, 0))};
}

// The whole catalogue, in order. Null with a count of 0 if it cannot be read; a count of 0 or -1
// with a buffer if only the second read fails. The caller frees it.
WSAPROTOCOL_INFOW* GetProtocols(int* count) noexcept;

// This provider's layered entries, in catalogue order; finds lsp_catalog_id of ProcessInfo on
// the way. The caller frees the list.
bool GetProviders(LspProvider** list, int* count) noexcept;

}  // namespace moru_vyr::lsp
