#include "hooks/downcall_table.h"

#include <atomic>

#include "common/log.h"
#include "common/process_info.h"
#include "hooks/block_config.h"
#include "hooks/hook_entries.h"
#include "hooks/hook_flags.h"

namespace moru_vyr::lsp {
namespace {

// A second protocol can be started while sockets of the first are being opened. The entry that
// marks a slot as filled is therefore stored last and read first; everything else in the slot
// is plain and never changes after that.
bool IsFilled(WSPPROC_TABLE& table) {
  return std::atomic_ref<LPWSPSOCKET>(table.lpWSPSocket).load(std::memory_order_acquire) != nullptr;
}

void Publish(WSPPROC_TABLE& slot, const WSPPROC_TABLE& table) {
  WSPPROC_TABLE unmarked = table;
  unmarked.lpWSPSocket = nullptr;
  slot = unmarked;
  std::atomic_ref<LPWSPSOCKET>(slot.lpWSPSocket)
      .store(table.lpWSPSocket, std::memory_order_release);
}

void File(int protocol, const WSPUPCALLTABLE& upcalls, const WSPPROC_TABLE& next_table) {
  common::ProcessInfo& process = common::GetProcessInfo();
  switch (protocol) {
    case kProtocolTcp:
      process.tcp_upcall_table = upcalls;
      Publish(process.tcp_proc_table, next_table);
      break;
    case kProtocolUdp:
      process.udp_upcall_table = upcalls;
      Publish(process.udp_proc_table, next_table);
      break;
    case kProtocolRawSave:
      process.raw_upcall_table = upcalls;
      Publish(process.raw_proc_table, next_table);
      break;
    default:
      break;
  }
}

}  // namespace

void SaveDowncallTable(int protocol, const WSPUPCALLTABLE* upcalls, const WSPPROC_TABLE* next_table,
                       LPWSPPROC_TABLE out) noexcept {
  File(protocol, *upcalls, *next_table);
  if (out == nullptr) return;
  *out = *next_table;
  HookWSPAPI(out);
}

WSPPROC_TABLE* GetDowncallTable(int protocol, short* out_type) noexcept {
  struct Slot {
    short type;
    WSPPROC_TABLE* table;
  };
  common::ProcessInfo& process = common::GetProcessInfo();
  const Slot slots[] = {{kProtocolTcp, &process.tcp_proc_table},
                        {kProtocolUdp, &process.udp_proc_table},
                        {kProtocolRawFind, &process.raw_proc_table}};
  const Slot* chosen = nullptr;
  for (const Slot& slot : slots) {
    if (!IsFilled(*slot.table)) continue;
    if (slot.type == protocol) {
      chosen = &slot;
      break;
    }
    if (chosen == nullptr) chosen = &slot;  // in this order: TCP, UDP, raw
  }
  if (out_type != nullptr) *out_type = chosen != nullptr ? chosen->type : short{0};
  return chosen != nullptr ? chosen->table : nullptr;
}

bool HookWSPAPI(LPWSPPROC_TABLE table) noexcept {
  if (table == nullptr) {
    common::LspTrace("HookWSPAPI: failed with invalid param!");
    return false;
  }
  if (common::IsSpeedTester()) {
    GetHookFlags().speed_tester_mode.store(true, std::memory_order_relaxed);
  }
  UpdateBlockConfig();

  table->lpWSPAccept = WSPAccept;
  table->lpWSPBind = WSPBind;
  table->lpWSPCleanup = WSPCleanup;
  table->lpWSPCloseSocket = WSPCloseSocket;
  table->lpWSPConnect = WSPConnect;
  table->lpWSPGetPeerName = WSPGetPeerName;
  table->lpWSPIoctl = WSPIoctl;
  table->lpWSPRecv = WSPRecv;
  table->lpWSPRecvFrom = WSPRecvFrom;
  table->lpWSPSend = WSPSend;
  table->lpWSPSendTo = WSPSendTo;
  table->lpWSPSocket = WSPSocket;
  return true;
}

}  // namespace moru_vyr::lsp
