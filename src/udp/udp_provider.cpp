#include "udp/udp_provider.h"

namespace moru_vyr::lsp {

bool UdpProvider::GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept {
  if (out == nullptr) return false;
  common::Lock hold(result_lock_);
  const auto found = create_results_.find(token);
  if (found == create_results_.end()) return false;
  *out = found->second;
  create_results_.erase(found);
  return true;
}

}  // namespace moru_vyr::lsp
