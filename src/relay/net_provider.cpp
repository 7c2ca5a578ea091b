#include "relay/net_provider.h"

namespace moru_vyr::lsp {

void NetProvider::Start() noexcept { running_ = OnCreateLocalServer(); }

void NetProvider::Shutdown() noexcept {
  OnCloseLocalServer();
  running_ = false;
}

bool NetProvider::Init(IRelaySocketMgr* mgr, Route* route) noexcept {
  socket_mgr_ = mgr;
  route_ = route;
  Start();
  return running_;
}

void NetProvider::GetLocalAddr(sockaddr_in* out) const noexcept {
  if (out == nullptr) return;
  *out = {};
  out->sin_family = AF_INET;
  out->sin_port = local_port_.load(std::memory_order_relaxed);
  out->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
}

}  // namespace moru_vyr::lsp
