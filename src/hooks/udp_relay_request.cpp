#include "hooks/udp_relay_request.h"

#include <windows.h>

#include "common/handle.h"
#include "common/log.h"
#include "common/net_text.h"
#include "engine/relay_mgr.h"
#include "udp/relay_messages.h"

namespace moru_vyr::lsp {
namespace {

constexpr DWORD kAnswerTimeoutMs = 500;

struct SendResult {
  int result;
  DWORD bytes;
  INT error;
};

// Sends a message from the game's socket to the control port.
template <class Message>
SendResult SendControl(const SocketRecord& record, Message& message, const sockaddr_in& control,
                       LPWSATHREADID thread_id) noexcept {
  WSABUF buffer = {};
  buffer.len = sizeof message;
  buffer.buf = reinterpret_cast<CHAR*>(&message);
  SendResult sent = {};
  sent.result = record.next_proc_table->lpWSPSendTo(
      record.socket, &buffer, 1, &sent.bytes, 0, reinterpret_cast<const sockaddr*>(&control),
      sizeof control, nullptr, nullptr, thread_id, &sent.error);
  return sent;
}

bool SendOpenRequest(const SocketRecord& record, const sockaddr_in& to, HANDLE event,
                     LPWSATHREADID thread_id) noexcept {
  sockaddr_in control = {};
  GetRelayMgr().GetUdpLocalAddr(&control);
  ProtoRelayOpen request = ProtoRelayOpen::Request(record.token, to, event, record.socket);
  const SendResult sent = SendControl(record, request, control, thread_id);
  if (sent.result == SOCKET_ERROR) {
    LSP_LOG(5, "[UDP] RequestUdpRelay failed: sendto, error=%d, socket=%Id, token=%u", sent.error,
            record.socket, record.token);
    return false;
  }
  if (sent.bytes != sizeof request) {
    LSP_LOG(5, "[UDP] RequestUdpRelay failed: sendto(%s:%u), bytes(%u)!=%u, socket=%Id, token=%u",
            common::IpToString(control.sin_addr.s_addr).c_str(), ntohs(control.sin_port),
            static_cast<u32>(sent.bytes), static_cast<u32>(sizeof request), record.socket,
            record.token);
    return false;
  }
  LSP_LOG(0, "[UDP] RequestUdpRelay: sendto(%s:%u) success, bytes=%u, socket=%Id, token=%u",
          common::IpToString(control.sin_addr.s_addr).c_str(), ntohs(control.sin_port),
          static_cast<u32>(sent.bytes), record.socket, record.token);
  return true;
}

}  // namespace

bool RequestUdpRelay(const SocketRecord& record, const sockaddr_in* to, LPWSATHREADID thread_id,
                     sockaddr_in* out_addr, UdpPackageQueue** out_send_queue,
                     UdpPackageQueue** out_recv_queue) noexcept {
  LSP_LOG(5, "[UDP] RequestUdpRelay begin, socket=%Id, token=%u", record.socket, record.token);
  const WSPPROC_TABLE* const next = record.next_proc_table;
  if (next == nullptr || next->lpWSPSendTo == nullptr || next->lpWSPRecvFrom == nullptr ||
      next->lpWSPSelect == nullptr || to == nullptr) {
    return false;
  }
  const common::UniqueHandle event(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  if (!event) {
    LSP_LOG(5, "[UDP] RequestUdpRelay failed: CreateEvent, error=%u, socket=%Id, token=%u",
            static_cast<unsigned>(GetLastError()), record.socket, record.token);
    return false;
  }
  if (!SendOpenRequest(record, *to, event.get(), thread_id)) return false;
  const DWORD wait_result = WaitForSingleObject(event.get(), kAnswerTimeoutMs);
  // Kept: how the wait ended decides nothing. An answer may be there although the event was not
  // seen, and none may be there although it was.
  ProtoRelayOpen answer;
  if (!GetRelayMgr().GetCreateResult(record.token, &answer)) {
    LSP_LOG(5, "RequestUdpRelay failed: resp not found, socket=%Id, token=%u", record.socket,
            record.token);
    return false;
  }
  if (!answer.opened()) {
    LSP_LOG(5, "RequestUdpRelay failed: resp ret is failed, socket=%Id, token=%u", record.socket,
            record.token);
    return false;
  }
  *out_addr = answer.address();
  LSP_LOG(5, "RequestUdpRelay success: relay_addr(%s:%u), wait_result=%u, socket=%Id,token=%u",
          common::IpToString(out_addr->sin_addr.s_addr).c_str(), ntohs(out_addr->sin_port),
          static_cast<u32>(wait_result), record.socket, record.token);
  if (out_send_queue != nullptr) *out_send_queue = answer.send_queue();
  if (out_recv_queue != nullptr) *out_recv_queue = answer.recv_queue();
  return true;
}

bool CloseUdpRelay(const SocketRecord& record) noexcept {
  const sockaddr_in& relay = record.relay_addr;
  if (record.relay_state != kRelayRunning || relay.sin_port == 0 || relay.sin_addr.s_addr == 0) {
    return false;
  }
  const WSPPROC_TABLE* const next = record.next_proc_table;
  if (next == nullptr || next->lpWSPSendTo == nullptr) return false;
  sockaddr_in control = {};
  GetRelayMgr().GetUdpLocalAddr(&control);
  ProtoRelayClose message = ProtoRelayClose::Request(record.token);
  WSATHREADID thread{GetCurrentThread(), 0};
  const SendResult sent = SendControl(record, message, control, &thread);
  if (sent.result == SOCKET_ERROR) {
    LSP_LOG(5, "[UDP] CloseUdpRelay: sendto, error=%d, socket=%Id, token=%u", sent.error,
            record.socket, record.token);
    return false;
  }
  if (sent.bytes != sizeof message) {
    LSP_LOG(5, "[UDP] CloseUdpRelay: sendto, bytes(%u)!=%u, socket=%Id, token=%u",
            static_cast<unsigned>(sent.bytes), static_cast<unsigned>(sizeof message), record.socket,
            record.token);
    return false;
  }
  LSP_LOG(0, "[UDP] CloseUdpRelay: sendto success, bytes=%u, socket=%Id, token=%u",
          static_cast<unsigned>(sent.bytes), record.socket, record.token);
  return true;
}

}  // namespace moru_vyr::lsp
