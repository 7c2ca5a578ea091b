#include "hooks/udp_relay.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <memory>

#include "common/log.h"
#include "common/net_text.h"
#include "engine/relay_mgr.h"
#include "hooks/relay_admission.h"
#include "hooks/started_protocols.h"
#include "hooks/udp_relay_request.h"
#include "route/route.h"
#include "udp/udp_package_queue.h"

namespace moru_vyr::lsp {
namespace {

bool NeedsRelay(const SocketRecord& record, const sockaddr_in* to) noexcept {
  return GetRoute()->NeedRelay(to, record.type, record.socket, record.token);
}

// A queue of that socket's session; null once the session is gone, which counts as no entry.
std::shared_ptr<UdpPackageQueue> Use(const SocketRecord& record,
                                     const UdpPackageQueue* queue) noexcept {
  return queue != nullptr ? GetRelayMgr().UseQueue(queue, record.token) : nullptr;
}

// The ports of that socket's session, where those take the place of the queues.
std::shared_ptr<PeerPorts> UsePorts(const SocketRecord& record) noexcept {
  return record.send_queue == nullptr ? GetRelayMgr().UsePeerPorts(record.token) : nullptr;
}

// A socket that outlives a cleanup of Winsock has no session with the next worker.
bool HasLostSession(const SocketRecord& record) noexcept {
  return ServesAgain() && UsePorts(record) == nullptr && Use(record, record.send_queue) == nullptr;
}

// The relay's port for that address; false if the game is to reach it directly. Where there is none
// yet, the socket asks for one, as it asked for its relay.
bool FindPeerPort(const SocketRecord& record, PeerPorts* ports, const sockaddr_in& peer,
                  LPWSATHREADID thread_id, sockaddr_in* out_addr) noexcept {
  u16 port = 0;
  if (!ports->FindPort(peer, &port) && !ports->IsFull()) {
    sockaddr_in answered = {};  // perhaps to another thread's question, so the table counts
    RequestUdpRelay(record, &peer, thread_id, &answered, nullptr, nullptr);
    // Direct from here on: a server that hears from one socket by two routes takes it for two
    // clients.
    ports->Add(peer, 0);
    ports->FindPort(peer, &port);
  }
  *out_addr = {};
  out_addr->sin_family = AF_INET;
  out_addr->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  out_addr->sin_port = port;
  return port != 0;
}

// Asks for the socket's relay and stores the outcome with the socket. Two threads may both do so
// for one socket: the relay answers one of them, and the other's failure may be stored last. A
// socket that was closed meanwhile could not know that it may have a session by now.
bool AskForRelay(const SocketRecord& record, const sockaddr_in* to, sockaddr_in* out_addr,
                 UdpPackageQueue** send_queue, LPWSATHREADID thread_id, bool in_connect) noexcept {
  UdpPackageQueue* recv_queue = nullptr;
  bool relayed = RequestUdpRelay(record, to, thread_id, out_addr, send_queue, &recv_queue);
  // Two threads may have asked, for different destinations, and taken each other's answer.
  if (const auto ports = to != nullptr ? GetRelayMgr().UsePeerPorts(record.token) : nullptr) {
    *send_queue = recv_queue = nullptr;
    relayed = FindPeerPort(record, ports.get(), *to, thread_id, out_addr);
    if (!relayed) return false;  // this address only
  }
  const bool kept = relayed
                        ? GetSocketMap().SetRelayAddr(record.socket, out_addr, *send_queue,
                                                      recv_queue, record.token)
                        : GetSocketMap().SetRelayState(record.socket, kRelayRefused, record.token);
  if (!kept) GetRelayMgr().NoteUntoldEnd(record.token);
  if (relayed && !kept) {
    LSP_LOG(5,
            in_connect ? "[UDP] HandleUdpConnect:SetRelayAddr failed, socket=%Id, token=%u"
                       : "[UDP] WSPSendTo: SetRelayAddr failed, socket=%Id, token=%u",
            record.socket, record.token);
  }
  return relayed && kept;
}

}  // namespace

bool IsAllowUdpRelayed(const SocketRecord& record, const sockaddr_in* to) noexcept {
  if (!IsAllowedRelay(record)) return false;
  if (to == nullptr) return record.relay_state == kRelayRunning;
  bool result = true;
  bool has_free = false;
  const u32 ip = static_cast<u32>(to->sin_addr.s_addr);
  const unsigned port = ntohs(to->sin_port);
  if (SocketMap::FindRelayRecord(record, to, &result, &has_free)) {
    LSP_LOG(0, "[UDP] IsAllowUdpRelayed GetRelayRecord, addr=%s:%u, relay=%s, socket=%Id, token=%u",
            common::IpToString(ip).c_str(), port, result ? "true" : "false", record.socket,
            record.token);
  } else if (has_free) {
    result = NeedsRelay(record, to);
    GetSocketMap().SaveRelayRecord(record.socket, to, result);
    LSP_LOG(4, "IsAllowUdpRelayed SaveRelayRecord, addr=%s:%u, relay=%s, socket=%Id, token=%u",
            common::IpToString(ip).c_str(), port, result ? "true" : "false", record.socket,
            record.token);
  } else {
    LSP_LOG(0, "IsAllowUdpRelayed, Out of space, addr=%s:%u, socket=%Id, token=%u",
            common::IpToString(ip).c_str(), port, record.socket, record.token);
  }
  return result;
}

bool PrepareUdpRelaySend(const SocketRecord& record, LPWSABUF buffers, DWORD count,
                         const sockaddr_in* to, sockaddr_in* out_addr, LPWSATHREADID thread_id,
                         u64* entry) noexcept {
  if (out_addr == nullptr || !GetRelayMgr().StillServes(RelayMgr::kDatagramTrustMs)) return false;
  const sockaddr_in* dest = to;
  UdpPackageQueue* queue = nullptr;
  switch (record.relay_state) {
    case kRelayNotAsked:
      if (!AskForRelay(record, to, out_addr, &queue, thread_id, false)) return false;
      break;
    case kRelayRunning:
      if (HasLostSession(record)) return false;
      if (const auto ports = UsePorts(record)) {
        return dest == nullptr || FindPeerPort(record, ports.get(), *dest, thread_id, out_addr);
      }
      queue = record.send_queue;
      *out_addr = record.relay_addr;
      if (dest == nullptr && record.udp_connect_mode) dest = &record.handled_addr;
      break;
    default:
      return false;
  }
  // Queued before it is sent, so that the worker finds the entry even if the datagram arrives at
  // once. Kept: a datagram that cannot be queued goes to the relay all the same, and is lost there.
  if (const auto live = Use(record, queue)) {
    live->Push(buffers, static_cast<u32>(count), dest, entry);
  }
  return true;
}

bool PrepareConnectedUdpSend(const SocketRecord& record, LPWSABUF buffers, DWORD count,
                             LPWSATHREADID thread_id, u64* entry) noexcept {
  if (!record.udp_connect_mode || UsePorts(record) != nullptr) return false;
  sockaddr_in scratch = {};
  return PrepareUdpRelaySend(record, buffers, count, &record.handled_addr, &scratch, thread_id,
                             entry);
}

void CancelUdpSend(SOCKET s, LPWSABUF buffers, DWORD count, bool pending, u64 entry) noexcept {
  if (buffers == nullptr && !pending) return;
  const SocketRecord record = GetSocketMap().Get(s);
  const auto queue = Use(record, record.send_queue);
  if (queue == nullptr) return;
  if (pending) {
    queue->Remove(entry);
    return;
  }
  u64 total = 0;
  for (DWORD i = 0; i < count; ++i) total += buffers[i].len;
  sockaddr_in scratch = {};
  queue->FindAddrThenRemove(buffers, static_cast<u32>(count),
                            static_cast<u32>(std::min<u64>(total, UINT32_MAX)), &scratch);
}

bool RestoreUdpSource(const SocketRecord& record, LPWSABUF buffers, DWORD count, sockaddr_in* from,
                      const DWORD* received) noexcept {
  if (from == nullptr) return false;
  // The record may be older than the relay: this thread may have waited in the call since then.
  if (from->sin_addr.s_addr == htonl(INADDR_LOOPBACK)) {
    if (const auto ports = UsePorts(record)) return ports->FindPeer(from->sin_port, from);
  }
  if (record.relay_state != kRelayRunning || received == nullptr) return false;
  if (from->sin_addr.s_addr != record.relay_addr.sin_addr.s_addr ||
      from->sin_port != record.relay_addr.sin_port) {
    return false;  // it did not come through the relay
  }
  const auto queue = Use(record, record.recv_queue);
  if (queue == nullptr) return false;
  return queue->FindAddrThenRemove(buffers, static_cast<u32>(count), static_cast<u32>(*received),
                                   from);
}

bool RestoreConnectedUdpSource(const SocketRecord& record, LPWSABUF buffers, DWORD count,
                               const DWORD* received) noexcept {
  if (!record.udp_connect_mode) return false;
  sockaddr_in source = {};  // never the relay's address, so the search ends there
  return RestoreUdpSource(record, buffers, count, &source, received);
}

bool HandleUdpConnect(const SocketRecord& record, const sockaddr_in* addr,
                      sockaddr_in* out_addr) noexcept {
  if (out_addr == nullptr || !NeedsRelay(record, addr)) return false;
  // An exact check, as for a stream: what is connected to the relay reaches nothing else.
  if (!GetRelayMgr().StillServes(0)) return false;
  WSATHREADID thread{GetCurrentThread(), 0};
  if (record.relay_state == kRelayRunning) {
    if (const auto ports = UsePorts(record)) {
      return FindPeerPort(record, ports.get(), *addr, &thread, out_addr);
    }
    // Kept: a socket whose relay was started by a datagram does not come into connect mode.
    *out_addr = record.relay_addr;
    return true;
  }
  if (record.relay_state != kRelayNotAsked) return false;
  UdpPackageQueue* send_queue = nullptr;
  if (!AskForRelay(record, addr, out_addr, &send_queue, &thread, true)) return false;
  GetSocketMap().SetUdpConnectMode(record.socket, true, record.token);
  return true;
}

}  // namespace moru_vyr::lsp
