// Where a connect really goes: to the address that the application named, or to the relay.
#pragma once
#include <winsock2.h>

#include <memory>

#include "common/types.h"
#include "sockets/socket_map.h"
#include "stream/postponed_connect.h"

namespace moru_vyr::lsp {

struct ConnectTarget {
  const sockaddr* name;  // outlives the call
  int name_size;
  bool may_wait = false;     // the connect may be postponed
  u16 local_port = 0;        // network order; known only if the socket was bound for a redirect
  bool requested = false;    // the relay waits for this connect, and did not before
  bool udp_connect = false;  // a datagram socket that is connected to the relay
  int answer = 0;            // the error of a connect that is not carried out
  std::shared_ptr<PostponedConnect> postponed{};  // null: the connect is carried out at once
};

// Redirects a stream socket that may be relayed: replaces the target that the application named by
// the relay's listener, if the route policy wants the destination relayed and the relay accepts it.
// Otherwise the target stays. Kept: the socket may have been bound to the loopback interface by
// then.
void RedirectStream(const SocketRecord& record, ConnectTarget* target) noexcept;

// After a connect that has failed.
void ForgetRedirect(const SocketRecord& record, ConnectTarget* target) noexcept;

}  // namespace moru_vyr::lsp
