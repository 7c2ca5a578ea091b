#include "start/chain.h"

#include "common/log.h"
#include "hooks/downcall_table.h"
#include "hooks/started_protocols.h"
#include "start/base_startup.h"
#include "start/catalogue.h"
#include "start/provider_loader.h"
#include "start/provider_match.h"

namespace moru_vyr::lsp {
namespace {

// Under the start-up lock. Guard: a catalogue whose chains lead from us back to us would start us
// without end. No true chain is longer than the platform's limit.
int start_depth = 0;

struct DepthCount {
  DepthCount() { ++start_depth; }
  ~DepthCount() { --start_depth; }
};

}  // namespace

int InitLspChain(WORD version, LPWSPDATA wsp_data, LPWSAPROTOCOL_INFOW in_info,
                 WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out_table, bool hook) noexcept {
  const DepthCount depth;
  if (start_depth > MAX_PROTOCOL_CHAIN) return WSAEPROVIDERFAILEDINIT;
  if (WasStarted(in_info->iProtocol)) {
    return BSPStartup(version, wsp_data, in_info, upcalls, out_table);
  }
  LspProvider* list = nullptr;
  int count = 0;
  if (!GetProviders(&list, &count)) {
    common::LspTrace("InitLspChain: GetProviders failed");
    return WSAEPROVIDERFAILEDINIT;
  }
  const GlobalPtr<LspProvider> owner(list);
  LspProvider* const provider = FindMatchingProvider(in_info, list, count);
  if (provider == nullptr) {
    common::LspTrace("InitLspChain: FindMatchingProvider failed!");
    return WSAEPROVIDERFAILEDINIT;
  }
  int error = 0;
  // Kept: only -1 is a failure. A next provider that refuses to start answers with a positive
  // number; its table is empty then, and Winsock is told that the start succeeded.
  if (InitializeProvider(provider, version, in_info, upcalls, &error) == -1) {
    common::LspTrace("InitLspChain: InitializeProvider failed: %d", error);
    return WSAEPROVIDERFAILEDINIT;
  }
  if (hook) {
    SaveDowncallTable(in_info->iProtocol, &upcalls, &provider->next_table, out_table);
  } else if (out_table != nullptr) {
    *out_table = provider->next_table;
  }
  if (wsp_data != nullptr) *wsp_data = provider->wsp_data;
  return 0;
}

}  // namespace moru_vyr::lsp
