// Which of a decision's nodes is asked, for connections (SOCK_STREAM) and for datagrams
// (SOCK_DGRAM), and how soon the next way is tried.
//
// With fast fallback, a node that has failed is not asked again for a while; without it no node
// ever rests.
//
// Worker thread only. Nothing throws.
#pragma once
#include "abi/acc_decision_info.h"
#include "common/types.h"
#include "route/mending.h"

namespace moru_vyr::lsp {

// Null without fast fallback.
const FallbackTimes* FastFallback() noexcept;

// Keeps the selected proxy, unless it rests; then the first other one that does not is selected.
// False if all rest.
bool SelectAwakeProxy(i32 socket_type, AccDecisionInfo* decision) noexcept;
// Replaces the selected proxy by the first other one of the decision that does not rest. False if
// there is none.
bool SelectOtherProxy(i32 socket_type, AccDecisionInfo* decision) noexcept;

// The same for a flow that is to leave the node `left` for the selected proxy: another one is taken
// from the session's candidates that lead to that last node.
bool SelectAwakeCandidate(const SwitchProxyInfo& candidates, u32 left, u32 last_node,
                          AccDecisionInfo* decision) noexcept;

// The outcome of asking the selected proxy.
void NoteNodeFailed(i32 socket_type, const AccDecisionInfo& decision) noexcept;
void NoteNodeServes(i32 socket_type, const AccDecisionInfo& decision) noexcept;

}  // namespace moru_vyr::lsp
