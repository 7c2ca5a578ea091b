#include "tests/scenario/tcp_world.h"

#include <algorithm>

namespace tcp_test {
namespace {

using namespace moru_vyr::lsp;  // NOLINT: the tables' records

constexpr u32 kNearIdc = 11, kDirectIdc = 12, kForcedIdc = 13, kAloneIdc = 14;

std::string PeerName(SOCKET s) {
  sockaddr_in peer = {};
  int size = sizeof peer;
  if (getpeername(s, Raw(peer), &size) != 0) return "gone";
  const std::string ip = inet_ntoa(peer.sin_addr);
  return ip == kNodeA ? "A" : ip == kNodeB ? "B" : ip == kGame ? "game" : ip;
}

RouteEntry& AddRouteByA(RouteTableImage& image, u32 idc, u32 decision) {
  RouteEntry& entry = test::AddRoute(image.route_sets[0], idc, test::Ref(1, decision));
  entry.top_refs[0] = test::Ref(1);
  entry.top_refs[1] = test::Ref(2);
  return entry;
}

}  // namespace

size_t SendAll(SOCKET s, const std::string& text) {
  size_t sent = 0;
  while (sent < text.size()) {
    const int n = send(s, text.data() + sent, static_cast<int>(text.size() - sent), 0);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  return sent;
}

bool Collect(SOCKET s, size_t size, std::string* got, std::string* end) {
  const size_t target = got->size() + size;
  while (got->size() < target) {
    char bytes[16384];
    const size_t most = std::min(sizeof bytes, target - got->size());
    const int n = recv(s, bytes, static_cast<int>(most), 0);
    if (n <= 0) {
      *end = n == 0 ? "closed" : "error " + std::to_string(WSAGetLastError());
      return false;
    }
    got->append(bytes, static_cast<size_t>(n));
  }
  return true;
}

std::string CollectAll(SOCKET s, std::string* got) {
  std::string end;
  while (Collect(s, 16384, got, &end)) continue;
  return end;
}

void Echo(SOCKET s, Call* call) {
  for (;;) {
    char bytes[16384];
    const int n = recv(s, bytes, sizeof bytes, 0);
    if (n <= 0) {
      call->end = n == 0 ? "closed" : "error " + std::to_string(WSAGetLastError());
      return;
    }
    call->got.append(bytes, static_cast<size_t>(n));
    SendAll(s, std::string(bytes, static_cast<size_t>(n)));
  }
}

TcpWorld::TcpWorld(const std::wstring& path, const Configure& configure, u32 mended) {
  if (mended != 0) game.IsMended(mended);
  if (!path.empty()) game.Is(path);
  StartServer();
  WriteTables();
  game.ListAsGame(0);
  game.Configures([&](AccConfigRecord* config) {
    config->acc_mode = 1;
    if (configure) configure(config);
  });
  game.IsStartedBySockets();
  RunFor(10ms);
  // The first socket starts the provider and its log, which the test then takes over.
  closesocket(Tcp());
  RunFor(100ms);
  log_ = std::make_unique<test::LogCapture>(4);
}

void TcpWorld::WriteTables() {
  ips->ip_count = 4;
  ips->records[0] = {kNearIdc, test::Ip(kServer)};
  ips->records[1] = {kDirectIdc, test::Ip(kDirect)};
  ips->records[2] = {kForcedIdc, test::Ip(kForced)};
  ips->records[3] = {kAloneIdc, test::Ip(kAlone)};
  auto image = std::make_unique<RouteTableImage>();
  test::AddProxy(*image, 1, kNodeA).surport_isps = 1;
  test::AddProxy(*image, 2, kNodeB).surport_isps = 1;
  AddRouteByA(*image, kNearIdc, DECISION_ACCE);
  AddRouteByA(*image, kDirectIdc, DECISION_DIRECT);
  AddRouteByA(*image, kForcedIdc, DECISION_FORCE_ACCE_AUTO);
  AddRouteByA(*image, kAloneIdc, DECISION_ACCE).top_refs[1] = {};
  routes.Publish(*image);
}

void TcpWorld::StartServer() {
  sim::Process& process = world.AddProcess(server_host, "server");
  world.Spawn(process, "listener", [this, &process] {
    const SOCKET listener = ListenAt(kPort, 200);
    for (;;) {
      const SOCKET s = AcceptFrom(listener);
      if (s == INVALID_SOCKET) continue;  // a fault of the test's; the call was one step
      Call* const call = &calls.emplace_back();
      call->from = PeerName(s);
      world.Spawn(process, "", [this, s, call] {
        serve(s, call);
        closesocket(s);
      });
    }
  });
}

SOCKET TcpWorld::Joins(const char* server, int port) {
  const SOCKET s = Tcp();
  if (ConnectTo(s, server, port) == 0) return s;
  closesocket(s);
  return INVALID_SOCKET;
}

std::string TcpWorld::Talks(SOCKET s, const std::string& text) {
  SendAll(s, text);
  std::string got, end;
  Collect(s, text.size(), &got, &end);
  return got;
}

void TcpWorld::GameThread(std::function<void()> body) {
  ++running_;
  world.Spawn(world.home(), "", [this, body = std::move(body)] {
    body();
    --running_;
  });
}

bool TcpWorld::NodesAreFree() const {
  return a.Count("accepted") == a.Count("closed") && b.Count("accepted") == b.Count("closed");
}

void TcpWorld::ExpectServesAgain() {
  EXPECT_TRUE(RunUntil([this] { return NodesAreFree(); }, 60s)) << a.AllEvents() << b.AllEvents();
  a.Behaves();
  b.Behaves();
  RunFor(100ms);
  serve = Echo;
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "still there"), "still there");
  closesocket(s);
  EXPECT_TRUE(RunUntil([this] { return NodesAreFree(); }, 60s)) << a.AllEvents() << b.AllEvents();
}

}  // namespace tcp_test
