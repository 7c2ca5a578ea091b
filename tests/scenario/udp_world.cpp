#include "tests/scenario/udp_world.h"

#include <algorithm>

#include "tests/support/switch_config.h"

namespace udp_test {
namespace {

using namespace moru_vyr::lsp;  // NOLINT: the tables' records

constexpr u32 kNearIdc = 11, kDirectIdc = 12, kForcedIdc = 13, kSecondIdc = 14;
constexpr u32 kLastNode = 1;  // what the nodes say of their path
constexpr u32 kMayMeasureAndSwitch = 6;

std::string AddressText(const sockaddr_in& address) {
  return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

std::string NameOf(const sockaddr_in& address) {
  const std::string ip = inet_ntoa(address.sin_addr);
  return ip == kNodeA ? "A" : ip == kNodeB ? "B" : ip == kGame ? "game" : ip;
}

void AddNode(RouteTableImage& image, u32 idc, const char* ip) {
  ProxyRecord& proxy = test::AddProxy(image, idc, ip);
  proxy.surport_isps = 1;
  proxy.flag = kMayMeasureAndSwitch;
}

void AddRouteByA(RouteTableImage& image, u32 idc, u32 decision) {
  RouteEntry& entry = test::AddRoute(image.route_sets[0], idc, test::Ref(1, decision, kLastNode));
  entry.top_refs[0] = test::Ref(1, DECISION_ACCE, kLastNode);
  entry.top_refs[1] = test::Ref(2, DECISION_ACCE, kLastNode);
  entry.switch_groups[0].last_node = kLastNode;
  entry.switch_groups[0].candidates[0] = test::Ref(1, DECISION_ACCE, kLastNode);
  entry.switch_groups[0].candidates[1] = test::Ref(2, DECISION_ACCE, kLastNode);
}

}  // namespace

std::string Difference(const std::vector<std::string>& sent, const std::vector<std::string>& got) {
  if (sent == got) return "";
  std::string text;
  for (const std::string& one : sent) {
    const auto times = std::count(got.begin(), got.end(), one);
    if (times != 1) text += one.substr(0, 40) + " came " + std::to_string(times) + " times; ";
  }
  for (const std::string& one : got) {
    if (std::find(sent.begin(), sent.end(), one) == sent.end())
      text += one.substr(0, 40) + " was never sent; ";
  }
  return text.empty() ? "the order differs" : text;
}

UdpWorld::UdpWorld(u32 mended) {
  if (mended != 0) {
    mending_.emplace(kMendingRegionName);
    (*mending_)->games[0].mended = mended;
  }
  for (const char* ip : {kServer, kDirect, kForced, kSecond}) {
    StartServer(ip, kPort);
    StartServer(ip, kSecondPort);
  }
  for (const int last : {14, 15, 16, 17, 18, 19, 30, 31, 32, 33, 34, 35}) {
    StartServer("198.51.100." + std::to_string(last), kPort);
  }
  WriteTables();
  game.ListAsGame(0);
  Configures([](AccConfigRecord* config) { config->acc_mode = 1; });
}

void UdpWorld::WriteTables() {
  ips->ip_count = 4;
  ips->records[0] = {kNearIdc, test::Ip(kServer)};
  ips->records[1] = {kDirectIdc, test::Ip(kDirect)};
  ips->records[2] = {kForcedIdc, test::Ip(kForced)};
  ips->records[3] = {kSecondIdc, test::Ip(kSecond)};
  auto image = std::make_unique<RouteTableImage>();
  AddNode(*image, 1, kNodeA);
  AddNode(*image, 2, kNodeB);
  AddRouteByA(*image, kNearIdc, DECISION_ACCE);
  AddRouteByA(*image, kDirectIdc, DECISION_DIRECT);
  AddRouteByA(*image, kForcedIdc, DECISION_FORCE_ACCE_AUTO);
  AddRouteByA(*image, kSecondIdc, DECISION_ACCE);
  routes.Publish(*image);
}

void UdpWorld::MayMeasureAndSwitch() {
  Configures([](AccConfigRecord* config) {
    test::AllowSwitches(config);
    config->max_delay_avg = 1000;
    config->max_delay_amp = 1000;
  });
}

void UdpWorld::Starts(common::u32 log_level) {
  game.IsStartedBySockets();
  RunFor(10ms);
  closesocket(Udp());
  RunFor(100ms);
  log_ = std::make_unique<test::LogCapture>(log_level);
}

void UdpWorld::StartServer(const std::string& ip, int port) {
  const std::string name = ip + ":" + std::to_string(port);
  world.SpawnOn(server_host, name, [server = server, ip, port, name] {
    const SOCKET s = Udp();
    EXPECT_EQ(BindTo(s, ip.c_str(), port), 0);
    SetIntOption(s, SO_RCVBUF, 1 << 20);
    while (true) {
      sockaddr_in from = {};
      const std::optional<std::string> text = ReceivedFrom(s, &from);
      if (!text) continue;
      server->heard.push_back({*text, NameOf(from), AddressText(from), name});
      std::string reply = server->answer(*text);
      if (reply.empty()) continue;
      if (reply == kNoBytes) reply.clear();
      sendto(s, reply.data(), static_cast<int>(reply.size()), 0, Raw(from), sizeof from);
    }
  });
}

int UdpWorld::Sends(SOCKET s, const std::string& text, const char* ip, int port) {
  return ErrorOf(SendTextTo(s, text, ip, port));
}

Datagram UdpWorld::Receives(SOCKET s, int ms) {
  if (!ReadableWithin(s, ms)) return {};
  sockaddr_in from = {};
  const std::optional<std::string> text = ReceivedFrom(s, &from);
  if (!text) return {"", "error " + std::to_string(WSAGetLastError()), "", ""};
  return {*text, AddressText(from), "", ""};
}

std::string UdpWorld::Talks(SOCKET s, const std::string& text, const char* ip, int port) {
  if (const int error = Sends(s, text, ip, port)) return "error " + std::to_string(error);
  const Datagram came = Receives(s);
  return came.from.empty() ? "nothing" : came.text + " from " + came.from;
}

void UdpWorld::GameThread(std::function<void()> body) {
  ++running_;
  world.Spawn(world.home(), "", [this, body = std::move(body)] {
    body();
    --running_;
  });
}

std::vector<std::string> UdpWorld::Heard(const std::string& from) const {
  std::vector<std::string> texts;
  for (const Datagram& one : heard) {
    if (from.empty() || one.from == from) texts.push_back(one.text);
  }
  return texts;
}

std::string UdpWorld::AllHeard() const {
  std::string all;
  for (const Datagram& one : heard)
    all += one.text.substr(0, 40) + " at " + one.to + " from " + one.from_full + "\n";
  return all;
}

bool UdpWorld::NodesAreFree() const {
  return a.Count("flow_opened") == a.Count("flow_closed") &&
         b.Count("flow_opened") == b.Count("flow_closed");
}

}  // namespace udp_test
