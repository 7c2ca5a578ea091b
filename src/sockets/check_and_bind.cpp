#include "sockets/check_and_bind.h"

#include <ws2spi.h>

#include "common/log.h"
#include "sockets/socket_helpers.h"
#include "sockets/socket_map.h"

namespace moru_vyr::lsp {
namespace {

// From the next provider, or by binding.
bool FindPort(SOCKET s, u16* port) noexcept {
  const WSPPROC_TABLE* const next = GetSocketMap().GetNextProcTable(s, nullptr, nullptr);
  if (next == nullptr || next->lpWSPGetSockName == nullptr) return false;
  sockaddr_in address = {};
  INT size = sizeof address;
  INT error = 0;
  if (next->lpWSPGetSockName(s, reinterpret_cast<sockaddr*>(&address), &size, &error) !=
      SOCKET_ERROR) {
    *port = address.sin_port;  // the provider's word counts, even if it is 0
    return true;
  }
  if (error == WSAEINVAL) return BindRandomPort(s, true, port, true);  // not bound
  LSP_LOG(5, "[LSP] CheckAndBind failed, error = %u, socket=%Id", static_cast<u32>(error), s);
  return false;
}

}  // namespace

bool CheckAndBind(SOCKET s, u16* port) noexcept {
  u16 known = 0;
  const bool has_record = GetSocketMap().GetLocalPort(s, &known);
  if (known != 0) {
    LSP_LOG(0, "CheckAndBind, retrieve port=%d for socket=%Id", ntohs(known), s);
  } else if (has_record && FindPort(s, &known)) {
    GetSocketMap().SetLocalPort(s, known);
  } else {
    LSP_LOG(4, "CheckAndBind return false, socket=%Id", s);
    return false;
  }
  if (port != nullptr) *port = known;
  return true;
}

}  // namespace moru_vyr::lsp
