#include "sockets/socket_map.h"

#include <algorithm>
#include <cstring>

namespace moru_vyr::lsp {

template <class Change>
bool SocketMap::Update(SOCKET socket, Change&& change, u32 token) noexcept {
  common::Lock hold(lock_);
  const auto found = records_.find(socket);
  if (found == records_.end()) return false;
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
  common::Lock hold(lock_);
  try {
    // Kept: a record that was never removed, because its socket was closed behind our back,
    // stays with its token when the handle value comes back.
    records_.try_emplace(socket, record);
    return true;
  } catch (...) {
    return false;
  }
}

bool SocketMap::Remove(SOCKET socket, SocketRecord* last) noexcept {
  if (socket == INVALID_SOCKET) return false;
  common::Lock hold(lock_);
  const auto found = records_.find(socket);
  if (found == records_.end()) return false;
  if (last != nullptr) *last = found->second;
  records_.erase(found);
  return true;
}

bool SocketMap::Get(SOCKET socket, SocketRecord* out) const noexcept {
  common::Lock hold(lock_);
  const auto found = records_.find(socket);
  if (found == records_.end()) return false;
  *out = found->second;
  return true;
}

bool SocketMap::HasToken(u32 token) const noexcept {
  common::Lock hold(lock_);
  return std::any_of(records_.begin(), records_.end(),
                     [=](const auto& entry) { return entry.second.token == token; });
}

bool SocketMap::SetNextProcTable(SOCKET socket, WSPPROC_TABLE* table) noexcept {
  if (socket == INVALID_SOCKET || table == nullptr) return false;
  return Update(socket, [&](SocketRecord& record) { record.next_proc_table = table; });
}

WSPPROC_TABLE* SocketMap::GetNextProcTable(SOCKET socket, int* type, int* protocol) const noexcept {
  common::Lock hold(lock_);
  const auto found = records_.find(socket);
  if (found == records_.end()) return nullptr;
  if (type != nullptr) *type = found->second.type;
  if (protocol != nullptr) *protocol = found->second.protocol;
  return found->second.next_proc_table;
}

bool SocketMap::GetLocalPort(SOCKET socket, u16* port) const noexcept {
  common::Lock hold(lock_);
  const auto found = records_.find(socket);
  if (found == records_.end()) return false;
  *port = found->second.local_port;
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
  common::Lock hold(lock_);
  const auto found = std::find_if(records_.upper_bound(after), records_.end(),
                                  [](const auto& entry) { return entry.second.of_worker; });
  return found != records_.end() ? found->first : INVALID_SOCKET;
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
