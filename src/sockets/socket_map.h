// What the library knows about each socket, and the one map that holds it.
//
// A leaf: besides the hooks, the relay's socket helpers use it too, so it knows nothing of either.
#pragma once
#include <winsock2.h>
#include <ws2spi.h>

#include <cstddef>
#include <map>

#include "common/lock.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class UdpPackageQueue;

constexpr int kSocketTypeStream = 1;
constexpr int kSocketTypeDatagram = 2;
constexpr int kSocketTypeRaw = 3;

// The state of a datagram socket in the relay. It leaves kNotAsked once and never returns to it.
enum RelayState : i32 {
  kRelayNotAsked = 0,
  kRelayRunning = 1,
  kRelayRefused = 2,
};

// How far a stream socket's connect has got that waits until its server has been reached.
enum class ConnectStage : u8 {
  kNone,     // there is none, or the relay has accepted it
  kWaiting,  // the socket is not connected to anything yet
  kIssued,   // to the relay
  kRefused,  // to where nothing listens, as the server could not be reached
};

// What was decided for one destination of a datagram socket. Two ports of one host share it.
struct RelayRecord {
  u32 ip = 0;  // network order; 0 marks a free entry
  bool relay = false;
};
constexpr int kMaxRelayRecords = 10;

// One socket. A plain value: it points to things and owns nothing, so that a call can work on a
// copy while it is in the next provider. Without a socket it is the record of none.
struct SocketRecord {
  SOCKET socket = INVALID_SOCKET;
  i32 type = 0;
  i32 protocol = 0;
  u16 local_port = 0;          // network order; 0 = not known
  u32 token = 0;               // the socket's name in logs and in messages to the relay
  sockaddr_in handled_addr{};  // where a redirected stream socket believes it is connected
  i32 handled_addr_len = 0;
  bool handled = false;  // of a stream never cleared: a new redirect replaces the first's answer
  sockaddr_in relay_addr{};
  UdpPackageQueue* send_queue = nullptr;
  UdpPackageQueue* recv_queue = nullptr;
  WSPPROC_TABLE* next_proc_table = nullptr;
  i32 relay_state = kRelayNotAsked;
  bool udp_connect_mode = false;
  RelayRecord relay_records[kMaxRelayRecords]{};
  bool relay_disabled = false;  // never cleared
  bool of_worker = false;       // the relay's own
  bool non_blocking = false;    // known only where connects are postponed
  ConnectStage connect_stage = ConnectStage::kNone;
};

// Any thread. Every operation holds a lock for its own length only, never across a call into the
// next provider, and none throws. Operations on a socket without a record do nothing and return
// false. The sockets are spread over several maps, each with its own lock: every call of a game
// looks its socket up, and a game's threads should not wait for each other's.
class SocketMap {
 public:
  static constexpr u32 kAnyToken = 0;  // no socket has it

  // True if the socket has a record afterwards: a fresh one, or the one it had, which is left
  // unchanged, even if its fields are stale. False for INVALID_SOCKET and when out of memory.
  bool Add(SOCKET socket, int type, int protocol, u32 token) noexcept;
  bool Remove(SOCKET socket, SocketRecord* last = nullptr) noexcept;  // *last: its last state
  SocketRecord Get(SOCKET socket) const noexcept;  // the record of none if there is none
  bool HasToken(u32 token) const noexcept;

  bool SetNextProcTable(SOCKET socket, WSPPROC_TABLE* table) noexcept;  // refuses a null table
  WSPPROC_TABLE* GetNextProcTable(SOCKET socket, int* type, int* protocol) const noexcept;

  bool GetLocalPort(SOCKET socket, u16* port) const noexcept;
  bool SetLocalPort(SOCKET socket, u16 port) noexcept;

  // These three follow a wait for the relay, during which the socket may have been closed and its
  // value reused for another: with a token, only the socket that has the token is meant. The first
  // also sets relay_state to kRelayRunning.
  bool SetRelayAddr(SOCKET socket, const sockaddr_in* addr, UdpPackageQueue* send_queue,
                    UdpPackageQueue* recv_queue, u32 token = kAnyToken) noexcept;
  bool SetRelayState(SOCKET socket, i32 state, u32 token = kAnyToken) noexcept;
  bool SetUdpConnectMode(SOCKET socket, bool flag, u32 token = kAnyToken) noexcept;
  // `len` bytes of `addr`, at most a sockaddr_in.
  bool SetHandledAddr(SOCKET socket, const sockaddr* addr, int len) noexcept;
  // The socket is no longer connected to where it believes it is.
  bool ForgetHandledAddr(SOCKET socket) noexcept;
  // Takes the first free entry. If all ten are taken, nothing happens, and that is not a failure.
  bool SaveRelayRecord(SOCKET socket, const sockaddr_in* addr, bool relay) noexcept;
  bool SetRelayDisabled(SOCKET socket, bool flag) noexcept;
  bool SetOfWorker(SOCKET socket, bool flag) noexcept;
  bool SetNonBlocking(SOCKET socket, bool flag) noexcept;
  bool SetConnectStage(SOCKET socket, ConnectStage stage, u32 token) noexcept;

  // The first of the relay's own sockets after `after`, in the order of their values; 0 starts from
  // the beginning. INVALID_SOCKET if there is none.
  SOCKET NextOfWorker(SOCKET after) const noexcept;

  // Looks the address up in the caller's copy, without the lock. `has_free` tells whether an
  // unknown address could still be saved; both results may be null.
  static bool FindRelayRecord(const SocketRecord& record, const sockaddr_in* addr, bool* relay,
                              bool* has_free) noexcept;

 private:
  // Runs `change` on the live record under the lock.
  template <class Change>
  bool Update(SOCKET socket, Change&& change, u32 token = kAnyToken) noexcept;

  struct alignas(64) Part {      // a cache line of its own, so that parts do not share their locks'
    mutable common::Mutex lock;  // guards records; a leaf
    std::map<SOCKET, SocketRecord> records;
  };
  static constexpr std::size_t kParts = 16;

  // Winsock's handles are multiples of four.
  static std::size_t PartOf(SOCKET socket) noexcept { return (socket / 4) % kParts; }

  Part parts_[kParts];
};

// The process's map, built at first use and alive until the process ends: other modules may still
// close sockets while this one is being torn down.
SocketMap& GetSocketMap();

}  // namespace moru_vyr::lsp
