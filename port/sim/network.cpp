#include "port/sim/network.h"

#include <algorithm>
#include <cstdio>

#include "port/sim/stack.h"

namespace sim {

namespace {
constexpr size_t kIpHeader = 20;

size_t WireSize(const Packet& packet) {
  const size_t header = packet.protocol == Protocol::kTcp   ? 20
                        : packet.protocol == Protocol::kUdp ? 8
                                                            : 0;
  return kIpHeader + header + packet.payload.size();
}
}  // namespace

std::string ToText(uint32_t ip) {
  return Format("%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xff, ip >> 8 & 0xff, ip & 0xff);
}

std::string ToText(const Address& address) {
  return ToText(address.ip) + Format(":%u", address.port);
}

uint32_t ParseIp(const std::string& text) {
  unsigned a = 0, b = 0, c = 0, d = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%u.%u.%u.%u%c", &a, &b, &c, &d, &rest) != 4) return 0;
  if (a > 255 || b > 255 || c > 255 || d > 255) return 0;
  return a << 24 | b << 16 | c << 8 | d;
}

std::string Describe(const Packet& packet) {
  std::string what;
  if (packet.protocol == Protocol::kTcp) {
    what = "tcp";
    if (packet.tcp.syn) what += " syn";
    if (packet.tcp.fin) what += " fin";
    if (packet.tcp.rst) what += " rst";
    what += Format(" seq %llu", static_cast<unsigned long long>(packet.tcp.sequence));
    if (packet.tcp.ack)
      what += Format(" ack %llu", static_cast<unsigned long long>(packet.tcp.acknowledged));
  } else {
    what = packet.protocol == Protocol::kUdp ? "udp" : "icmp";
  }
  return what + Format(" %zu bytes ", packet.payload.size()) + ToText(packet.from) + " > " +
         ToText(packet.to);
}

std::vector<Micros> Link::Carry(size_t bytes, Micros now, Random& dice) {
  if (options_.partitioned || dice.Chance(options_.loss)) return {};
  Micros sent = now;
  if (options_.bytes_per_second > 0) {
    const auto rate = static_cast<double>(options_.bytes_per_second);
    const double queued = static_cast<double>(std::max<Micros>(busy_until_ - now, 0)) * rate / 1e6;
    if (queued + static_cast<double>(bytes) > static_cast<double>(options_.queue_bytes)) return {};
    busy_until_ =
        std::max(busy_until_, now) + static_cast<Micros>(static_cast<double>(bytes) * 1e6 / rate);
    sent = busy_until_;
  }
  std::vector<Micros> arrivals;
  const int copies = dice.Chance(options_.duplicate) ? 2 : 1;
  for (int i = 0; i < copies; ++i) {
    const auto jitter = static_cast<uint64_t>(options_.jitter.count());
    Micros arrival =
        sent + options_.delay.count() + (jitter ? static_cast<Micros>(dice.Below(jitter + 1)) : 0);
    if (dice.Chance(options_.reorder)) {
      arrival += options_.reorder_by.count();
    } else {
      last_arrival_ = arrival = std::max(arrival, last_arrival_);
    }
    arrivals.push_back(arrival);
  }
  return arrivals;
}

Host::Host(Network& network, const std::string& name, const std::vector<uint32_t>& addresses)
    : name_(name), addresses_(addresses), stack_(std::make_unique<Stack>(network, *this)) {}
Host::~Host() = default;

Network::Network(Scheduler& scheduler, uint64_t seed, const LinkOptions& between_hosts,
                 std::function<void(const std::string&)> trace)
    : scheduler_(scheduler), dice_(seed), between_hosts_(between_hosts), trace_(std::move(trace)) {}
Network::~Network() = default;

Host& Network::AddHost(const std::string& name, const std::vector<uint32_t>& addresses) {
  hosts_.push_back(std::make_unique<Host>(*this, name, addresses));
  return *hosts_.back();
}

Host* Network::HostAt(uint32_t ip) const {
  for (const auto& host : hosts_)
    for (const uint32_t address : host->addresses())
      if (address == ip) return host.get();
  return nullptr;
}

Host* Network::HostNamed(const std::string& name) const {
  for (const auto& host : hosts_)
    if (host->name() == name) return host.get();
  return nullptr;
}

Link& Network::LinkFrom(const Host& from, const Host& to) {
  auto& link = links_[{&from, &to}];
  if (!link) link = std::make_unique<Link>(between_hosts_);
  return *link;
}

void Network::Send(Host& from, Packet packet) {
  const Micros now = scheduler_.now();
  Host* to = IsLoopback(packet.to.ip) ? &from : HostAt(packet.to.ip);
  std::vector<Micros> arrivals;
  if (to == &from) {
    arrivals = {now};
  } else if (to && !from.down && !to->down && !IsLoopback(packet.from.ip)) {
    arrivals = LinkFrom(from, *to).Carry(WireSize(packet), now, dice_);
  }
  if (arrivals.empty()) Trace([&] { return "lost " + Describe(packet); });
  for (const Micros when : arrivals) {
    scheduler_.At(
        when,
        [this, to, packet] {
          Trace([&packet] { return "arrived " + Describe(packet); });
          to->stack().Receive(packet);
        },
        true);
  }
}

bool Network::Quiet() const {
  if (scheduler_.traffic_in_flight() > 0) return false;
  for (const auto& host : hosts_)
    if (host->stack().HasUnacknowledged()) return false;
  return true;
}

}  // namespace sim
