// A request for datagrams that the node's host sends back, over the system's own sockets: the next
// way is taken at once.
#include <gtest/gtest.h>

#include <atomic>

#include "abi/mending_formats.h"
#include "tests/support/hand_turned.h"
#include "tests/support/loopback.h"
#include "tests/support/mended.h"
#include "tests/support/route_fixture.h"
#include "udp/udp_provider.h"
#include "udp/udp_session.h"

namespace moru_vyr::lsp {
namespace {

constexpr char kServer[] = "203.0.113.1";

// One node on this host, at a port where nothing listens.
struct RefusedRequest : test::RoutePolicy {
  RefusedRequest() {
    sockaddr_in node;
    closesocket(test::BoundSocket(SOCK_DGRAM, &node));
    test::AddProxy(image, 1, "127.0.0.1").proxy_port = ntohs(node.sin_port);
    image.proxies[0].surport_isps = 1;
    test::AddRoute(image.route_sets[0], 11, test::Ref(1)).top_refs[0] = test::Ref(1);
    Publish();
    LoadIps({{11, test::Ip(kServer)}});
    EXPECT_TRUE(provider.Init(&loop, &route));
  }
  ~RefusedRequest() override { provider.Uninit(); }

  static sockaddr_in Server() {
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_addr.s_addr = test::Ip(kServer);
    server.sin_port = htons(27015);
    return server;
  }
  // A datagram of the game begins the negotiation, which is given a second, but no timer.
  bool IsLeftAtOnce() {
    sockaddr_in game;
    const test::OwnSocket socket(test::BoundSocket(SOCK_DGRAM, &game));
    UdpSession session(&provider, 1, game, Server(), 8192, 8192);
    EXPECT_TRUE(session.Init());
    u8 bytes[] = {1, 2, 3};
    session.RouteFromGame({bytes, sizeof bytes, sizeof bytes, Server()});
    for (int i = 0; i < 100 && !IsDirect(); ++i) loop.Turn();
    return IsDirect();
  }
  bool IsDirect() const {
    return log.Contains("OnNegotiationFailed, reason=208, ") &&
           log.Contains("OnNegotiationFailed, begin direct mode, ");
  }

  test::HandTurned loop;
  const std::atomic<bool> stopping{false};
  UdpProvider provider{stopping};
};

TEST_F(RefusedRequest, LeavesTheNodeAtOnceIfThatIsMended) {
#ifdef _WIN32
  GTEST_SKIP() << "Wine's host tells unconnected sockets nothing";
#endif
  const test::Mended mended(kMendFailedNode);
  EXPECT_TRUE(IsLeftAtOnce()) << log.Text();
}

TEST_F(RefusedRequest, OtherwiseItIsWaitedFor) { EXPECT_FALSE(IsLeftAtOnce()); }

}  // namespace
}  // namespace moru_vyr::lsp
