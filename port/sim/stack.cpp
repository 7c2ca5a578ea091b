#include "port/sim/stack.h"

#include "port/sim/icmp.h"

namespace sim {

namespace {
constexpr uint16_t kFirstEphemeral = 49152;
constexpr uint16_t kLastEphemeral = 65535;
constexpr uint8_t kIcmpNumber = 1;
}  // namespace

void Stack::Receive(const Packet& packet) {
  switch (packet.protocol) {
    case Protocol::kTcp:
      return ReceiveTcp(packet);
    case Protocol::kUdp:
      return ReceiveUdp(packet);
    case Protocol::kIcmp:
      return ReceiveIcmp(packet);
  }
}

bool Stack::IsLocal(uint32_t ip) const {
  if (IsLoopback(ip)) return true;
  for (const uint32_t address : host_.addresses())
    if (address == ip) return true;
  return false;
}

uint32_t Stack::SourceFor(uint32_t ip) const {
  if (IsLocal(ip)) return ip;
  return host_.addresses().empty() ? 0 : host_.addresses().front();
}

bool Stack::HasUnacknowledged() const {
  for (const auto& [ends, connection] : connections_)
    if (connection->connecting() || !connection->all_acknowledged()) return true;
  return false;
}

// --- claims ---------------------------------------------------------------------------------

// The rules of Windows: the same address and port conflict; a wildcard and a specific address
// conflict only if the new one asked for exclusive use, or an owner of the wildcard has;
// SO_REUSEADDR on the new socket overrides all of this, unless the owner is exclusive.
bool Stack::Conflicts(const Binding& wanted) const {
  for (const auto& taken : bindings_) {
    if (taken->protocol != wanted.protocol || taken->local.port != wanted.local.port) continue;
    const bool same = taken->local.ip == wanted.local.ip;
    const bool overlap = same || taken->local.ip == 0 || wanted.local.ip == 0;
    if (!overlap) continue;
    const bool owns_all = taken->local.ip == 0;
    if (wanted.exclusive || (taken->exclusive && (same || owns_all || wanted.share))) return true;
    if (same && !wanted.share) return true;
  }
  return false;
}

uint16_t Stack::EphemeralPort(Protocol protocol) {
  for (int tries = kLastEphemeral - kFirstEphemeral; tries >= 0; --tries) {
    last_ephemeral_ = last_ephemeral_ == kLastEphemeral
                          ? kFirstEphemeral
                          : static_cast<uint16_t>(last_ephemeral_ + 1);
    bool taken = false;
    for (const auto& binding : bindings_)
      taken |= binding->protocol == protocol && binding->local.port == last_ephemeral_;
    if (protocol == Protocol::kTcp)
      for (const auto& [ends, connection] : connections_)
        taken |= ends.first.port == last_ephemeral_;
    if (!taken) return last_ephemeral_;
  }
  return 0;
}

// --- TCP ------------------------------------------------------------------------------------

std::shared_ptr<TcpConnection> Stack::Connect(const Address& local, const Address& remote,
                                              const TcpConnection::Settings& settings) {
  auto& place = connections_[{local, remote}];
  if (place && !place->in_time_wait()) return nullptr;
  auto connection = place = std::make_shared<TcpConnection>(*this, local, remote, settings);
  connection->Connect();
  return connection;
}

void Stack::Forget(const TcpConnection& connection) {
  const auto at = connections_.find({connection.local(), connection.remote()});
  if (at != connections_.end() && at->second.get() == &connection) connections_.erase(at);
}

void Stack::StopListening(const std::shared_ptr<TcpListener>& listener) {
  listeners_.remove(listener);
  for (const auto& connection : listener->ready) connection->Release(true);
  listener->ready.clear();
}

std::shared_ptr<TcpListener> Stack::ListenerFor(const Address& local) const {
  std::shared_ptr<TcpListener> wildcard;
  for (const auto& listener : listeners_) {
    if (listener->local() == local) return listener;
    if (listener->local() == Address{0, local.port} && !wildcard) wildcard = listener;
  }
  return wildcard;
}

void Stack::ReceiveTcp(const Packet& packet) {
  const Ends ends{packet.to, packet.from};
  const auto at = connections_.find(ends);
  if (at != connections_.end()) {
    const auto connection = at->second;
    if (connection->connection() == packet.tcp.connection) return connection->Receive(packet);
    const bool replaces = packet.tcp.syn && !packet.tcp.ack && connection->in_time_wait();
    if (!replaces) return Refuse(packet);
    connections_.erase(at);
  }
  if (!packet.tcp.syn || packet.tcp.ack) return Refuse(packet);
  // Windows answers with a reset if the backlog is full; other systems do not answer.
  const auto listener = ListenerFor(packet.to);
  if (!listener || listener->full()) return Refuse(packet);
  auto connection =
      std::make_shared<TcpConnection>(*this, packet.to, packet.from, listener->settings());
  connections_[ends] = connection;
  connection->AcceptFrom(packet, listener);
}

void Stack::Refuse(const Packet& packet) {
  if (packet.tcp.rst) return;
  Packet reset;
  reset.protocol = Protocol::kTcp;
  reset.from = packet.to;
  reset.to = packet.from;
  reset.tcp.rst = true;
  reset.tcp.connection = packet.tcp.connection;
  network_.Send(host_, reset);
}

// --- datagrams ------------------------------------------------------------------------------

void Stack::SendUdp(const Address& from, const Address& to, std::string data) {
  Packet packet;
  packet.protocol = Protocol::kUdp;
  packet.from = from;
  packet.to = to;
  packet.payload = std::move(data);
  network_.Send(host_, std::move(packet));
}

void Stack::SendIcmp(const Address& from, const Address& to, std::string message) {
  Packet packet;
  packet.protocol = Protocol::kIcmp;
  packet.from = {from.ip, 0};
  packet.to = {to.ip, 0};
  packet.payload = std::move(message);
  network_.Send(host_, std::move(packet));
}

void Stack::Deliver(DatagramPort& port, const Address& from, std::string data) {
  if (port.bytes > 0 && port.bytes + data.size() > port.limit) {
    ++port.dropped;
    return;
  }
  port.bytes += data.size();
  port.queue.push_back({from, std::move(data)});
}

void Stack::ReceiveUdp(const Packet& packet) {
  std::shared_ptr<DatagramPort> best;
  int best_score = -1;
  for (const auto& port : ports_) {
    if (port->protocol != Protocol::kUdp || port->local.port != packet.to.port) continue;
    if (port->local.ip != 0 && port->local.ip != packet.to.ip) continue;
    if (port->peer.port != 0 && port->peer != packet.from) continue;
    const int score = (port->local.ip != 0) + 2 * (port->peer.port != 0);
    if (score <= best_score) continue;
    best = port;
    best_score = score;
  }
  if (best) return Deliver(*best, packet.from, packet.payload);
  network_.Trace([&packet] { return "no one at " + Describe(packet); });
  SendIcmp(packet.to, packet.from, PortUnreachable(packet));
}

void Stack::ReceiveIcmp(const Packet& packet) {
  if (packet.payload.size() < kIcmpHeaderSize || Checksum(packet.payload) != 0) return;
  if (static_cast<uint8_t>(packet.payload[0]) == kIcmpEchoRequest) {
    std::string reply = packet.payload;
    reply[0] = kIcmpEchoReply;
    SealIcmp(reply);
    return SendIcmp(packet.to, packet.from, std::move(reply));
  }
  OnUnreachable(packet);
  const std::string whole =
      IpHeader(kIcmpNumber, packet.from.ip, packet.to.ip, packet.payload.size(), ++packet_id_) +
      packet.payload;
  for (const auto& port : ports_) {
    if (port->protocol != Protocol::kIcmp) continue;
    if (port->local.ip != 0 && port->local.ip != packet.to.ip) continue;
    if (port->peer.ip != 0 && port->peer.ip != packet.from.ip) continue;
    Deliver(*port, packet.from, whole);
  }
}

void Stack::OnUnreachable(const Packet& packet) {
  Address from, to;
  if (!ReadPortUnreachable(packet.payload, &from, &to)) return;
  for (const auto& port : ports_) {
    if (port->protocol != Protocol::kUdp || port->local.port != from.port) continue;
    if (port->local.ip != 0 && port->local.ip != from.ip) continue;
    if (port->peer.port != 0 && port->peer != to) continue;
    if (port->report_unreachable) port->unreachable = true;
  }
}

}  // namespace sim
