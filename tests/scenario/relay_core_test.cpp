// The relay's worker in a game's own process: how it starts and ends, and that a connection gets
// through it, or past it where it cannot.
#include "relay/relay_mgr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "port/shared/catalogue.h"
#include "port/shared/faults.h"
#include "port/shared/modules.h"
#include "port/shared/rendition.h"
#include "port/shared/winsock.h"
#include "protocol/nego_request.h"
#include "protocol/nego_response.h"
#include "provider/hook_entries.h"
#include "tests/scenario/game_process.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/unit/log_capture.h"
#include "tests/unit/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using namespace sim_test;       // NOLINT

constexpr char kServer[] = "198.51.100.10";
constexpr char kNodeA[] = "198.51.100.20";
constexpr char kNodeB[] = "198.51.100.21";
constexpr int kServerPort = 80;
constexpr u32 kGameIdc = 11;

std::string PeerOf(SOCKET s) {
  sockaddr_in peer = {};
  int size = sizeof peer;
  if (getpeername(s, Raw(peer), &size) != 0) return "none";
  return std::string(inet_ntoa(peer.sin_addr)) + ":" + std::to_string(ntohs(peer.sin_port));
}

// A game server that repeats what it hears, until it hears no more.
void Echo(SOCKET s) {
  for (std::string text = Received(s); !text.empty(); text = Received(s)) {
    if (text.rfind("error", 0) == 0) break;
    SendText(s, text);
  }
  closesocket(s);
}

// Exactly that many bytes, or fewer at the end.
std::string Exactly(SOCKET s, size_t size) {
  std::string all;
  while (all.size() < size) {
    const std::string more = Received(s, static_cast<int>(size - all.size()));
    if (more.empty() || more.rfind("error", 0) == 0) break;
    all += more;
  }
  return all;
}

struct Node {
  std::vector<NegoRequest> requests;
  bool silent = false;
};

// Answers one request and then pipes, one direction after the other: enough for an echo.
void ServeNode(Node* node, int port) {
  const SOCKET listener = ListenAt(port);
  for (;;) {
    const SOCKET s = AcceptFrom(listener);
    const std::string bytes = Exactly(s, sizeof(NegoRequest));
    NegoRequest request;
    if (request.Unpack(bytes.data(), static_cast<u32>(bytes.size())) < 0) {
      closesocket(s);
      continue;
    }
    node->requests.push_back(request);
    if (node->silent) continue;
    NegoResponse response;
    response.Init(3);
    response.body.client_isp = 1;
    u8 wire[sizeof response];
    response.Pack(wire, sizeof wire, 3);
    send(s, reinterpret_cast<const char*>(wire), sizeof wire, 0);
    const SOCKET out = Tcp();
    in_addr ip{htonl(request.body.game_ip)};
    if (ConnectTo(out, inet_ntoa(ip), request.body.game_port) != 0) {
      closesocket(s);
      continue;
    }
    for (std::string text = Received(s); !text.empty(); text = Received(s)) {
      if (text.rfind("error", 0) == 0) break;
      SendText(out, text);
      SendText(s, Exactly(out, text.size()));
    }
    closesocket(out);
    closesocket(s);
  }
}

class RelayCore : public sim::ScenarioTest {
 protected:
  RelayCore() : ips(kIpTableRegionName) {
    world.SpawnOn(world.AddHost("server", {kServer}), "server", [] {
      const SOCKET listener = ListenAt(kServerPort);
      for (;;) Echo(AcceptFrom(listener));
    });
    world.SpawnOn(world.AddHost("a", {kNodeA}), "node_a", [this] { ServeNode(&node_a, 7001); });
    world.SpawnOn(world.AddHost("b", {kNodeB}), "node_b", [this] { ServeNode(&node_b, 7002); });
    ips->ip_count = 1;
    ips->records[0] = {kGameIdc, test::Ip(kServer)};
    auto image = std::make_unique<RouteTableImage>();
    test::AddProxy(*image, 1, kNodeA).surport_isps = 1;
    test::AddProxy(*image, 2, kNodeB).surport_isps = 1;
    RouteEntry& entry = test::AddRoute(image->route_sets[0], kGameIdc, test::Ref(1));
    entry.top_refs[0] = test::Ref(1);
    entry.top_refs[1] = test::Ref(2);
    routes.Publish(*image);
    game.ListAsGame(0);
    PatchGame();
    const LPWSPSTARTUP start = &WSPStartup;
    FARPROC self = nullptr;
    std::memcpy(&self, &start, sizeof self);
    port::RegisterModule(L"C:\\vyr\\vyr_lsp.dll", {{"WSPStartup", self}});
    port::SetProviderPath(test::kLayerGuid, L"C:\\vyr\\vyr_lsp.dll");
    port::UseCatalogue(true);
  }

