// Ends the relay's worker, which an earlier test of the process may have started.
#pragma once
#include "engine/relay_mgr.h"

namespace test {

// For tests that change what the worker asks for at each pass. A later test may start another.
inline void EndWorker() {
  moru_vyr::lsp::RelayMgr& relay = moru_vyr::lsp::GetRelayMgr();
  relay.Stop();
  relay.AllowAnotherWorker();
}

}  // namespace test
