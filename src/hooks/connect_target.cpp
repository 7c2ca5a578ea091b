#include "hooks/connect_target.h"

#include "common/log.h"
#include "engine/relay_mgr.h"
#include "hooks/hook_common.h"
#include "hooks/postponed_target.h"
#include "hooks/relay_admission.h"
#include "sockets/check_and_bind.h"

namespace moru_vyr::lsp {

void RedirectStream(const SocketRecord& record, ConnectTarget* target) noexcept {
  if (target->may_wait && IsConnectUnderWay(record, target)) return;
  const SOCKET s = record.socket;
  const sockaddr_in asked = ReadAddress(target->name, target->name_size);
  if (!IsAllowConnect(kSocketTypeStream, &asked, s, record.token)) return;
  // An exact check, before the socket is bound to the loopback interface: from there it can reach
  // nothing but the relay.
  if (!GetRelayMgr().StillServes(0)) return;
  if (!GetRelayMgr().HasRoomForStream()) {
    LSP_LOG(4, "WSPConnect: the relay has no room, socket=%Id, token=%u", s, record.token);
    return;
  }
  if (!CheckAndBind(s, &target->local_port)) return;
  if (target->may_wait) Postpone(record, target);
  sockaddr* relay_addr = nullptr;
  int relay_len = sizeof(sockaddr_in);
  if (!GetRelayMgr().RequestTcpRelaySession(s, target->local_port, &asked, &relay_addr, &relay_len,
                                            record.token, &target->requested, target->postponed) ||
      relay_addr == nullptr) {
    EndPostponed(record, target);
    LSP_LOG(4, "WSPConnect: RequestTcpRelaySession is false, socket=%Id, token=%u", s,
            record.token);
    return;
  }
  if (!target->requested) EndPostponed(record, target);
  target->name = relay_addr;
  target->name_size = relay_len;
  GetSocketMap().SetHandledAddr(s, reinterpret_cast<const sockaddr*>(&asked), relay_len);
  LSP_LOG(4, "WSPConnect: RequestTcpRelaySession is relayed. relay=%s:%d, socket=%Id, token=%u",
          DescribeAddress(relay_addr, relay_len).ip.c_str(),
          DescribeAddress(relay_addr, relay_len).port, s, record.token);
}

void ForgetRedirect(const SocketRecord& record, ConnectTarget* target) noexcept {
  EndPostponed(record, target);
  if (target->requested) GetRelayMgr().ForgetTcpRelaySession(target->local_port, record.token);
}

}  // namespace moru_vyr::lsp
