// Guard: which queues application threads may use, and which ports in place of them.
//
// An application thread knows its socket's queues by raw pointers, in a copy of the socket's record
// that may be older than the end of the session. So it never dereferences such a pointer: it asks
// here first, and the result stays valid for as long as the thread holds it. It must also pass the
// token, because a later session's queue may have the same address.
//
// Any thread. The lock is a leaf, held for one look-up.
#pragma once
#include <map>
#include <memory>

#include "common/lock.h"
#include "common/types.h"
#include "udp/peer_ports.h"
#include "udp/udp_package_queue.h"

namespace moru_vyr::lsp {

// How the datagrams of one session keep their true addresses over the loopback hop: by the ports
// or, where those are not used, by a queue for each direction.
struct UdpQueues {
  UdpPackageQueue send_queue;  // from the game: the hooks write, the worker reads
  UdpPackageQueue recv_queue;  // to the game: the worker writes, the hooks read
  PeerPorts peer_ports;
};

class LiveQueues {
 public:
  // May throw std::bad_alloc, with nothing changed. A token has one session at a time.
  void Add(u32 token, std::shared_ptr<UdpQueues> queues);
  void Remove(u32 token) noexcept;

  // Null if that is not a queue of that session, or no longer.
  std::shared_ptr<UdpPackageQueue> Use(const UdpPackageQueue* queue, u32 token) const noexcept;
  // Null if the session has no ports, or is gone.
  std::shared_ptr<PeerPorts> UsePorts(u32 token) const noexcept;

 private:
  mutable common::Mutex lock_;  // guards by_token_; a leaf
  std::map<u32, std::shared_ptr<UdpQueues>> by_token_;
};

}  // namespace moru_vyr::lsp
