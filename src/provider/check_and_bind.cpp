#include "provider/check_and_bind.h"

#include <ws2spi.h>

#include "common/log.h"
#include "provider/socket_map.h"
#include "relay/socket_helpers.h"

namespace moru_vyr::lsp {
namespace {

// From the next provider, or by binding. 0 where there is none to be had.
u16 FindPort(SOCKET s) noexcept {
  const WSPPROC_TABLE* const next = GetSocketMap().GetNextProcTable(s, nullptr, nullptr);
  if (next == nullptr || next->lpWSPGetSockName == nullptr) return 0;
  sockaddr_in address = {};
  INT size = sizeof address;
  INT error = 0;
  if (next->lpWSPGetSockName(s, reinterpret_cast<sockaddr*>(&address), &size, &error) !=
      SOCKET_ERROR) {
    return address.sin_port;
  }
  if (error == WSAEINVAL) {  // not bound
    u16 port = 0;
    return BindRandomPort(s, true, &port, true) ? port : u16{0};
  }
  LSP_LOG(5, "[LSP] CheckAndBind failed, error = %u, socket=%Id", static_cast<u32>(error), s);
  return 0;
}

}  // namespace

bool CheckAndBind(SOCKET s, u16* port) noexcept {
  u16 known = 0;
  if (GetSocketMap().GetLocalPort(s, &known)) {
    if (known != 0) {
      LSP_LOG(0, "CheckAndBind, retrieve port=%d for socket=%Id", ntohs(known), s);
    } else {
      known = FindPort(s);
      if (known != 0) GetSocketMap().SetLocalPort(s, known);
    }
  }
  if (known == 0) {
    LSP_LOG(4, "CheckAndBind return false, socket=%Id", s);
    return false;
  }
  if (port != nullptr) *port = known;
  return true;
}

}  // namespace moru_vyr::lsp
