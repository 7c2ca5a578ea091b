#include "hooks/postponed_target.h"

#include <windows.h>

#include <cstring>

#include "common/log.h"
#include "engine/relay_mgr.h"
#include "hooks/downcall_table.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kLookMs = 100;  // between two checks that the worker is still there
// The worker's own limits, and the system's for the last connect, are shorter.
constexpr u32 kLongestWaitMs = 180'000;

bool IsConnected(const SocketRecord& record) noexcept {
  if (record.next_proc_table->lpWSPGetPeerName == nullptr) return false;
  sockaddr_storage peer = {};
  INT size = sizeof peer;
  INT error = 0;
  return record.next_proc_table->lpWSPGetPeerName(record.socket, reinterpret_cast<sockaddr*>(&peer),
                                                  &size, &error) == 0;
}

// The refusal that the worker has arranged takes the system a moment.
bool HasFailed(const SocketRecord& record) noexcept {
  if (record.next_proc_table->lpWSPSelect == nullptr) return true;
  fd_set failed = {};
  FD_SET(record.socket, &failed);
  timeval at_once = {0, 0};
  INT error = 0;
  return record.next_proc_table->lpWSPSelect(0, nullptr, nullptr, &failed, &at_once, &error) != 0;
}

// 0 once the server has been reached, otherwise the error for its connect.
int Await(const PostponedConnect& connect) noexcept {
  const u32 start = GetTickCount();
  while (connect.error == PostponedConnect::kUndecided) {
    if (!GetRelayMgr().StillServes(kLookMs)) return WSAENETDOWN;
    if (GetTickCount() - start >= kLongestWaitMs) return WSAETIMEDOUT;
    WaitForSingleObject(connect.decided.get(), kLookMs);
  }
  return connect.error;
}

// A socket without a record of its own goes to the provider that all go to.
template <auto kEntry>
const WSPPROC_TABLE* NextOf(SOCKET s) noexcept {
  if (const auto* const next = NextWith<kEntry>(GetSocketMap().Get(s))) return next;
  const WSPPROC_TABLE* const any = GetDowncallTable(kProtocolTcp, nullptr);
  return any != nullptr && any->*kEntry != nullptr ? any : nullptr;
}

int WSPAPI WSPBlockingIoctl(SOCKET s, DWORD code, LPVOID in, DWORD in_size, LPVOID out,
                            DWORD out_size, LPDWORD returned, LPWSAOVERLAPPED overlapped,
                            LPWSAOVERLAPPED_COMPLETION_ROUTINE routine, LPWSATHREADID thread,
                            LPINT error) noexcept {
  u32 non_blocking = 0;
  const bool sets_mode =
      code == static_cast<DWORD>(FIONBIO) && in != nullptr && in_size >= sizeof non_blocking;
  if (sets_mode) std::memcpy(&non_blocking, in, sizeof non_blocking);
  const int result =
      WSPIoctl(s, code, in, in_size, out, out_size, returned, overlapped, routine, thread, error);
  if (sets_mode && result == 0) GetSocketMap().SetNonBlocking(s, non_blocking != 0);
  return result;
}

// These two make a socket non-blocking, for any set of events.
int WSPAPI WSPEventSelect(SOCKET s, WSAEVENT event, long events, LPINT error) noexcept {
  const WSPPROC_TABLE* const next = NextOf<&WSPPROC_TABLE::lpWSPEventSelect>(s);
  if (next == nullptr) return FailWithoutProvider(error);
  const int result = next->lpWSPEventSelect(s, event, events, error);
  if (result == 0) GetSocketMap().SetNonBlocking(s, true);
  return result;
}

int WSPAPI WSPAsyncSelect(SOCKET s, HWND window, unsigned int message, long events,
                          LPINT error) noexcept {
  const WSPPROC_TABLE* const next = NextOf<&WSPPROC_TABLE::lpWSPAsyncSelect>(s);
  if (next == nullptr) return FailWithoutProvider(error);
  const int result = next->lpWSPAsyncSelect(s, window, message, events, error);
  if (result == 0) GetSocketMap().SetNonBlocking(s, true);
  return result;
}

}  // namespace

bool IsConnectUnderWay(const SocketRecord& record, ConnectTarget* target) noexcept {
  if (!PostponesConnects()) return false;
  switch (record.connect_stage) {
    case ConnectStage::kWaiting:
      target->answer = WSAEALREADY;
      return true;
    case ConnectStage::kIssued:
      return true;
    case ConnectStage::kRefused:
      target->answer = HasFailed(record) ? 0 : WSAEALREADY;
      return target->answer != 0;
    case ConnectStage::kNone:
      return record.handled && IsConnected(record);
  }
  return false;
}

// Sets the stage first: the worker may be ready before this thread goes on. A non-blocking socket
// that was refused keeps showing that until it is really connected again, so its next connect is
// carried out at once.
void Postpone(const SocketRecord& record, ConnectTarget* target) noexcept {
  if (!PostponesConnects()) return;
  if (record.connect_stage == ConnectStage::kRefused && record.non_blocking) {
    GetSocketMap().SetConnectStage(record.socket, ConnectStage::kNone, record.token);
    return;
  }
  target->postponed = GetRelayMgr().postponed_connects().Add(record);
  if (target->postponed == nullptr) return;
  GetSocketMap().SetConnectStage(record.socket, ConnectStage::kWaiting, record.token);
}

void EndPostponed(const SocketRecord& record, ConnectTarget* target) noexcept {
  if (target->postponed == nullptr) return;
  target->postponed->is_cancelled = true;
  GetRelayMgr().postponed_connects().Cancel(record.token);
  GetSocketMap().SetConnectStage(record.socket, ConnectStage::kNone, record.token);
  target->postponed.reset();
}

bool MayConnectNow(const SocketRecord& record, const ConnectTarget& target, LPINT error) noexcept {
  int answer = target.answer;
  if (target.postponed != nullptr) {
    answer = target.postponed->decided ? Await(*target.postponed) : WSAEWOULDBLOCK;
    if (answer == 0) {
      GetSocketMap().SetConnectStage(record.socket, ConnectStage::kIssued, record.token);
    }
  }
  if (answer != 0) StoreError(error, answer);
  return answer == 0;
}

void CancelPostponed(const SocketRecord& record) noexcept {
  if (record.connect_stage == ConnectStage::kNone) return;
  GetRelayMgr().postponed_connects().Cancel(record.token);
}

void HookBlockingModes(LPWSPPROC_TABLE table) noexcept {
  if (!PostponesConnects()) return;
  table->lpWSPIoctl = WSPBlockingIoctl;
  table->lpWSPEventSelect = WSPEventSelect;
  table->lpWSPAsyncSelect = WSPAsyncSelect;
}

}  // namespace moru_vyr::lsp
