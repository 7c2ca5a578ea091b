// Answers a game's raw pings in place of the network.
//
// A game that measures its ping with a raw socket would see the direct route, not the accelerated
// one. So an echo request on a connected raw ICMP socket, to a server that is in the tables, never
// reaches the network; a forged reply is returned after the delay that the tables give. False
// always means that the call is not handled here and takes its normal course.
//
// Any thread. The three kinds of lock are leaves and never nest. Nothing throws.
#pragma once
#include <winsock2.h>

#include <deque>
#include <map>
#include <memory>

#include "common/lock.h"
#include "common/types.h"
#include "icmp/ping_pool.h"
#include "icmp/ping_request.h"

namespace moru_vyr::lsp {

// One connected raw socket. Kept: a record that dies with requests in its queue does not return
// them; slots stay out and allocations leak.
struct raw_request_t {
  explicit raw_request_t(u32 connected_ip) : ip(connected_ip) {}
  const u32 ip;                          // network order
  common::Mutex lock;                    // guards requests
  std::deque<ping_request_t*> requests;  // oldest first
};

class CIcmpVM {
 public:
  // A raw socket was connected to `ip` (network order). Kept: connecting it again changes
  // nothing.
  void AddRawSocket(SOCKET s, u32 ip) noexcept;
  void RemoveRawSocket(SOCKET s) noexcept;

  // True: the message is held and counts as sent.
  bool CheckinConnectionPingRequest(SOCKET s, const char* buffer, u32 length) noexcept;
  // True: a reply is due and is now in `buffer`, cut to the *length bytes that there were. *length
  // is then the length of the whole reply, even if it was cut. Replies come in the order of their
  // requests. `from_ip` may be null.
  bool CheckoutPingResponse(SOCKET s, char* buffer, u32* length, u32* from_ip) noexcept;

  // See PingPool.
  void ResetPool() noexcept { pool_.ResetPool(); }
  void FreePool() noexcept { pool_.FreePool(); }

 private:
  std::shared_ptr<raw_request_t> Find(SOCKET s) noexcept;
  bool CheckinPingRequest(SOCKET s, raw_request_t& entry, const char* buffer, u32 length) noexcept;
  ping_request_t* TakeDueRequest(SOCKET s, raw_request_t& entry) noexcept;

  common::Mutex sockets_lock_;  // guards raw_sockets_
  std::map<SOCKET, std::shared_ptr<raw_request_t>> raw_sockets_;
  PingPool pool_;
};

// The one for this process: built at first use, alive until the process ends.
CIcmpVM& GetIcmpVM();

}  // namespace moru_vyr::lsp
