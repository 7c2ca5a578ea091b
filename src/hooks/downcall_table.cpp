#include "hooks/downcall_table.h"

#include <array>
#include <atomic>
#include <cstring>

#include "common/log.h"
#include "common/process_info.h"
#include "hooks/block_config.h"
#include "hooks/hook_entries.h"
#include "hooks/hook_flags.h"
#include "hooks/overlapped_receive.h"
#include "hooks/postponed_target.h"
#include "hooks/relayed_names.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

// A second protocol can be started while sockets of the first are being opened. The entry that
// marks a slot as filled is therefore stored last and read first; everything else in the slot is
// plain data that does not change afterwards, unless a process that is served again gets another
// next provider.
static_assert(std::atomic_ref<LPWSPSOCKET>::required_alignment <= alignof(WSPPROC_TABLE));

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

struct Slot {
  short type;
  int saved_as;
  WSPUPCALLTABLE* upcalls;
  WSPPROC_TABLE* table;
};

std::array<Slot, 3> Slots() {
  common::ProcessInfo& process = common::GetProcessInfo();
  return {
      {{kProtocolTcp, kProtocolTcp, &process.tcp_upcall_table, &process.tcp_proc_table},
       {kProtocolUdp, kProtocolUdp, &process.udp_upcall_table, &process.udp_proc_table},
       {kProtocolRawFind, kProtocolRawSave, &process.raw_upcall_table, &process.raw_proc_table}}};
}

}  // namespace

void SaveDowncallTable(int protocol, const WSPUPCALLTABLE* upcalls, const WSPPROC_TABLE* next_table,
                       LPWSPPROC_TABLE out) noexcept {
  for (const Slot& slot : Slots()) {
    if (slot.saved_as != protocol) continue;
    *slot.upcalls = *upcalls;
    if (std::memcmp(slot.table, next_table, sizeof *next_table) == 0) continue;
    Publish(*slot.table, *next_table);
  }
  if (out == nullptr) return;
  *out = *next_table;
  HookWSPAPI(out);
}

WSPPROC_TABLE* GetDowncallTable(int protocol, short* out_type) noexcept {
  const auto slots = Slots();
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
  HookRelayedNames(table);
  HookOverlappedResult(table);
  HookBlockingModes(table);
  return true;
}

}  // namespace moru_vyr::lsp
