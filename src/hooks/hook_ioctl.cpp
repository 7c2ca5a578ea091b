// The replaced entry through which applications ask for extension functions.
#include "common/log.h"
#include "hooks/extension_functions.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "hooks/relay_admission.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {

int WSPAPI WSPIoctl(SOCKET s, DWORD dwIoControlCode, LPVOID lpvInBuffer, DWORD cbInBuffer,
                    LPVOID lpvOutBuffer, DWORD cbOutBuffer, LPDWORD lpcbBytesReturned,
                    LPWSAOVERLAPPED lpOverlapped,
                    LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                    LPWSATHREADID lpThreadId, LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPIoctl>(record);
  // Kept: this is the only entry that fails without a log line and without an error.
  if (next == nullptr) return SOCKET_ERROR;

  const int result =
      next->lpWSPIoctl(s, dwIoControlCode, lpvInBuffer, cbInBuffer, lpvOutBuffer, cbOutBuffer,
                       lpcbBytesReturned, lpOverlapped, lpCompletionRoutine, lpThreadId, lpErrno);
  if (!IsAllowedRelay(record) || dwIoControlCode != SIO_GET_EXTENSION_FUNCTION_POINTER) {
    return result;
  }
  if (result != 0) {
    LSP_LOG(0,
            "WSPIoctl:ret=%d, err=%d, io_control_code=0x%x, inbuffer=0x%x, inbuffer_bytes=%d, "
            "outbuffer=0x%x, outbuffer_bytes=%d, bytes_return=%d, overlap=0x%x, comp_route=0x%x, "
            "thread_handle=%d, socket=%Id",
            result, ErrorOf(lpErrno), static_cast<unsigned>(dwIoControlCode),
            PointerBits(lpvInBuffer), static_cast<int>(cbInBuffer), PointerBits(lpvOutBuffer),
            static_cast<int>(cbOutBuffer), static_cast<int>(CountOf(lpcbBytesReturned)),
            PointerBits(lpOverlapped), PointerBits(lpCompletionRoutine),
            lpThreadId != nullptr ? static_cast<int>(PointerBits(lpThreadId->ThreadHandle)) : 0, s);
  }
  AnswerExtensionQuery(lpvInBuffer, cbInBuffer, lpvOutBuffer);
  return result;
}

}  // namespace moru_vyr::lsp
