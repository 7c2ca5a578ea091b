#include "hooks/started_protocols.h"

#include <atomic>

#include "common/types.h"
#include "hooks/downcall_table.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

constinit std::atomic<u32> started{0};  // a bit per protocol

u32 BitOf(int protocol) noexcept {
  if (protocol == kProtocolTcp) return 1;
  if (protocol == kProtocolUdp) return 2;
  return protocol == kProtocolRawSave ? 4 : 0;
}

}  // namespace

bool WasStarted(int protocol) noexcept {
  const u32 bit = BitOf(protocol);
  return (started.fetch_or(bit, std::memory_order_relaxed) & bit) != 0;
}

bool ServesAgain() noexcept { return GetMending().ServesAgain(); }

void ForgetStarts() noexcept { started.store(0, std::memory_order_relaxed); }

}  // namespace moru_vyr::lsp
