// The TCP/IP stack of one host: which socket owns which port and receives which packet.
#pragma once
#include <list>
#include <map>
#include <memory>

#include "port/sim/network.h"
#include "port/sim/tcp.h"

namespace sim {

// The receive queue of a UDP socket, or of a raw ICMP socket, whose datagrams begin with the IP
// header.
struct DatagramPort {
  struct Datagram {
    Address from;
    std::string data;
  };
  Protocol protocol = Protocol::kUdp;
  Address local;
  Address peer;  // if connected, only datagrams from this address are received; all zero: from any
  size_t limit = 65536;
  size_t bytes = 0;  // in `queue`; datagrams that do not fit are dropped
  std::deque<Datagram> queue;
  uint64_t dropped = 0;
  bool report_unreachable = true;  // SIO_UDP_CONNRESET
  bool unreachable = false;        // the next receive fails with 10054
};

// A socket's claim on a port.
struct Binding {
  Protocol protocol = Protocol::kTcp;
  Address local;
  bool share = false;      // SO_REUSEADDR
  bool exclusive = false;  // SO_EXCLUSIVEADDRUSE
};

class Stack {
 public:
  Stack(Network& network, Host& host) : network_(network), host_(host) {}

  Network& network() { return network_; }
  Host& host() { return host_; }
  void Receive(const Packet& packet);

  bool IsLocal(uint32_t ip) const;
  // The source address of a packet to `ip`.
  uint32_t SourceFor(uint32_t ip) const;
  bool HasUnacknowledged() const;

  // Port claims. A conflict is what Windows refuses with 10048.
  bool Conflicts(const Binding& wanted) const;
  void Claim(std::shared_ptr<Binding> binding) { bindings_.push_back(std::move(binding)); }
  void Disclaim(const std::shared_ptr<Binding>& binding) { bindings_.remove(binding); }
  uint16_t EphemeralPort(Protocol protocol);  // 0: all are taken

  // Null if there is already a connection between these two endpoints.
  std::shared_ptr<TcpConnection> Connect(const Address& local, const Address& remote,
                                         const TcpConnection::Settings& settings);
  void Listen(std::shared_ptr<TcpListener> listener) { listeners_.push_back(std::move(listener)); }
  void StopListening(const std::shared_ptr<TcpListener>& listener);
  void Forget(const TcpConnection& connection);

  void Open(std::shared_ptr<DatagramPort> port) { ports_.push_back(std::move(port)); }
  void Close(const std::shared_ptr<DatagramPort>& port) { ports_.remove(port); }
  void SendUdp(const Address& from, const Address& to, std::string data);
  void SendIcmp(const Address& from, const Address& to, std::string message);

 private:
  using Ends = std::pair<Address, Address>;  // local, remote

  void ReceiveTcp(const Packet& packet);
  void Refuse(const Packet& packet);
  std::shared_ptr<TcpListener> ListenerFor(const Address& local) const;
  void ReceiveUdp(const Packet& packet);
  void ReceiveIcmp(const Packet& packet);
  void OnUnreachable(const Packet& packet);
  static void Deliver(DatagramPort& port, const Address& from, std::string data);

  Network& network_;
  Host& host_;
  uint16_t last_ephemeral_ = 49151;
  uint16_t packet_id_ = 0;
  std::map<Ends, std::shared_ptr<TcpConnection>> connections_;
  std::list<std::shared_ptr<TcpListener>> listeners_;
  std::list<std::shared_ptr<DatagramPort>> ports_;
  std::list<std::shared_ptr<Binding>> bindings_;
};

}  // namespace sim
