// The replaced entries that move bytes on a connected socket.
#include "common/log.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/raw_ping.h"
#include "hooks/relay_admission.h"
#include "hooks/udp_relay.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

int WSPAPI WSPSend(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                   DWORD dwFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, LPWSATHREADID lpThreadId,
                   LPINT lpErrno) noexcept {
  SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPSend>(record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPSend: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  NoteOverlappedUse(&record, lpOverlapped);
  // Kept: asked for every kind of socket, so that the first call of any kind starts the relay.
  if (IsAllowedRelay(record) && IsRawPing(record) &&
      HoldPing(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent)) {
    return 0;
  }
  if (lpNumberOfBytesSent != nullptr) *lpNumberOfBytesSent = 0;
  u64 entry = 0;  // in the relay's queue
  const bool relay_send =
      record.type == kSocketTypeDatagram && IsAllowedRelay(record) &&
      PrepareConnectedUdpSend(record, lpBuffers, dwBufferCount, lpThreadId, &entry);
  const int result = next->lpWSPSend(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent, dwFlags,
                                     lpOverlapped, lpCompletionRoutine, lpThreadId, lpErrno);
  const int error = ErrorOf(lpErrno);
  const bool pending = MayBePending(result, lpErrno);
  if (relay_send && result == SOCKET_ERROR && IsAllowedRelay(record)) {
    CancelUdpSend(s, lpBuffers, dwBufferCount, pending, entry);
  }
  const auto log = [&](int level) {
    LSP_LOG(level,
            "WSPSend: ret=%d, err=%d, pbuf=%p, buf_cnt=%d, sent_bytes=%d, flag=%d, ol=0x%08x, "
            "crt=0x%08x, pthd=0x%08x, socket=%Id, token=%u",
            result, error, static_cast<void*>(lpBuffers), static_cast<int>(dwBufferCount),
            pending ? 0 : static_cast<int>(CountOf(lpNumberOfBytesSent)), static_cast<int>(dwFlags),
            PointerBits(lpOverlapped), PointerBits(lpCompletionRoutine), PointerBits(lpThreadId), s,
            record.token);
  };
  // Kept: a pending send (997) counts as a failure here, though a pending receive does not.
  if (result == SOCKET_ERROR && error != WSAEWOULDBLOCK) {
    if (GetSocketErrorFilter().ShouldLog(kOperationSend, error, record.token)) log(4);
  } else if (result == 0) {
    log(0);
  }
  return result;
}

int WSPAPI WSPRecv(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesRecvd,
                   LPDWORD lpFlags, LPWSAOVERLAPPED lpOverlapped,
                   LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine, LPWSATHREADID lpThreadId,
                   LPINT lpErrno) noexcept {
  SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPRecv>(record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPRecv: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  NoteOverlappedUse(&record, lpOverlapped);
  if (IsAllowedRelay(record) && IsRawPing(record) &&
      AnswerPing(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd)) {
    return 0;
  }
  if (lpNumberOfBytesRecvd != nullptr) *lpNumberOfBytesRecvd = 0;
  const int result = next->lpWSPRecv(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags,
                                     lpOverlapped, lpCompletionRoutine, lpThreadId, lpErrno);
  if (result == 0 && record.type == kSocketTypeDatagram && IsAllowedRelay(record)) {
    RestoreConnectedUdpSource(record, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd);
  }
  if (lpBuffers == nullptr) {
    LSP_LOG(0, "WSPRecv: buffer is empty, socket=%Id", s);
    return result;
  }
  const int error = ErrorOf(lpErrno);
  const bool pending = MayBePending(result, lpErrno);
  const DWORD received = pending ? 0 : CountOf(lpNumberOfBytesRecvd);
  const auto log = [&](int level) {
    LSP_LOG(level,
            "WSPRecv: ret=%d, err=%d, buf_len=%d, buf_cnt=%d, recv_bytes=%d, flag=%d, ol=0x%08x, "
            "crt=0x%08x, pthd=0x%08x, socket=%Id, token=%u",
            result, error, dwBufferCount != 0 && !pending ? static_cast<int>(lpBuffers[0].len) : 0,
            static_cast<int>(dwBufferCount), static_cast<int>(received),
            pending ? 0 : static_cast<int>(CountOf(lpFlags)), PointerBits(lpOverlapped),
            PointerBits(lpCompletionRoutine), PointerBits(lpThreadId), s, record.token);
  };
  const bool failed = result == SOCKET_ERROR && error != WSAEWOULDBLOCK && error != WSA_IO_PENDING;
  const bool peer_closed = result == 0 && received == 0;
  if (failed || peer_closed) {
    if (GetSocketErrorFilter().ShouldLog(kOperationRecv, error, record.token)) log(4);
  } else if (result == 0) {
    log(0);
  }
  return result;
}

}  // namespace moru_vyr::lsp
