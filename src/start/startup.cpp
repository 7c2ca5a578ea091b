#include "start/startup.h"

#include <cstring>
#include <new>

#include "common/lock.h"
#include "common/log.h"
#include "start/catalogue.h"
#include "start/chain.h"
#include "start/process_start.h"

namespace moru_vyr::lsp {
namespace {

// Makes starts strictly sequential, the next provider's own start included. Taken before any
// other lock. Never destroyed: starts may still come while the process ends. In memory that is
// always there: the first start must not fail for lack of a lock.
common::Mutex& StartupLock() noexcept {
  alignas(common::Mutex) static unsigned char storage[sizeof(common::Mutex)];
  static common::Mutex* const lock = new (storage) common::Mutex;
  return *lock;
}

int Start(WORD version, LPWSPDATA wsp_data, LPWSAPROTOCOL_INFOW in_info, WSPUPCALLTABLE upcalls,
          LPWSPPROC_TABLE out_table) noexcept {
  const common::Lock hold(StartupLock());
  const bool hook = PrepareProcess();
  if (in_info == nullptr) {
    common::LspTrace("WSPStartup failed");
    return WSAEPROVIDERFAILEDINIT;
  }
  const int protocol = in_info->iProtocol;
  const int result = InitLspChain(version, wsp_data, in_info, upcalls, out_table, hook);
  common::LspTrace("WSPStartup end: %d, protocol=%d, [%s] hook", result, protocol,
                   hook ? "will" : "not");
  return result;
}

}  // namespace
}  // namespace moru_vyr::lsp

extern "C" int WSPAPI WSPStartup(WORD wVersionRequested, LPWSPDATA lpWSPData,
                                 LPWSAPROTOCOL_INFOW lpProtocolInfo, WSPUPCALLTABLE UpcallTable,
                                 LPWSPPROC_TABLE lpProcTable) {
  return moru_vyr::lsp::Start(wVersionRequested, lpWSPData, lpProtocolInfo, UpcallTable,
                              lpProcTable);
}

extern "C" void WSPAPI GetLspGuid(GUID* out) {
  if (out != nullptr) std::memcpy(out, &moru_vyr::lsp::kLspGuid, sizeof(GUID));
}
