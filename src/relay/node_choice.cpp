#include "relay/node_choice.h"

#include <algorithm>
#include <iterator>

#include "common/log.h"
#include "relay/nego_common.h"
#include "relay/resting_nodes.h"

namespace moru_vyr::lsp {
namespace {

constinit RestingNodes resting_nodes;  // of this process, through every start of the relay

bool Rests(i32 socket_type, const RouteProxyInfo& proxy) noexcept {
  return resting_nodes.Has(ProxyAddress(proxy), socket_type, GetTickCount());
}

}  // namespace

const FallbackTimes* FastFallback() noexcept {
  const Mending& mending = GetMending();
  return mending.FallsBackFast() ? &mending.fallback_times() : nullptr;
}

bool SelectAwakeProxy(i32 socket_type, AccDecisionInfo* decision) noexcept {
  if (!Rests(socket_type, decision->selected_proxy)) return true;
  LSP_LOG(4, "[Relay]SelectAwakeProxy, a node that failed is passed over, proxy_idc=%u",
          u32{decision->selected_proxy.proxy_idc});
  return SelectOtherProxy(socket_type, decision);
}

bool SelectOtherProxy(i32 socket_type, AccDecisionInfo* decision) noexcept {
  const u32 current = decision->selected_proxy.proxy_idc;
  const auto found = std::find_if(
      std::begin(decision->top_proxy), std::end(decision->top_proxy), [&](const RouteProxyInfo& p) {
        return p.proxy_idc != 0 && p.proxy_idc != current && !Rests(socket_type, p);
      });
  if (found == std::end(decision->top_proxy)) return false;
  decision->selected_proxy = *found;
  return true;
}

bool SelectAwakeCandidate(const SwitchProxyInfo& candidates, u32 left, u32 last_node,
                          AccDecisionInfo* decision) noexcept {
  RouteProxyInfo& selected = decision->selected_proxy;
  if (!Rests(SOCK_DGRAM, selected)) return true;
  LSP_LOG(4, "[Relay]SelectAwakeCandidate, a node that failed is passed over, proxy_idc=%u",
          u32{selected.proxy_idc});
  if (candidates.last_node != last_node) return false;
  const auto found = std::find_if(
      std::begin(candidates.proxies), std::end(candidates.proxies), [&](const RouteProxyInfo& p) {
        return p.proxy_idc != 0 && p.proxy_idc != left && !Rests(SOCK_DGRAM, p);
      });
  if (found == std::end(candidates.proxies)) return false;
  const auto how = selected.decision;  // of a switch, regardless of the route's verdict
  selected = *found;
  selected.decision = how;
  return true;
}

void NoteNodeFailed(i32 socket_type, const AccDecisionInfo& decision) noexcept {
  const FallbackTimes* const times = FastFallback();
  if (times == nullptr) return;
  resting_nodes.Add(ProxyAddress(decision.selected_proxy), socket_type, GetTickCount(),
                    times->node_rest_ms);
}

void NoteNodeServes(i32 socket_type, const AccDecisionInfo& decision) noexcept {
  resting_nodes.Remove(ProxyAddress(decision.selected_proxy), socket_type);
}

}  // namespace moru_vyr::lsp
