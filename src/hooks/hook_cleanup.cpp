#include "common/log.h"
#include "engine/relay_mgr.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/started_protocols.h"
#include "icmp/icmp_vm.h"

namespace moru_vyr::lsp {

// Kept: the next provider's WSPCleanup is never called, and unless this is mended no flag of
// start-up is reset.
int WSPAPI WSPCleanup(LPINT lpErrno) noexcept {
  GetRelayMgr().Stop();
  GetIcmpVM().FreePool();
  ForgetAllReceives();
  if (ServesAgain()) {
    ForgetStarts();
    GetRelayMgr().AllowAnotherWorker();
  }
  StoreError(lpErrno, 0);
  LSP_LOG(0, "WSPCleanup");
  return 0;
}

}  // namespace moru_vyr::lsp
