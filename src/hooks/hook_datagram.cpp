// The replaced entries that name an address with each datagram.
#include <algorithm>
#include <cstring>

#include "common/log.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/relay_admission.h"
#include "hooks/udp_relay.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {
namespace {

// Whether a datagram to `to`, which may be null, goes to the relay; if so, *relay_addr is the
// address to send it to, and *entry its number in the relay's queue.
bool PrepareSend(const SocketRecord& record, LPWSABUF buffers, DWORD count, const sockaddr* to,
                 int to_size, sockaddr_in* relay_addr, LPWSATHREADID thread_id,
                 u64* entry) noexcept {
  if (record.type != kSocketTypeDatagram) return false;
  const sockaddr_in asked = to != nullptr ? ReadAddress(to, to_size) : sockaddr_in{};
  const sockaddr_in* const dest = to != nullptr ? &asked : nullptr;
  return IsAllowUdpRelayed(record, dest) &&
         PrepareUdpRelaySend(record, buffers, count, dest, relay_addr, thread_id, entry);
}

// Writes the true source into the caller's address buffer, as far as that reaches.
void RestoreSource(const SocketRecord& record, LPWSABUF buffers, DWORD count, sockaddr* from,
                   int from_size, const DWORD* received) noexcept {
  if (from == nullptr) return;
  sockaddr_in source = ReadAddress(from, from_size);
  if (!RestoreUdpSource(record, buffers, count, &source, received)) return;
  const int room = std::clamp(from_size, 0, static_cast<int>(sizeof source));
  std::memcpy(from, &source, static_cast<size_t>(room));
}

// Whether the call has returned a datagram and its source. A datagram that was cut has a source
// too, but a queue cannot find it by the bytes that are left.
bool HasSource(const SocketRecord& record, int result, const INT* error) noexcept {
  return result == 0 || (record.recv_queue == nullptr && ErrorOf(error) == WSAEMSGSIZE);
}

// A copy of the address in the caller's memory, for a log line that is written later.
class AddressCopy {
 public:
  AddressCopy() = default;
  AddressCopy(const sockaddr* name, int name_size) : named_(name != nullptr), size_(name_size) {
    if (named_) address_ = ReadAddress(name, name_size);
  }
  AddressText Text() const {
    const auto* const name = reinterpret_cast<const sockaddr*>(&address_);
    return DescribeAddress(named_ ? name : nullptr, size_);
  }

 private:
  bool named_ = false;
  int size_ = 0;
  sockaddr_in address_ = {};
};

// What a log line on a receive says about the caller's memory.
struct ReceiveView {
  AddressCopy from;
  int bytes = 0;
  int flags = 0;
};

ReceiveView Look(const sockaddr* from, int from_size, const DWORD* bytes, const DWORD* flags) {
  return {AddressCopy(from, from_size), static_cast<int>(CountOf(bytes)),
          static_cast<int>(CountOf(flags))};
}

}  // namespace