  void PatchGame() {
    const HANDLE region = OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, kRestrictionRegionName);
    auto* const view = static_cast<RestrictionRegion*>(
        MapViewOfFile(region, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(RestrictionRegion)));
    view->games[0].acc_mode = 1;
    view->games[0].log_level = 0;
    UnmapViewOfFile(view);
    CloseHandle(region);
  }

  test::ClientRegion<IpTableRegion> ips;
  test::RouteClient routes;
  test::GameProcess game;
  Node node_a, node_b;
};

SCENARIO_F_SEEDS(RelayCore, AGamesConnectionGoesThroughTheNode, 20) {
  const SOCKET s = Tcp();
  ASSERT_EQ(ConnectTo(s, kServer, kServerPort), 0);
  EXPECT_EQ(PeerOf(s), "198.51.100.10:80");
  EXPECT_EQ(SendText(s, "hello"), 5);
  EXPECT_EQ(Exactly(s, 5), "hello");
  ASSERT_EQ(node_a.requests.size(), 1u);
  EXPECT_EQ(u32{node_a.requests[0].body.game_ip}, ntohl(test::Ip(kServer)));
  EXPECT_EQ(int{node_a.requests[0].body.game_port}, kServerPort);
  EXPECT_EQ(u32{node_a.requests[0].body.game_idc}, kGameIdc);
  EXPECT_EQ(common::u64{node_a.requests[0].body.uin}, 10001u);
  EXPECT_EQ(node_a.requests[0].body.retry, 0);
  closesocket(s);
  RunFor(1s);
}

SCENARIO_F_SEEDS(RelayCore, ASilentNodeCostsTimeAndTwoGoToTheServer, 20) {
  node_a.silent = true;
  const SOCKET first = Tcp();
  ASSERT_EQ(ConnectTo(first, kServer, kServerPort), 0);
  SendText(first, "early");
  EXPECT_EQ(Exactly(first, 5), "early");
  EXPECT_EQ(node_b.requests.size(), 1u);
  EXPECT_EQ(node_b.requests[0].body.retry, 1);
  EXPECT_GE(world.now(), 5s);
  closesocket(first);

  node_b.silent = true;
  const SOCKET second = Tcp();
  ASSERT_EQ(ConnectTo(second, kServer, kServerPort), 0);
  SendText(second, "late");
  EXPECT_EQ(Exactly(second, 4), "late");
  EXPECT_EQ(node_b.requests.size(), 2u);
}

// A socket value that comes back within a pass must not bring its old event with it.
SCENARIO_F_SEEDS(RelayCore, ValuesThatComeBackAtOnceConfuseNobody, 30) {
  world.ReuseSocketHandles(true);
  node_a.silent = node_b.silent = true;
  const SOCKET s = Tcp();
  ASSERT_EQ(ConnectTo(s, kServer, kServerPort), 0);
  SendText(s, "hello");
  EXPECT_EQ(Exactly(s, 5), "hello");
}

SCENARIO_F(RelayCore, AWorkerThatCannotStartLetsTheConnectionGoDirect) {
  world.FailThreadStart(1);
  const SOCKET s = Tcp();
  ASSERT_EQ(ConnectTo(s, kServer, kServerPort), 0);
  EXPECT_EQ(SendText(s, "hello"), 5);
  EXPECT_EQ(Exactly(s, 5), "hello");
  EXPECT_TRUE(node_a.requests.empty());
  EXPECT_EQ(GetRelayMgr().GetWorkerThreadId(), 0u);
  closesocket(s);
  // The next socket tries again.
  const SOCKET second = Tcp();
  ASSERT_EQ(ConnectTo(second, kServer, kServerPort), 0);
  SendText(second, "again");
  EXPECT_EQ(Exactly(second, 5), "again");
  EXPECT_EQ(node_a.requests.size(), 1u);
}

SCENARIO(RelayMgr, TokensCountFromOne) {
  EXPECT_EQ(GetRelayMgr().NextToken(), 1u);
  EXPECT_EQ(GetRelayMgr().NextToken(), 2u);
}

SCENARIO(RelayMgr, AnIdleWorkerEndsWithinTwoPasses) {
  test::LogCapture log(0);
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  const auto before = world.now();
  relay.Stop();
  EXPECT_LE(world.now() - before, 61ms);
  EXPECT_TRUE(log.Contains("[0][lsp]RelayMgr::WorkerProc, FD_SIZE=128\n"));
  EXPECT_TRUE(log.Contains("[0][lsp]RelayMgr::WorkerProc Quit\n"));
  EXPECT_EQ(relay.GetWorkerThreadId(), 0u);
  EXPECT_TRUE(relay.IsStopping());
  // Kept: it says that it runs, and nobody does.
  EXPECT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  EXPECT_FALSE(world.IsRunning(relay.GetWorkerThreadId()));
  EXPECT_TRUE(relay.IsStopping());
}

