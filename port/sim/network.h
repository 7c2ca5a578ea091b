// Hosts, the links between them, and what travels.
//
// A packet is an IP datagram: a link may delay it, lose it, double it or let it be overtaken,
// whatever it carries. TCP's guarantees are made by its endpoints (tcp.h), as on a real network, so
// a lossy link costs a stream time and never bytes.
//
// Everything here runs on the scheduler's baton and needs no lock. Addresses and ports are in
// host order throughout; only the socket calls know network order.
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
  uint64_t urgent = 0;  // the number behind the last urgent byte; 0: there is none
  // Stands for what random initial sequence numbers are for: a segment of an earlier connection
  // between the same two ports is told apart.
  uint64_t connection = 0;
  uint64_t stamp = 0;  // grows with each segment an endpoint sends: the newest window counts
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

  // When copies of a packet arrive; none: it is lost.
  std::vector<Micros> Carry(size_t bytes, Micros now, Random& dice);

 private:
  LinkOptions options_;
  Micros busy_until_ = 0;    // the rate limit's queue drains until then
  Micros last_arrival_ = 0;  // nothing but a reordered packet overtakes another
};

class Stack;

class Network {
 public:
  Network(Scheduler& scheduler, uint64_t seed, const LinkOptions& between_hosts,
          std::function<void(const std::string&)> trace);
  ~Network();

  Host& AddHost(const std::string& name, const std::vector<uint32_t>& addresses);
  Host* HostAt(uint32_t ip) const;
  Host* HostNamed(const std::string& name) const;
  Link& LinkFrom(const Host& from, const Host& to);

  // Hands a packet of `from` to the link that leads to its destination.
  void Send(Host& from, Packet packet);

  // No packet under way and no stream with unacknowledged bytes.
  bool Quiet() const;

  Scheduler& scheduler() { return scheduler_; }
  Random& dice() { return dice_; }
  uint64_t NextConnection() { return ++connections_; }
  void Trace(const std::string& line) const { trace_(line); }

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
