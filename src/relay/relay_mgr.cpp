#include "relay/relay_mgr.h"

namespace moru_vyr::lsp {

u32 RelayMgr::NextToken() noexcept {
  common::Lock hold(token_lock_);
  return ++last_token_;
}

RelayMgr& GetRelayMgr() {
  static RelayMgr& relay = *new RelayMgr;
  return relay;
}

}  // namespace moru_vyr::lsp