SCENARIO(RelayMgr, AWorkerThatDoesNotEndIsKilled) {
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  const DWORD worker = relay.GetWorkerThreadId();
  world.Stall(worker, 10s);
  const auto before = world.now();
  relay.Stop();
  EXPECT_EQ(world.now() - before, 200ms);
  RunFor(20s);
  EXPECT_FALSE(world.IsRunning(worker));
  // What it may have held is not asked for again.
  sockaddr_in server = At(kServer, 80);
  sockaddr* relay_addr = nullptr;
  int size = 0;
  EXPECT_FALSE(relay.RequestTcpRelaySession(5, 6, &server, &relay_addr, &size, 7));
  EXPECT_EQ(relay_addr, nullptr);
}

int WSPAPI StartSlowly(WORD, LPWSPDATA, LPWSAPROTOCOL_INFOW, WSPUPCALLTABLE, LPWSPPROC_TABLE out) {
  Sleep(5000);
  *out = port::BaseProviderTable();
  return 0;
}

// The library's worker, over a provider that takes five seconds to start.
void UseSlowProvider() {
  const LPWSPSTARTUP start = &StartSlowly;
  FARPROC function = nullptr;
  std::memcpy(&function, &start, sizeof function);
  port::RegisterModule(test::kForeignPath, {{"WSPStartup", function}});
  port::SetProviderPath(test::kForeignGuid, test::kForeignPath);
  port::SetCatalogue({port::MakeEntry(test::kForeignGuid, 3000, SOCK_STREAM, 6, {})});
  port::UseCatalogue(true);
}

// The game's first connections go direct rather than wait for it again and again.
SCENARIO(RelayMgr, AWorkerThatStartsLateIsWaitedForOnce) {
  UseSlowProvider();
  test::LogCapture log(4);
  RelayMgr& relay = GetRelayMgr();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_GE(world.now(), 3000ms);
  EXPECT_LE(world.now(), 3010ms);
  EXPECT_TRUE(log.Contains("[4][lsp]RelayMgr::CheckAndInit, initialization is 1\n"));
  const auto before = world.now();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_EQ(world.now(), before);
  RunFor(3s);
  EXPECT_TRUE(relay.CheckAndInit(3000));
}

sim::Options CounterEndsInASecond() {
  sim::Options options;
  options.tick_start = 0u - 1000u;
  return options;
}

// Kept: with the counter's new beginning the time that has passed cannot be told, and the game
// waits until the worker is there.
SCENARIO_OPTIONS(RelayMgr, ALateWorkerIsWaitedForToItsEndAcrossTheWrap, CounterEndsInASecond()) {
  UseSlowProvider();
  EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000));
  EXPECT_GE(world.now(), 5000ms);
  EXPECT_LE(world.now(), 5010ms);
}

// Kept: a stream relay is there once its socket is bound, whether it listens or not.
SCENARIO(RelayMgr, AStreamRelayThatCannotListenCountsAsStarted) {
  port::FailCall("listen", 1, WSAEOPNOTSUPP);
  test::LogCapture log(4);
  EXPECT_TRUE(GetRelayMgr().CheckAndInit(3000));
  EXPECT_TRUE(log.Contains("[TCP] OnCreateLocalServer listen return=-1, err=10045\n"));
}

// The datagram relay makes the worker's first socket, the stream relay its second.
void ExpectFailsOnce(sim::World& world, unsigned failing_socket, const char* udp_init) {
  port::FailCall("WSPSocket", failing_socket, WSAENOBUFS);
  test::LogCapture log(4);
  RelayMgr& relay = GetRelayMgr();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_TRUE(log.Contains(std::string("RelayMgr::InternalInit, UDP init is ") + udp_init));
  EXPECT_TRUE(log.Contains("RelayMgr::InternalInit, TCP init is false\n"));
  EXPECT_TRUE(log.Contains("RelayMgr::CheckAndInit, initialization is -2147467259\n"));
  const auto before = world.now();
  EXPECT_FALSE(relay.CheckAndInit(3000));
  EXPECT_EQ(world.now(), before);
}

SCENARIO(RelayMgr, AWorkerWithoutADatagramRelayIsNotTriedAgain) {
  ExpectFailsOnce(world, 1, "false\n");
}

SCENARIO(RelayMgr, AWorkerWithoutAStreamRelayIsNotTriedAgain) {
  ExpectFailsOnce(world, 2, "true\n");
}

SCENARIO(RelayMgr, AnErrorOfSelectEndsTheWorkerOnlyIfItIsOneOfThree) {
  test::LogCapture log(0);
  RelayMgr& relay = GetRelayMgr();
  ASSERT_TRUE(relay.CheckAndInit(3000));
  RunFor(1s);
  const DWORD worker = relay.GetWorkerThreadId();
  port::FailCall("WSPSelect", 1, WSAENOTSOCK);
  RunFor(1s);
  EXPECT_TRUE(log.Contains("[0][lsp]RelayMgr::WorkerProc select return error = 10038\n"));
  EXPECT_TRUE(world.IsRunning(worker));
  port::FailCall("WSPSelect", 1, WSAENETDOWN);
  RunFor(1s);
  EXPECT_FALSE(world.IsRunning(worker));
  EXPECT_TRUE(log.Contains("[0][lsp]RelayMgr::WorkerProc Quit\n"));
}

}  // namespace
