// The exchange of a TCP connection with a node, before the game's bytes flow: a request once the
// node is connected, and the node's answer to it.
//
// Worker thread only. Nothing throws. One object serves a session's attempts one after another.
#pragma once
#include <winsock2.h>

#include "abi/acc_decision_info.h"
#include "common/types.h"
#include "protocol/nego_response.h"
#include "protocol/session_guid.h"
#include "relay/nego_common.h"
#include "relay/relay_interfaces.h"

namespace moru_vyr::lsp {

class TcpNegotiation {
 public:
  // Sends the node on `socket` a request for the game server at game_ip:game_port, both in network
  // order. False if the request could not be sent. A socket that would block counts as success,
  // although nothing was sent and nothing will be: its writable event ends the session.
  bool SendTcpNegotiation(IRelaySocketMgr* mgr, SOCKET socket, u32 token, u32 game_ip,
                          u16 game_port, u8 retry, const SessionGuid* guid,
                          const AccDecisionInfo* decision) noexcept;

  // Once per request, when the socket is readable. The whole answer must be there by then; an
  // incomplete one is a failure. 0: the node carries the connection from now on. -1: *reason says
  // why it failed. 1: the node closed, and the error of the call was "would block". *decision
  // learns the client's address and provider as the node sees them, even from a refusal.
  int ParseTcpNegotiation(AccDecisionInfo* decision, u32* reason) noexcept;

  // Milliseconds since the last request, at least 1. Kept: before the first request the time is
  // counted from 1970, and cut to 32 bits.
  u32 ElapsedMs() const noexcept;

 private:
  int Receive(u8* to, int size, int* received) noexcept;
  int RspTcpNegotiationHead() noexcept;

  SOCKET socket_ = INVALID_SOCKET;  // of the last request that went out
  u32 token_ = 0;
  u8 received_[sizeof(NegoResponse)] = {};
  NegoResponse response_;  // what was received
  u64 start_time_ = 0;     // in units of 100 ns since 1970
};

}  // namespace moru_vyr::lsp
