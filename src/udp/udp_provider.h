// The relay of datagram flows: a control port on the loopback interface, at which a game's socket
// asks for a relay by sending a message from itself, and a session for each socket that has one.
//
// An answer does not come back over the network: the worker leaves it here, and the requester,
// which waits for its event, takes it. The worker thread runs all but the two operations that say
// otherwise. Nothing throws.
#pragma once
#include <winsock2.h>

#include <map>
#include <memory>

#include "common/lock.h"
#include "common/types.h"
#include "relay/net_provider.h"
#include "udp/live_queues.h"
#include "udp/relay_messages.h"

namespace moru_vyr::lsp {

class UdpProvider final : public NetProvider {
 public:
  // Any thread. Takes the answer to the open request of that token; false if there is none. An
  // answer can be taken once, and one that nobody takes stays until the token's next.
  bool GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept;

  // Any thread. See LiveQueues::Use.
  std::shared_ptr<UdpPackageQueue> UseQueue(const UdpPackageQueue* queue,
                                            u32 token) const noexcept {
    return live_queues_.Use(queue, token);
  }

 private:
  common::Mutex result_lock_;                     // guards create_results_; a leaf
  std::map<u32, ProtoRelayOpen> create_results_;  // by token

  LiveQueues live_queues_;
};

}  // namespace moru_vyr::lsp
