#include "hooks/connected_datagram.h"

#include "common/log.h"
#include "hooks/hook_common.h"
#include "route/mending.h"

namespace moru_vyr::lsp {

bool ConnectsDatagrams() noexcept { return GetMending().ConnectsDatagrams(); }

void LeavePeer(const SocketRecord& record) noexcept {
  const WSPPROC_TABLE* const next = record.next_proc_table;
  if (!ConnectsDatagrams() || next->lpWSPGetPeerName == nullptr) return;
  sockaddr_in peer = {};
  INT size = sizeof peer;
  INT error = 0;
  if (next->lpWSPGetPeerName(record.socket, reinterpret_cast<sockaddr*>(&peer), &size, &error)) {
    return;  // not connected
  }
  const sockaddr_in unspecified = {};
  next->lpWSPConnect(record.socket, reinterpret_cast<const sockaddr*>(&unspecified),
                     sizeof unspecified, nullptr, nullptr, nullptr, nullptr, &error);
}

void NotePeer(const SocketRecord& record, const sockaddr* peer, int peer_size,
              bool relayed) noexcept {
  if (record.type != kSocketTypeDatagram || !ConnectsDatagrams()) return;
  if (!relayed) {
    GetSocketMap().ForgetHandledAddr(record.socket);
    return;
  }
  const sockaddr_in asked = ReadAddress(peer, peer_size);
  GetSocketMap().SetHandledAddr(record.socket, reinterpret_cast<const sockaddr*>(&asked),
                                sizeof asked);
}

void ConnectDirectly(const SocketRecord& record) noexcept {
  LeavePeer(record);
  const WSPPROC_TABLE* const next = record.next_proc_table;
  if (next->lpWSPConnect == nullptr) return;
  INT error = 0;
  const int result =
      next->lpWSPConnect(record.socket, reinterpret_cast<const sockaddr*>(&record.handled_addr),
                         sizeof record.handled_addr, nullptr, nullptr, nullptr, nullptr, &error);
  GetSocketMap().ForgetHandledAddr(record.socket);
  LSP_LOG(5, "[UDP] ConnectDirectly: ret=%d, err=%d, socket=%Id, token=%u", result, error,
          record.socket, record.token);
}

}  // namespace moru_vyr::lsp
