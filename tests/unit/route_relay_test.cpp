// Which destinations the relay takes: the order of the sources, the order of the tests.
#include <gtest/gtest.h>

#include <string>

#include "tests/support/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;
using test::Ip;
using test::Port;

constexpr SOCKET kRelayed = 400;
constexpr u32 kRelayedToken = 77;

class GameIdc : public test::RoutePolicy {
 protected:
  // 0 for a destination that is not found.
  u32 Find(const char* ip, u16 port, bool ignore_port = false) {
    u32 idc = 99;
    const bool found = route.GetGameIDC(Ip(ip), Port(port), &idc, ignore_port);
    EXPECT_EQ(found, idc != 0);
    return idc;
  }
};

TEST_F(GameIdc, SourcesRankInTheirOrder) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  LoadSpurs({{2001, Ip("203.0.113.1")}, {2002, Ip("203.0.113.2")}});
  LoadPorts({{80, 3001}, {443, 3002}});
  EXPECT_EQ(Find("203.0.113.1", 80), 1001u) << "the IP table before all";
  EXPECT_EQ(Find("203.0.113.2", 80), 2002u) << "the spur list before the ports";
  EXPECT_EQ(Find("203.0.113.3", 443), 3002u);
  EXPECT_EQ(Find("203.0.113.3", 81), 0u);
  LoadPorts({{80, 3001}, {0, 4001}});
  EXPECT_EQ(Find("203.0.113.1", 80), 1001u);
  EXPECT_EQ(Find("203.0.113.2", 80), 2002u);
  EXPECT_EQ(Find("203.0.113.3", 81), 4001u);
  // A load that brings ports back does not take the data centre of all ports away.
  LoadPorts({{80, 3001}});
  EXPECT_EQ(Find("203.0.113.3", 80), 4001u) << "that of all ports before that of one";
}

TEST_F(GameIdc, HitsAreLoggedByTheirSource) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  LoadSpurs({{2002, Ip("203.0.113.2")}});
  LoadPorts({{80, 3001}});
  Find("203.0.113.1", 80);
  EXPECT_FALSE(log.Contains("[GetGameIDC]")) << "the common case is silent";
  Find("203.0.113.2", 80);
  EXPECT_TRUE(log.Contains("[0][lsp][Route][GetGameIDC] Got one match in spur iplist, ip=" +
                           std::to_string(Ip("203.0.113.2")) + ", idc=2002\n"));
  Find("203.0.113.3", 80);
  EXPECT_TRUE(log.Contains("[0][lsp][Route][GetGameIDC] Got match idc, port=80, idc = 3001\n"));
  Find("203.0.113.3", 81, true);
  EXPECT_TRUE(log.Contains("[0][lsp][Route][GetGameIDC] Got match idc, ignore port, idc = 3001\n"));
  LoadPorts({{0, 4001}});
  Find("203.0.113.3", 80);
  EXPECT_TRUE(log.Contains("[0][lsp][Route][GetGameIDC] Got all pass idc = 4001\n"));
}

TEST_F(GameIdc, WithoutIpOrPortOnlyTheListsAreAsked) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  LoadSpurs({{2002, Ip("203.0.113.2")}});
  LoadPorts({{80, 3001}});
  for (const bool all_ports : {false, true}) {
    if (all_ports) LoadPorts({{0, 4001}});
    for (const bool ignore_port : {false, true}) {
      EXPECT_EQ(Find("203.0.113.1", 0, ignore_port), 1001u);
      EXPECT_EQ(Find("203.0.113.2", 0, ignore_port), 2002u);
      EXPECT_EQ(Find("203.0.113.3", 0, ignore_port), 0u);
      EXPECT_EQ(Find("0.0.0.0", 80, ignore_port), 0u);
    }
  }
}

