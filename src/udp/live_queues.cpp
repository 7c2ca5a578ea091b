#include "udp/live_queues.h"

namespace moru_vyr::lsp {

void LiveQueues::Add(u32 token, std::shared_ptr<UdpQueues> queues) {
  common::Lock hold(lock_);
  by_token_[token] = std::move(queues);
}

void LiveQueues::Remove(u32 token) noexcept {
  std::shared_ptr<UdpQueues> gone;  // ends outside the lock
  common::Lock hold(lock_);
  const auto found = by_token_.find(token);
  if (found == by_token_.end()) return;
  gone = std::move(found->second);
  by_token_.erase(found);
}

std::shared_ptr<UdpPackageQueue> LiveQueues::Use(const UdpPackageQueue* queue,
                                                 u32 token) const noexcept {
  if (queue == nullptr) return nullptr;
  common::Lock hold(lock_);
  const auto found = by_token_.find(token);
  if (found == by_token_.end()) return nullptr;
  const std::shared_ptr<UdpQueues>& queues = found->second;
  if (queue == &queues->send_queue) return {queues, &queues->send_queue};
  if (queue == &queues->recv_queue) return {queues, &queues->recv_queue};
  return nullptr;
}

std::shared_ptr<PeerPorts> LiveQueues::UsePorts(u32 token) const noexcept {
  common::Lock hold(lock_);
  const auto found = by_token_.find(token);
  if (found == by_token_.end() || !found->second->peer_ports.IsUsed()) return nullptr;
  return {found->second, &found->second->peer_ports};
}

}  // namespace moru_vyr::lsp
