#include "hooks/overlapped_receive.h"

#include <cstdint>

#include "common/log.h"
#include "engine/relay_mgr.h"
#include "hooks/connected_datagram.h"
#include "hooks/downcall_table.h"
#include "hooks/hook_common.h"
#include "hooks/pending_receives.h"
#include "hooks/udp_relay_request.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kIncomplete = 996;  // WSA_IO_INCOMPLETE

bool NamesLateSources() noexcept { return GetMending().NamesLateSources(); }

bool HasDatagram(bool succeeded, int error) noexcept { return succeeded || error == WSAEMSGSIZE; }

// The lowest bit of an event keeps a completion away from the socket's port, so the socket has one.
bool IsSeen(const WSAOVERLAPPED& overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) noexcept {
  const auto event = reinterpret_cast<std::uintptr_t>(overlapped.hEvent);
  return routine != nullptr || (event != 0 && (event & 1) == 0);
}

void CALLBACK OnReceived(DWORD error, DWORD bytes, LPWSAOVERLAPPED overlapped, DWORD flags) {
  PendingReceive receive;
  if (!GetPendingReceives().TakeRoutine(overlapped, &receive)) return;
  if (HasDatagram(error == 0, static_cast<int>(error))) {
    if (const auto ports = GetRelayMgr().UsePeerPorts(receive.token)) NameSource(receive, *ports);
  }
  receive.routine(error, bytes, overlapped, flags);
}

// See the header.
void LeaveDirect(SocketRecord* record, const char* why) noexcept {
  LSP_LOG(5, "[UDP] the socket is left direct: %s, relayed=%s, socket=%Id, token=%u", why,
          record->relay_state == kRelayRunning ? "true" : "false", record->socket, record->token);
  GetSocketMap().SetRelayDisabled(record->socket, true);
  record->relay_disabled = true;
  if (record->relay_state == kRelayNotAsked) return;
  if (!CloseUdpRelay(*record)) GetRelayMgr().NoteUntoldEnd(record->token);
  GetSocketMap().SetRelayState(record->socket, kRelayRefused, record->token);
  record->relay_state = kRelayRefused;
  if (record->handled) ConnectDirectly(*record);
}

BOOL WSPAPI WSPGetOverlappedResult(SOCKET s, LPWSAOVERLAPPED lpOverlapped, LPDWORD lpcbTransfer,
                                   BOOL fWait, LPDWORD lpdwFlags, LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* next = NextWith<&WSPPROC_TABLE::lpWSPGetOverlappedResult>(record);
  // A socket without a record has no receive of ours either, and its result is asked for as usual.
  if (next == nullptr) next = GetDowncallTable(kProtocolTcp, nullptr);
  if (next == nullptr || next->lpWSPGetOverlappedResult == nullptr) {
    FailWithoutProvider(lpErrno);
    return FALSE;
  }
  // Before the call: once it is over, the structure may be in use for the next one.
  const u64 entry = GetPendingReceives().Find(record.token, lpOverlapped);
  const BOOL done =
      next->lpWSPGetOverlappedResult(s, lpOverlapped, lpcbTransfer, fWait, lpdwFlags, lpErrno);
  const int error = ErrorOf(lpErrno);
  if (entry == 0 || (!done && error == kIncomplete)) return done;
  if (HasDatagram(done != FALSE, error)) {
    GetPendingReceives().Finish(entry, GetRelayMgr().UsePeerPorts(record.token).get());
  } else {
    GetPendingReceives().Fail(entry, true);
  }
  return done;
}

}  // namespace

OverlappedReceive::OverlappedReceive(SocketRecord* record, bool allowed, sockaddr* from,
                                     LPINT from_size, LPWSAOVERLAPPED overlapped,
                                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completion) noexcept
    : token_(record->token), routine_(completion) {
  if (overlapped == nullptr || !NamesLateSources()) return;
  NoteOverlappedUse(record, overlapped);
  left_direct_ = record->relay_disabled;
  if (left_direct_ || !allowed || record->type != kSocketTypeDatagram || from == nullptr ||
      from_size == nullptr) {
    return;
  }
  if (IsSeen(*overlapped, completion)) {
    entry_ = GetPendingReceives().Add(
        {record->token, overlapped, completion, from, from_size, *from_size});
    if (entry_ != 0) {
      if (completion != nullptr) routine_ = OnReceived;
      return;
    }
    LeaveDirect(record, "too many receives are pending");
  } else {
    LeaveDirect(record, "a receive with neither a routine nor an event");
  }
  left_direct_ = true;
}

bool OverlappedReceive::End(int result, const INT* error) noexcept {
  if (entry_ == 0) return left_direct_;
  if (HasDatagram(result == 0, ErrorOf(error)) && !MayBePending(result, error)) {
    GetPendingReceives().Finish(entry_, GetRelayMgr().UsePeerPorts(token_).get());
  }
  // No routine is called for what fails at once.
  if (result != 0 && !MayBePending(result, error)) GetPendingReceives().Fail(entry_, false);
  return true;
}

void NoteOverlappedUse(SocketRecord* record, const WSAOVERLAPPED* overlapped) noexcept {
  if (overlapped == nullptr || !GetPendingReceives().Drop(record->token, overlapped)) return;
  if (!record->relay_disabled) LeaveDirect(record, "the result of a receive was not asked for");
}

void ForgetReceives(const SocketRecord& record) noexcept {
  GetPendingReceives().DropAllOf(record.token);
}

void ForgetAllReceives() noexcept { GetPendingReceives().DropAll(); }

void HookOverlappedResult(LPWSPPROC_TABLE table) noexcept {
  if (NamesLateSources()) table->lpWSPGetOverlappedResult = WSPGetOverlappedResult;
}

}  // namespace moru_vyr::lsp