TEST_F(GameIdc, AnyPortWillDoIsTheLowestPort) {
  EXPECT_EQ(Find("203.0.113.3", 81, true), 0u) << "there is none";
  LoadPorts({{443, 3002}, {80, 3001}, {8080, 3003}});
  EXPECT_EQ(Find("203.0.113.3", 8080, true), 3003u) << "its own first";
  EXPECT_EQ(Find("203.0.113.3", 81, true), 3001u);
  EXPECT_EQ(Find("203.0.113.3", 81, false), 0u);
}

TEST_F(GameIdc, PortIsComparedInHostOrder) {
  LoadPorts({{0x1234, 3001}});
  EXPECT_EQ(Find("203.0.113.3", 0x1234), 3001u);
  EXPECT_EQ(Find("203.0.113.3", 0x3412), 0u);
}

TEST_F(GameIdc, MissWritesZeroAndNullIsRefused) {
  u32 idc = 5;
  EXPECT_FALSE(route.GetGameIDC(Ip("203.0.113.1"), Port(80), &idc, false));
  EXPECT_EQ(idc, 0u);
  EXPECT_FALSE(route.GetGameIDC(Ip("203.0.113.1"), Port(80), nullptr, false));
  EXPECT_TRUE(log.Contains("[4][lsp][Route][GetGameIDC] Invalid Game idc pointer\n"));
}

// --- NeedRelay -------------------------------------------------------------------------------

class RelayQuestion : public GameIdc {
 protected:
  RelayQuestion() {
    config.game_id = 5;
    config.excluded_port_count = 1;
    config.excluded_ports[0] = 8000;
    ReplaceAccConfig(config);
  }
  bool Need(const char* ip, u16 port, i32 socket_type = SOCK_STREAM) {
    return route.NeedRelay(Ip(ip), Port(port), socket_type, kRelayed, kRelayedToken);
  }
  void Say(const std::string& line) {
    EXPECT_TRUE(log.Contains(line + "\n")) << line << "\nis not in\n" << log.Text();
  }
};

TEST_F(RelayQuestion, EachCheckPrecedesTheNext) {
  EXPECT_FALSE(Need("10.0.0.1", 8000));
  Say("[0][lsp][Route][NeedRelay] Ready to Check Relay(10.0.0.1:8000), socket=400, "
      "socket_type=1, token=77");
  Say("[4][lsp][Route][NeedRelay] inner IP(10.0.0.1), socket=400, token=77");

  EXPECT_FALSE(Need("203.0.113.1", 8000));
  Say("[4][lsp][Route][NeedRelay] IP table not ready, socket=400, token=77");

  LoadIps({{1001, Ip("203.0.113.1")}, {1002, Ip("10.0.0.1")}});
  EXPECT_FALSE(Need("10.0.0.1", 80)) << "inner even if listed";
  EXPECT_FALSE(Need("203.0.113.9", 8000));
  Say("[4][lsp][Route][NeedRelay] Port(8000) not accelerate, socket=400, token=77");

  LoadBlacklist({{5, 0, 0, 1, {}}});
  EXPECT_FALSE(Need("203.0.113.9", 80));
  Say("[4][lsp][Route][NeedRelay] IP(203.0.113.9:80) is not in ip table, socket=400, token=77");

  EXPECT_FALSE(Need("203.0.113.1", 80));
  Say("[4][lsp][Route][NeedRelay] it is in acc blacklist, socket=400, token=77");

  LoadBlacklist({});
  EXPECT_TRUE(Need("203.0.113.1", 80));
  Say("[5][lsp][Route][NeedRelay] game server IP(203.0.113.1) IDC(1001), will relay socket=400, "
      "token=77");
}

TEST_F(RelayQuestion, ExcludedPortAppliesToStreamsOnly) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  EXPECT_FALSE(Need("203.0.113.1", 8000, SOCK_STREAM));
  EXPECT_TRUE(Need("203.0.113.1", 8000, SOCK_DGRAM));
}

