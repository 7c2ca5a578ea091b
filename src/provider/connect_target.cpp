#include "provider/connect_target.h"

#include "provider/relay_admission.h"

namespace moru_vyr::lsp {

ConnectTarget ChooseConnectTarget(const SocketRecord& record, const sockaddr* name,
                                  int name_size) noexcept {
  const ConnectTarget direct{name, name_size};
  if (!IsAllowedRelay(record)) return direct;
  // The redirects of stream, datagram and raw sockets come here with the relay.
  return direct;
}

}  // namespace moru_vyr::lsp
