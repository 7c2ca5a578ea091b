// Where a connect really goes: to the place that the application named, or to the relay.
#pragma once
#include <winsock2.h>

#include "common/types.h"
#include "provider/socket_map.h"

namespace moru_vyr::lsp {

struct ConnectTarget {
  const sockaddr* name;
  int name_size;
  u16 local_port = 0;        // network order; known only where the socket was bound for a redirect
  bool udp_connect = false;  // a datagram socket that is connected to the relay
};

// Decides for WSPConnect and WSPConnectEx alike. `name` is not null and outlives the target.
ConnectTarget ChooseConnectTarget(const SocketRecord& record, const sockaddr* name,
                                  int name_size) noexcept;

}  // namespace moru_vyr::lsp
