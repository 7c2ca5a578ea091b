// Hosts, the links between them, and the packets that they carry.
//
// A packet is an IP datagram. A link may delay, lose, duplicate or reorder it, whatever it carries.
// TCP's guarantees are provided by its endpoints (tcp.h), as on a real network, so a lossy link
// costs a stream time and never bytes.
//
// Only the thread that holds the scheduler's baton runs code here, so no lock is needed. Addresses
// and ports are in host order throughout; only the socket calls use network order.
#pragma once
#include <compare>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "port/sim/random.h"
#include "port/sim/scheduler.h"
#include "port/sim/sim.h"

namespace sim {

struct Address {
  uint32_t ip = 0;
  uint16_t port = 0;
  auto operator<=>(const Address&) const = default;
};
std::string ToText(uint32_t ip);
std::string ToText(const Address& address);
uint32_t ParseIp(const std::string& text);  // 0 if it is not a dotted quad
inline bool IsLoopback(uint32_t ip) { return ip >> 24 == 127; }

// The part of a TCP header that matters here. Sequence numbers are 64 bits wide and start at 0.
struct TcpHeader {
  bool syn = false, ack = false, fin = false, rst = false;
  uint64_t sequence = 0;
  uint64_t acknowledged = 0;
  uint32_t window = 0;
  uint64_t urgent = 0;  // the sequence number after the last urgent byte; 0: none
  // Takes the place of random initial sequence numbers: it identifies a segment of an earlier
  // connection between the same two ports.
  uint64_t connection = 0;
  uint64_t stamp = 0;  // grows with each segment that an endpoint sends, to find the newest window
};

enum class Protocol { kTcp, kUdp, kIcmp };

struct Packet {
  Protocol protocol = Protocol::kUdp;
  Address from, to;
  TcpHeader tcp;
  std::string payload;  // for ICMP: the message from its type byte on
};

// One direction between two hosts.
class Link {
 public:
  explicit Link(const LinkOptions& options) : options_(options) {}
  void Set(const LinkOptions& options) { options_ = options; }
  const LinkOptions& options() const { return options_; }

  // The arrival time of each copy of a packet; empty if it is lost.
  std::vector<Micros> Carry(size_t bytes, Micros now, Random& dice);

 private:
  LinkOptions options_;
  Micros busy_until_ = 0;    // when the queue of the rate limit will be empty
  Micros last_arrival_ = 0;  // later packets do not arrive before it, unless they are reordered
};

class Stack;

class Network {
 public:
  // `trace` may be null.
  Network(Scheduler& scheduler, uint64_t seed, const LinkOptions& between_hosts,
          std::function<void(const std::string&)> trace);
  ~Network();

  Host& AddHost(const std::string& name, const std::vector<uint32_t>& addresses);
  Host* HostAt(uint32_t ip) const;
  Host* HostNamed(const std::string& name) const;
  Link& LinkFrom(const Host& from, const Host& to);

  // Passes a packet from `from` to the link that leads to its destination.
  void Send(Host& from, Packet packet);

  // True if no packet is in flight and no stream has unacknowledged bytes.
  bool Quiet() const;

  Scheduler& scheduler() { return scheduler_; }
  Random& dice() { return dice_; }
  uint64_t NextConnection() { return ++connections_; }
  // `says` makes the line, where there is a trace.
  template <class Says>
  void Trace(const Says& says) const {
    if (trace_) trace_(says());
  }

 private:
  Scheduler& scheduler_;
  Random dice_;
  LinkOptions between_hosts_;
  std::function<void(const std::string&)> trace_;
  uint64_t connections_ = 0;
  std::vector<std::unique_ptr<Host>> hosts_;
  std::map<std::pair<const Host*, const Host*>, std::unique_ptr<Link>> links_;
};

std::string Describe(const Packet& packet);

}  // namespace sim
