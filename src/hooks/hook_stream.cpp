// The replaced entries that make, connect and close sockets.
#include <cstring>

#include "common/function_trace.h"
#include "common/log.h"
#include "common/net_text.h"
#include "engine/relay_mgr.h"
#include "hooks/connect_target.h"
#include "hooks/connected_datagram.h"
#include "hooks/downcall_table.h"
#include "hooks/hook_common.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/postponed_target.h"
#include "hooks/raw_ping.h"
#include "hooks/relay_admission.h"
#include "hooks/udp_relay.h"
#include "hooks/udp_relay_request.h"
#include "icmp/icmp_vm.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {
namespace {

// Gives a new socket its record. The caller takes the token at once after the next provider
// returned, so failed sockets use up tokens as well.
void Record(SOCKET s, int type, int protocol, u32 token, WSPPROC_TABLE* table) {
  GetSocketMap().Add(s, type, protocol, token);
  GetSocketMap().SetNextProcTable(s, table);
  GetSocketMap().SetOfWorker(s, GetCurrentThreadId() == GetRelayMgr().GetWorkerThreadId());
}

// Connects a datagram socket to its relay, whose address goes into *relay, if it is to be relayed.
// The length stays the application's.
void RedirectDatagrams(const SocketRecord& record, ConnectTarget* target, RelayName* relay) {
  const sockaddr_in asked = ReadAddress(target->name, target->name_size);
  target->udp_connect = HandleUdpConnect(record, &asked, relay->address());
  if (!target->udp_connect) return;
  target->name = relay->name();
  target->name_size = RelayName::BoundedSize(target->name_size);
}

// Whether a datagram socket's relay was told of the end.
bool EndRelay(const SocketRecord& record) {
  if (record.type == kSocketTypeDatagram && record.relay_state == kRelayRunning) {
    return CloseUdpRelay(record);
  }
  if (IsRawPing(record)) GetIcmpVM().RemoveRawSocket(record.socket);
  return false;
}

// Removes the socket from the map, and tells its relay of the end unless that was done under this
// token. Only now is it certain whether there is a relay: another thread may have asked for one
// since this call began.
void Forget(SOCKET s, u32 told_token) {
  SocketRecord last;
  if (!GetSocketMap().Remove(s, &last) || last.relay_state == kRelayNotAsked) return;
  if (last.token != told_token) GetRelayMgr().NoteUntoldEnd(last.token);
}

}  // namespace

SOCKET WSPAPI WSPSocket(int af, int type, int protocol, LPWSAPROTOCOL_INFOW lpProtocolInfo, GROUP g,
                        DWORD dwFlags, LPINT lpErrno) noexcept {
  short downcall_type = 0;
  WSPPROC_TABLE* const table = GetDowncallTable(protocol, &downcall_type);
  if (table == nullptr || table->lpWSPSocket == nullptr) {
    LSP_LOG(5, "WSPSocket: create socket failed! can't find downcall table.");
    FailWithoutProvider(lpErrno);
    return INVALID_SOCKET;
  }
  const SOCKET result = table->lpWSPSocket(af, type, protocol, lpProtocolInfo, g, dwFlags, lpErrno);
  const u32 token = GetRelayMgr().NextToken();
  Record(result, type, protocol, token, table);
  LSP_LOG(4,
          "WSPSocket: err=%d, af=%d,type=%s, overlapped=%s, protocol=%d, lppro_info=0x%08x, "
          "group=%d, flag=%d, downcall_type=%d, socket=%Id, token=%u",
          ErrorOf(lpErrno), af, common::SocketTypeName(type).c_str(),
          (dwFlags & WSA_FLAG_OVERLAPPED) != 0 ? "true" : "false", protocol,
          PointerBits(lpProtocolInfo), static_cast<int>(g), static_cast<int>(dwFlags),
          downcall_type, result, token);
  return result;
}

SOCKET WSPAPI WSPAccept(SOCKET s, struct sockaddr* addr, LPINT addrlen,
                        LPCONDITIONPROC lpfnCondition, DWORD_PTR dwCallbackData,
                        LPINT lpErrno) noexcept {
  WSPPROC_TABLE* const table = GetDowncallTable(kProtocolTcp, nullptr);
  if (table == nullptr || table->lpWSPAccept == nullptr) {
    LSP_LOG(5, "WSPAccept: create socket failed! can't find downcall table.");
    FailWithoutProvider(lpErrno);
    return INVALID_SOCKET;
  }
  const SOCKET result =
      table->lpWSPAccept(s, addr, addrlen, lpfnCondition, dwCallbackData, lpErrno);
  if (result == INVALID_SOCKET) {
    LSP_LOG(0, "WSPAccept: err=%d, accept_socket=%Id, listen socket=%Id", ErrorOf(lpErrno), result,
            s);
    return INVALID_SOCKET;
  }
  const u32 token = GetRelayMgr().NextToken();
  // Kept: what any kind of listener has accepted counts as a TCP stream.
  Record(result, kSocketTypeStream, kProtocolTcp, token, table);
  LSP_LOG(4, "WSPAccept: err=%d, accept_socket=%Id, listen socket=%Id, token=%u", ErrorOf(lpErrno),
          result, s, token);
  return result;
}

