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
