#include "sockets/socket_map.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace moru_vyr::lsp {

template <class Change>
bool SocketMap::Update(SOCKET socket, Change&& change, u32 token) noexcept {
  Part& part = parts_[PartOf(socket)];
  common::Lock hold(part.lock);
  const auto found = part.records.find(socket);
  if (found == part.records.end()) return false;
  if (token != kAnyToken && found->second.token != token) return false;
  change(found->second);
  return true;
}

bool SocketMap::Add(SOCKET socket, int type, int protocol, u32 token) noexcept {
  if (socket == INVALID_SOCKET) return false;
  SocketRecord record;
  record.socket = socket;
  record.type = type;
  record.protocol = protocol;
  record.token = token;
  Part& part = parts_[PartOf(socket)];
  common::Lock hold(part.lock);
  try {
    // Kept: a record that was never removed, because its socket was closed behind our back,
    // stays with its token when the handle value comes back.
    part.records.try_emplace(socket, record);
    return true;
  } catch (...) {
    return false;
  }
}

bool SocketMap::Remove(SOCKET socket, SocketRecord* last) noexcept {
  if (socket == INVALID_SOCKET) return false;
  Part& part = parts_[PartOf(socket)];
  common::Lock hold(part.lock);
  const auto found = part.records.find(socket);
  if (found == part.records.end()) return false;
  if (last != nullptr) *last = found->second;
  part.records.erase(found);
  return true;
}

SocketRecord SocketMap::Get(SOCKET socket) const noexcept {
  const Part& part = parts_[PartOf(socket)];
  common::Lock hold(part.lock);
  const auto found = part.records.find(socket);
  if (found == part.records.end()) return {};
  return found->second;  // copied once, into the caller's variable
}

bool SocketMap::HasToken(u32 token) const noexcept {
  const auto has_token = [=](const auto& entry) { return entry.second.token == token; };
  return std::any_of(std::begin(parts_), std::end(parts_), [&](const Part& part) {
    common::Lock hold(part.lock);
    return std::any_of(part.records.begin(), part.records.end(), has_token);
  });
}

bool SocketMap::SetNextProcTable(SOCKET socket, WSPPROC_TABLE* table) noexcept {
  if (socket == INVALID_SOCKET || table == nullptr) return false;
  return Update(socket, [&](SocketRecord& record) { record.next_proc_table = table; });
}

WSPPROC_TABLE* SocketMap::GetNextProcTable(SOCKET socket, int* type, int* protocol) const noexcept {
  const SocketRecord record = Get(socket);
  if (record.socket == INVALID_SOCKET) return nullptr;
  if (type != nullptr) *type = record.type;
  if (protocol != nullptr) *protocol = record.protocol;
  return record.next_proc_table;
}

bool SocketMap::GetLocalPort(SOCKET socket, u16* port) const noexcept {
  const SocketRecord record = Get(socket);
  if (record.socket == INVALID_SOCKET) return false;
  *port = record.local_port;
  return true;
}

bool SocketMap::SetLocalPort(SOCKET socket, u16 port) noexcept {
  return Update(socket, [&](SocketRecord& record) { record.local_port = port; });
}

bool SocketMap::SetRelayAddr(SOCKET socket, const sockaddr_in* addr, UdpPackageQueue* send_queue,
                             UdpPackageQueue* recv_queue, u32 token) noexcept {
  return Update(
      socket,
      [&](SocketRecord& record) {
        if (addr != nullptr) record.relay_addr = *addr;
        record.send_queue = send_queue;
        record.recv_queue = recv_queue;
        record.relay_state = kRelayRunning;
      },
      token);
}

bool SocketMap::SetRelayState(SOCKET socket, i32 state, u32 token) noexcept {
  return Update(
      socket, [&](SocketRecord& record) { record.relay_state = state; }, token);
}

bool SocketMap::SetUdpConnectMode(SOCKET socket, bool flag, u32 token) noexcept {
  return Update(
      socket, [&](SocketRecord& record) { record.udp_connect_mode = flag; }, token);
}

bool SocketMap::SetHandledAddr(SOCKET socket, const sockaddr* addr, int len) noexcept {
  const int bounded = std::clamp(len, 0, static_cast<int>(sizeof(sockaddr_in)));
  return Update(socket, [&](SocketRecord& record) {
    if (addr != nullptr) {
      std::memcpy(&record.handled_addr, addr, static_cast<size_t>(bounded));
    }
    record.handled_addr_len = bounded;
    record.handled = true;
  });
}

bool SocketMap::ForgetHandledAddr(SOCKET socket) noexcept {
  return Update(socket, [](SocketRecord& record) { record.handled = false; });
}

bool SocketMap::SaveRelayRecord(SOCKET socket, const sockaddr_in* addr, bool relay) noexcept {
  return Update(socket, [&](SocketRecord& record) {
    if (addr == nullptr) return;
    for (RelayRecord& entry : record.relay_records) {
      if (entry.ip != 0) continue;
      entry.ip = addr->sin_addr.s_addr;
      entry.relay = relay;
      return;
    }
  });
}

bool SocketMap::SetRelayDisabled(SOCKET socket, bool flag) noexcept {
  return Update(socket, [&](SocketRecord& record) { record.relay_disabled = flag; });
}

bool SocketMap::SetOfWorker(SOCKET socket, bool flag) noexcept {
  return Update(socket, [&](SocketRecord& record) { record.of_worker = flag; });
}

bool SocketMap::SetNonBlocking(SOCKET socket, bool flag) noexcept {
  return Update(socket, [&](SocketRecord& record) { record.non_blocking = flag; });
}

bool SocketMap::SetConnectStage(SOCKET socket, ConnectStage stage, u32 token) noexcept {
  return Update(
      socket, [&](SocketRecord& record) { record.connect_stage = stage; }, token);
}

SOCKET SocketMap::NextOfWorker(SOCKET after) const noexcept {
  SOCKET next = INVALID_SOCKET;  // above all others
  for (const Part& part : parts_) {
    common::Lock hold(part.lock);
    const auto found = std::find_if(part.records.upper_bound(after), part.records.end(),
                                    [](const auto& entry) { return entry.second.of_worker; });
    if (found != part.records.end()) next = std::min(next, found->first);
  }
  return next;
}

bool SocketMap::FindRelayRecord(const SocketRecord& record, const sockaddr_in* addr, bool* relay,
                                bool* has_free) noexcept {
  if (has_free != nullptr) *has_free = false;
  for (const RelayRecord& entry : record.relay_records) {
    // Entries fill from the front and are never cleared: the first free one ends the search.
    if (entry.ip == 0) {
      if (has_free != nullptr) *has_free = true;
      return false;
    }
    if (entry.ip == addr->sin_addr.s_addr) {
      if (relay != nullptr) *relay = entry.relay;
      return true;
    }
  }
  return false;
}

SocketMap& GetSocketMap() {
  static SocketMap& map = *new SocketMap;
  return map;
}

}  // namespace moru_vyr::lsp