int WSPAPI WSPBind(SOCKET s, const struct sockaddr* name, int namelen, LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPBind>(record);
  if (name == nullptr || next == nullptr) {
    // Kept: the text says WSPConnect, and the thread's last error is left alone.
    LSP_LOG(5, "WSPConnect: next_proc_table invalid, socket=%Id", s);
    StoreError(lpErrno, WSAENETDOWN);
    return SOCKET_ERROR;
  }
  const int result = next->lpWSPBind(s, name, namelen, lpErrno);
  LSP_LOG(4, "WSPBind: ret=%d, err=%d, port=%d, socket=%Id, token=%u", result, ErrorOf(lpErrno),
          DescribeAddress(name, namelen).port, s, record.token);
  return result;
}

int WSPAPI WSPConnect(SOCKET s, const struct sockaddr* name, int namelen, LPWSABUF lpCallerData,
                      LPWSABUF lpCalleeData, LPQOS lpSQOS, LPQOS lpGQOS, LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPConnect>(record);
  if (name == nullptr || next == nullptr) {
    // Kept: the thread's last error is left alone here.
    LSP_LOG(5, "WSPConnect: next_proc_table invalid, socket=%Id", s);
    StoreError(lpErrno, WSAENETDOWN);
    return SOCKET_ERROR;
  }
  ConnectTarget target{name, namelen, true};
  RelayName udp_relay;
  if (IsAllowedRelay(record)) {
    LSP_LOG(4, "WSPConnect:protocol=%d, type=%d, socket=%Id, token=%u", record.protocol,
            record.type, s, record.token);
    if (IsRawPing(record)) {
      GetIcmpVM().AddRawSocket(s, ReadAddress(name, namelen).sin_addr.s_addr);
    } else if (record.type == kSocketTypeStream) {
      RedirectStream(record, &target);
    } else if (record.type == kSocketTypeDatagram) {
      LeavePeer(record);
      RedirectDatagrams(record, &target, &udp_relay);
    }
  }
  const int result = MayConnectNow(record, target, lpErrno)
                         ? next->lpWSPConnect(s, target.name, target.name_size, lpCallerData,
                                              lpCalleeData, lpSQOS, lpGQOS, lpErrno)
                         : SOCKET_ERROR;
  if (result == SOCKET_ERROR && ErrorOf(lpErrno) != WSAEWOULDBLOCK) ForgetRedirect(record, &target);
  if (result == 0) NotePeer(record, name, namelen, target.udp_connect);
  // Successes count in the filter as well, so a socket that connects over and over stops being
  // logged.
  if (GetSocketErrorFilter().ShouldLog(kOperationConnect, ErrorOf(lpErrno), record.token)) {
    LSP_LOG(5,
            "WSPConnect: ret=%d, err=%d, dest=%s:%d, local port=%d, udp_connect_mode=%s, "
            "socket=%Id, token=%u",
            result, ErrorOf(lpErrno), DescribeAddress(name, namelen).ip.c_str(),
            DescribeAddress(name, namelen).port, ntohs(target.local_port),
            target.udp_connect ? "true" : "false", s, record.token);
  }
  return result;
}

int WSPAPI WSPGetPeerName(SOCKET s, struct sockaddr* name, LPINT namelen, LPINT lpErrno) noexcept {
  common::FunctionTrace trace("moru_vyr::lsp::WSPGetPeerName");
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPGetPeerName>(record);
  if (name == nullptr || next == nullptr) {
    LSP_LOG(5, "WSPGetPeerName: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  if (record.handled) {
    // Kept: the caller's buffer counts as long enough, and its error is not touched.
    std::memcpy(name, &record.handled_addr, static_cast<size_t>(record.handled_addr_len));
    if (namelen != nullptr) *namelen = record.handled_addr_len;
    LSP_LOG(4, "WSPGetPeerName: retrive from handled info, peer=%s:%d, socket=%Id, token=%u",
            DescribeAddress(name, record.handled_addr_len).ip.c_str(),
            DescribeAddress(name, record.handled_addr_len).port, s, record.token);
    return 0;
  }
  const SizedPlace peer(namelen);
  const int result = next->lpWSPGetPeerName(s, name, namelen, lpErrno);
  LSP_LOG(4, "WSPGetPeerName: ret=%d, err=%d, peer=%s:%d, socket=%Id, token=%u", result,
          ErrorOf(lpErrno), DescribeAddress(name, peer.Size()).ip.c_str(),
          DescribeAddress(name, peer.Size()).port, s, record.token);
  return result;
}

int WSPAPI WSPCloseSocket(SOCKET s, LPINT lpErrno) noexcept {
  const SocketRecord record = GetSocketMap().Get(s);
  const WSPPROC_TABLE* const next = NextWith<&WSPPROC_TABLE::lpWSPCloseSocket>(record);
  if (next == nullptr) {
    LSP_LOG(5, "WSPCloseSocket: next_proc_table invalid, socket=%Id", s);
    return FailWithoutProvider(lpErrno);
  }
  // A stream's relay is not told: it sees the close on its own socket. Kept: it is asked for
  // streams as well, and the first call of any kind starts the relay.
  const bool relay_told = IsAllowedRelay(record) && EndRelay(record);
  const u32 told_token = relay_told ? record.token : SocketMap::kAnyToken;
  CancelPostponed(record);
  // Removes the record first: once the socket is closed below, another thread's new socket may get
  // the same value at once, and its record must not be erased here.
  GetSocketErrorFilter().Forget(record.token);
  ForgetReceives(record);
  Forget(s, told_token);
  const int result = next->lpWSPCloseSocket(s, lpErrno);
  LSP_LOG(4, "WSPCloseSocket: ret=%d, err=%d, protocol=%d, type=%d, socket=%Id, token=%u", result,
          ErrorOf(lpErrno), record.protocol, record.type, s, record.token);
  return result;
}

}  // namespace moru_vyr::lsp
