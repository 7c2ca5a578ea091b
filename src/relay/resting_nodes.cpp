#include "relay/resting_nodes.h"

#include <algorithm>
#include <iterator>

namespace moru_vyr::lsp {

void RestingNodes::Add(const sockaddr_in& node, i32 socket_type, u32 now_ms, u32 rest_ms) noexcept {
  Entry* const known = Find(node, socket_type);
  Entry* const place = known != nullptr ? known : FindPlace(now_ms);
  *place = {static_cast<u32>(node.sin_addr.s_addr), node.sin_port, socket_type, now_ms, rest_ms};
}

void RestingNodes::Remove(const sockaddr_in& node, i32 socket_type) noexcept {
  if (Entry* const entry = Find(node, socket_type)) *entry = {};
}

bool RestingNodes::Has(const sockaddr_in& node, i32 socket_type, u32 now_ms) noexcept {
  Entry* const entry = Find(node, socket_type);
  if (entry == nullptr) return false;
  if (now_ms - entry->since_ms < entry->rest_ms) return true;
  *entry = {};  // before the counter comes round to it again
  return false;
}

RestingNodes::Entry* RestingNodes::Find(const sockaddr_in& node, i32 socket_type) noexcept {
  const u32 ip = static_cast<u32>(node.sin_addr.s_addr);
  Entry* const found = std::find_if(std::begin(entries_), std::end(entries_), [&](const Entry& e) {
    return e.ip == ip && e.port == node.sin_port && e.socket_type == socket_type;
  });
  return found != std::end(entries_) ? found : nullptr;
}

// A free one, or that of the node that failed longest ago.
RestingNodes::Entry* RestingNodes::FindPlace(u32 now_ms) noexcept {
  return std::max_element(std::begin(entries_), std::end(entries_),
                          [now_ms](const Entry& a, const Entry& b) {
                            if (a.socket_type == 0 || b.socket_type == 0) {
                              return a.socket_type != 0 && b.socket_type == 0;
                            }
                            return now_ms - a.since_ms < now_ms - b.since_ms;
                          });
}

}  // namespace moru_vyr::lsp