int WSPAPI WSPSendTo(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount, LPDWORD lpNumberOfBytesSent,
                     DWORD dwFlags, const struct sockaddr* lpTo, int iTolen,
                     LPWSAOVERLAPPED lpOverlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                     LPWSATHREADID lpThreadId, LPINT lpErrno) noexcept {
  SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPSendTo>(record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPSendTo: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  NoteOverlappedUse(&record, lpOverlapped);
  RelayName relay;
  u64 entry = 0;
  const bool relay_send = PrepareSend(record, lpBuffers, dwBufferCount, lpTo, iTolen,
                                      relay.address(), lpThreadId, &entry);
  // Without a destination the socket is connected, and its peer decides.
  const sockaddr* const target = relay_send && lpTo != nullptr ? relay.name() : lpTo;
  const int target_size = target != lpTo ? RelayName::BoundedSize(iTolen) : iTolen;
  const AddressCopy asked(lpTo, iTolen);
  // Kept: the count of sent bytes is not cleared first, unlike in WSPSend.
  const int result =
      next->lpWSPSendTo(s, lpBuffers, dwBufferCount, lpNumberOfBytesSent, dwFlags, target,
                        target_size, lpOverlapped, lpCompletionRoutine, lpThreadId, lpErrno);
  const int error = ErrorOf(lpErrno);
  const bool pending = MayBePending(result, lpErrno);
  if (relay_send && result == SOCKET_ERROR) {
    // Kept: the relay will drop its datagram, if that is sent after all.
    CancelUdpSend(s, lpBuffers, dwBufferCount, pending, entry);
  }
  const auto log = [&](int level) {
    LSP_LOG(level,
            "WSPSendTo: ret=%d, err=%d, dst=%s:%d, relay_send=%s, pbuf=%p, buf_cnt=%d, "
            "sent_bytes=%d, flag=%d, ol=0x%08x, crt=0x%08x, pthd=0x%08x, socket=%Id, token=%u",
            result, error, asked.Text().ip.c_str(), asked.Text().port,
            relay_send ? "true" : "false", static_cast<void*>(lpBuffers),
            static_cast<int>(dwBufferCount),
            pending ? 0 : static_cast<int>(CountOf(lpNumberOfBytesSent)), static_cast<int>(dwFlags),
            PointerBits(lpOverlapped), PointerBits(lpCompletionRoutine), PointerBits(lpThreadId), s,
            record.token);
  };
  if (result == SOCKET_ERROR && error != WSAEWOULDBLOCK && error != WSA_IO_PENDING) {
    if (GetSocketErrorFilter().ShouldLog(kOperationSendTo, error, record.token)) log(4);
  } else if (result == 0) {
    log(0);
  }
  return result;
}

int WSPAPI WSPRecvFrom(SOCKET s, LPWSABUF lpBuffers, DWORD dwBufferCount,
                       LPDWORD lpNumberOfBytesRecvd, LPDWORD lpFlags, struct sockaddr* lpFrom,
                       LPINT lpFromlen, LPWSAOVERLAPPED lpOverlapped,
                       LPWSAOVERLAPPED_COMPLETION_ROUTINE lpCompletionRoutine,
                       LPWSATHREADID lpThreadId, LPINT lpErrno) noexcept {
  SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPRecvFrom>(record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPRecvFrom: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  const bool allowed = IsAllowedRelay(record);
  OverlappedReceive receive(&record, allowed, lpFrom, lpFromlen, lpOverlapped, lpCompletionRoutine);
  const SizedPlace source(lpFromlen);
  const auto look = [&] { return Look(lpFrom, source.Size(), lpNumberOfBytesRecvd, lpFlags); };
  // For the log line of a receive that goes pending, which shows how it began.
  const ReceiveView before = common::IsLogged(4) ? look() : ReceiveView{};
  // Kept: the count of received bytes is not cleared first, unlike in WSPRecv.
  const int result =
      next->lpWSPRecvFrom(s, lpBuffers, dwBufferCount, lpNumberOfBytesRecvd, lpFlags, lpFrom,
                          lpFromlen, lpOverlapped, receive.routine(), lpThreadId, lpErrno);
  const int error = ErrorOf(lpErrno);
  if (!receive.End(result, lpErrno) && HasSource(record, result, lpErrno) && allowed &&
      record.type == kSocketTypeDatagram) {
    RestoreSource(record, lpBuffers, dwBufferCount, lpFrom, source.Size(), lpNumberOfBytesRecvd);
  }
  const auto log = [&](int level) {
    if (!common::IsLogged(level)) return;
    const ReceiveView seen = MayBePending(result, lpErrno) ? before : look();
    LSP_LOG(level,
            "WSPRecvFrom end: ret=%d, err=%d, from=%s:%d, pbuf=%p, buf_cnt=%d, recv_bytes=%d, "
            "flag=%d, ol=0x%08x, crt=0x%08x, pthd=0x%08x, socket=%Id, token=%u",
            result, error, seen.from.Text().ip.c_str(), seen.from.Text().port,
            static_cast<void*>(lpBuffers), static_cast<int>(dwBufferCount), seen.bytes, seen.flags,
            PointerBits(lpOverlapped), PointerBits(lpCompletionRoutine), PointerBits(lpThreadId), s,
            record.token);
  };
  // Kept: a pending receive (997) counts as a failure here, though not in WSPRecv.
  if (result == SOCKET_ERROR && error != WSAEWOULDBLOCK) {
    if (GetSocketErrorFilter().ShouldLog(kOperationRecvFrom, error, record.token)) log(4);
  } else if (result == 0) {
    log(0);
  }
  return result;
}

}  // namespace moru_vyr::lsp