TEST_F(RelayQuestion, BlacklistForDatagramsLetsStreamsPass) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  LoadBlacklist({{0, Ip("203.0.113.1"), 0, 2, {}}});
  EXPECT_FALSE(Need("203.0.113.1", 80, SOCK_DGRAM));
  EXPECT_TRUE(Need("203.0.113.1", 80, SOCK_STREAM));
}

TEST_F(RelayQuestion, BlacklistOfNothingButATypeMatchesNothing) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  LoadBlacklist({{0, 0, 0, 1, {}}});
  EXPECT_TRUE(Need("203.0.113.1", 80));
}

TEST_F(RelayQuestion, OtherSourcesDoNotHelpWithoutAnIpTable) {
  LoadSpurs({{2002, Ip("203.0.113.2")}});
  LoadPorts({{0, 4001}});
  EXPECT_FALSE(Need("203.0.113.2", 80));
  Say("[4][lsp][Route][NeedRelay] IP table not ready, socket=400, token=77");
}

TEST_F(RelayQuestion, AllPortsAdmitEveryDestinationWithAnAddressAndAPort) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  LoadPorts({{0, 4001}});
  EXPECT_TRUE(Need("198.51.100.1", 1));
  EXPECT_TRUE(Need("198.51.100.1", 65535, SOCK_DGRAM));
  EXPECT_FALSE(Need("198.51.100.1", 0));
  EXPECT_FALSE(Need("0.0.0.0", 80));
  EXPECT_TRUE(Need("203.0.113.1", 0)) << "the IP table needs no port";
}

TEST_F(RelayQuestion, ProxiesAndTheRouteTableDoNotMatterHere) {
  LoadIps({{1001, Ip("203.0.113.9")}});
  test::AddProxy(image, 9, "203.0.113.9");
  Publish();
  EXPECT_TRUE(Need("203.0.113.9", 80));
}

TEST_F(RelayQuestion, VerdictNamesTheTestThatDecided) {
  const auto verdict = [this](const char* ip, u16 port) {
    u32 idc = 0;
    return route.ExamineRelay(Ip(ip), Port(port), SOCK_STREAM, &idc);
  };
  EXPECT_EQ(verdict("127.0.0.1", 80), RelayVerdict::kInnerIp);
  EXPECT_EQ(verdict("203.0.113.1", 80), RelayVerdict::kNoIpTable);
  LoadIps({{1001, Ip("203.0.113.1")}});
  EXPECT_EQ(verdict("203.0.113.1", 8000), RelayVerdict::kExcludedPort);
  EXPECT_EQ(verdict("203.0.113.2", 80), RelayVerdict::kNotInIpTable);
  EXPECT_EQ(verdict("203.0.113.1", 80), RelayVerdict::kWillRelay);
  LoadBlacklist({{0, 0, 80, 1, {}}});
  EXPECT_EQ(verdict("203.0.113.1", 80), RelayVerdict::kBlacklisted);
}

TEST_F(RelayQuestion, SocketAddressIsTakenApart) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = Ip("203.0.113.1");
  address.sin_port = Port(8000);
  EXPECT_FALSE(route.NeedRelay(&address, SOCK_STREAM, kRelayed, kRelayedToken));
  Say("[4][lsp][Route][NeedRelay] Port(8000) not accelerate, socket=400, token=77");
  address.sin_port = Port(8001);
  EXPECT_TRUE(route.NeedRelay(&address, SOCK_STREAM, kRelayed, kRelayedToken));
  EXPECT_FALSE(route.NeedRelay(nullptr, SOCK_STREAM, kRelayed, kRelayedToken));
}

TEST_F(RelayQuestion, SilentLevelsLogNothing) {
  LoadIps({{1001, Ip("203.0.113.1")}});
  common::SetLogThreshold(5);
  const std::string before = log.Text();
  Need("203.0.113.2", 80);
  EXPECT_EQ(log.Text(), before);
  Need("203.0.113.1", 80);
  EXPECT_NE(log.Text(), before);
}

}  // namespace
