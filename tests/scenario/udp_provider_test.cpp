// The provider of datagram relays, and a session, without the worker's loop. At stake: a relay that
// cannot start says so, and the address that a game is given is usable.
#include "udp/udp_provider.h"
//
#include <vector>

#include "abi/mending_formats.h"
#include "port/shared/faults.h"
#include "port/sim/sockets.h"
#include "route/route.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"
#include "tests/support/mended.h"
#include "udp/udp_remote_session.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT
using namespace sim_test;       // NOLINT

// Records what would be polled.
class Loop final : public IRelaySocketMgr {
 public:
  u32 AddSocket(SOCKET socket, IRelaySocketDelegate*) noexcept override {
    added.push_back(socket);
    return 0;
  }
  u32 EnableWrite(SOCKET) noexcept override { return 0; }
  void StopReading(SOCKET) noexcept override {}
  IRelaySocketDelegate* RemoveSocket(SOCKET socket) noexcept override {
    sockaddr_in name = {};
    int size = sizeof name;
    was_open = ErrorOf(getsockname(socket, Raw(name), &size)) != WSAENOTSOCK;
    removed.push_back(socket);
    return nullptr;
  }
  u32 NextToken() noexcept override { return 1; }

  std::vector<SOCKET> added, removed;
  bool was_open = false;  // the last one that was removed
};

class UdpAlone : public sim::ScenarioTest {
 protected:
  const std::atomic<bool> stopping{false};
  Route route;
  Loop loop;
  UdpProvider provider{stopping};
  test::LogCapture log{0};
};

// --- the control socket -----------------------------------------------------------------------

SCENARIO_F(UdpAlone, TheControlSocketIsOnTheLoopbackAddressAndDoesNotBlock) {
  ASSERT_TRUE(provider.Init(&loop, &route));
  ASSERT_EQ(loop.added.size(), 1u);
  const SOCKET control = loop.added[0];
  sockaddr_in name = {}, told = {};
  int size = sizeof name;
  ASSERT_EQ(getsockname(control, Raw(name), &size), 0);
  provider.GetLocalAddr(&told);
  EXPECT_EQ(name.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(told.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(told.sin_port, name.sin_port);
  EXPECT_EQ(IntOption(control, SO_SNDBUF), 65536);
  EXPECT_EQ(IntOption(control, SO_RCVBUF), 65536);
  EXPECT_EQ(Received(control), "error 10035");
  EXPECT_TRUE(log.Contains(test::kUdpListening + std::to_string(ntohs(name.sin_port))));
}

SCENARIO_F(UdpAlone, TheControlPortIsSharedWithNoOtherProgram) {
  ASSERT_TRUE(provider.Init(&loop, &route));
  sockaddr_in control = {};
  provider.GetLocalAddr(&control);
  const SOCKET thief = Udp();
  SetIntOption(thief, SO_REUSEADDR, 1);
  EXPECT_EQ(BindTo(thief, "127.0.0.1", ntohs(control.sin_port)), WSAEADDRINUSE);
}

SCENARIO_F(UdpAlone, WithoutASocketTheProviderDoesNotStart) {
  port::FailCall("socket", 1, WSAENOBUFS);
  EXPECT_FALSE(provider.Init(&loop, &route));
  EXPECT_TRUE(log.Contains("[UDP] UdpProvider::OnCreateLocalServer socket error=10055"));
  EXPECT_TRUE(loop.added.empty());
  EXPECT_FALSE(log.Contains("success"));
}

// Kept: a socket that has failed is polled all the same, and a log line reports success.
SCENARIO_F(UdpAlone, ASocketWithoutAPortIsKeptAndTheProviderDoesNotStart) {
  port::FailCall("bind", 1, WSAENOBUFS);
  EXPECT_FALSE(provider.Init(&loop, &route));
  EXPECT_EQ(loop.added.size(), 1u);
  EXPECT_EQ(IntOption(loop.added.at(0), SO_RCVBUF), 65536);
  EXPECT_TRUE(log.Contains(test::kUdpListening + "0"));
}

SCENARIO_F(UdpAlone, ASocketThatWouldBlockIsKeptAndTheProviderDoesNotStart) {
  port::FailCall("ioctlsocket", 1, WSAENOBUFS);
  EXPECT_FALSE(provider.Init(&loop, &route));
  EXPECT_EQ(loop.added.size(), 1u);
  EXPECT_TRUE(log.Contains("[UDP] UdpProvider::OnCreateLocalServer ioctlsocket , error=10055"));
  EXPECT_TRUE(log.Contains(test::kUdpListening));
}

SCENARIO_F(UdpAlone, AtItsEndTheControlSocketIsClosedAndThenForgotten) {
  ASSERT_TRUE(provider.Init(&loop, &route));
  provider.Uninit();
  EXPECT_EQ(loop.removed, loop.added);
  EXPECT_FALSE(loop.was_open);
  sockaddr_in told = {};
  provider.GetLocalAddr(&told);
  EXPECT_EQ(told.sin_port, 0);
  EXPECT_TRUE(log.Contains(test::kUdpListenerClosed));
}

SCENARIO_F(UdpAlone, ASecondEndClosesNobodyElsesSocket) {
  world.ReuseSocketHandles(true);
  ASSERT_TRUE(provider.Init(&loop, &route));
  provider.Uninit();
  const SOCKET other = Udp();
  ASSERT_EQ(other, loop.added.at(0)) << "under the same handle";
  provider.Uninit();
  EXPECT_EQ(BindTo(other, "127.0.0.1", 5000), 0);
}

SCENARIO_F(UdpAlone, AnAnswerThatNobodyHasTakenOutlivesItsSession) {
  ASSERT_TRUE(provider.Init(&loop, &route));
  const SOCKET asking = Udp();
  const HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  const auto request = ProtoRelayOpen::Request(7, At("198.51.100.10", 27015), event, asking);
  sockaddr_in control = {};
  provider.GetLocalAddr(&control);
  ASSERT_EQ(sendto(asking, reinterpret_cast<const char*>(&request), sizeof request, 0, Raw(control),
                   sizeof control),
            static_cast<int>(sizeof request));
  RunFor(1ms);
  provider.OnReadable(loop.added.at(0));
  EXPECT_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  EXPECT_TRUE(log.Contains("success=true, ev_result=1, ev_error=0, socket=")) << log.Text();
  provider.Uninit();
  ProtoRelayOpen answer;
  ASSERT_TRUE(provider.GetCreateResult(7, &answer));
  EXPECT_TRUE(answer.opened());
  EXPECT_EQ(provider.UseQueue(answer.send_queue(), 7), nullptr) << "of what is no longer there";
}

// --- a session's address ----------------------------------------------------------------------

// Gives the last test access to a private member, which an explicit instantiation may name.
template <class Tag, typename Tag::Type kMember>
struct Opened {
  friend typename Tag::Type MemberOf(Tag) { return kMember; }
};
struct FirstSession {
  using Type = UdpRemoteSession* UdpSession::*;
  friend Type MemberOf(FirstSession);
};
template struct Opened<FirstSession, &UdpSession::first_remote_session_>;
struct LocalPort {
  using Type = u16 UdpRemoteSession::*;
  friend Type MemberOf(LocalPort);
};
template struct Opened<LocalPort, &UdpRemoteSession::local_port_>;

class UdpSessionAlone : public UdpAlone {
 protected:
  void SetUp() override { ASSERT_TRUE(provider.Init(&loop, &route)); }

  const sockaddr_in game = At("127.0.0.1", 5000);
  const sockaddr_in server = At("198.51.100.10", 27015);
  UdpSession session{&provider, 1, game, server, 30000, 40000};
  sockaddr_in relay = {};
};

SCENARIO_F(UdpSessionAlone, HasAnAddressOnceItsSocketIsMade) {
  EXPECT_FALSE(session.GetRelayAddr(&relay)) << "nothing is made yet";
  port::FailCall("bind", 1, WSAEACCES);
  EXPECT_FALSE(session.Init());
  EXPECT_FALSE(session.GetRelayAddr(&relay)) << "it could not be made";
  EXPECT_TRUE(
      log.Contains("[UDP] UdpRemoteSession::Init failed, remote_ip=198.51.100.10, token=1"));
  port::ClearFaults();
  ASSERT_TRUE(session.Init());
  ASSERT_EQ(loop.added.size(), 2u) << "the control socket and the one that is bound";
  EXPECT_FALSE(session.GetRelayAddr(nullptr));
  std::memset(&relay, 0x55, sizeof relay);
  ASSERT_TRUE(session.GetRelayAddr(&relay));
  sockaddr_in bound = {};
  int size = sizeof bound;
  ASSERT_EQ(getsockname(loop.added[1], Raw(bound), &size), 0);
  EXPECT_EQ(bound.sin_addr.s_addr, 0u) << "it listens on every address";
  const sockaddr_in expected = At("127.0.0.1", ntohs(bound.sin_port));
  EXPECT_EQ(std::memcmp(&relay, &expected, sizeof relay), 0) << "and the game gets the nearest";
  EXPECT_EQ(IntOption(loop.added[1], SO_SNDBUF), 30000);
  EXPECT_EQ(IntOption(loop.added[1], SO_RCVBUF), 40000);
  EXPECT_TRUE(session.Init());
  EXPECT_EQ(loop.added.size(), 2u) << "what is there is not made again";
}

// Its socket listens on every address, so without a claim of its own any program could bind the one
// that the game sends to, and would get the game's datagrams.
SCENARIO_F(UdpSessionAlone, NoOtherProgramGetsItsPortOnASingleAddress) {
  ASSERT_TRUE(session.Init());
  ASSERT_TRUE(session.GetRelayAddr(&relay));
  EXPECT_EQ(BindTo(Udp(), "127.0.0.1", ntohs(relay.sin_port)), WSAEADDRINUSE);
}

struct AsksForPorts {
  test::Mended mended{kMendDatagramMatch};
};

// The sockets that stand for the addresses of a session.
class UdpPortsAlone : public AsksForPorts, public UdpSessionAlone {
 protected:
  size_t HomeSockets() { return world.sockets().CountOf(world.home()); }
};

SCENARIO_F(UdpPortsAlone, HaveTheGamesBufferSizesAndEndWithIt) {
  const size_t sockets = HomeSockets();
  {
    UdpSession one(&provider, 2, game, server, 30000, 40000);
    ASSERT_TRUE(one.Init());
    ASSERT_EQ(loop.added.size(), 3u) << "the control socket, the flow's and the port's";
    EXPECT_EQ(IntOption(loop.added[2], SO_SNDBUF), 30000);
    EXPECT_EQ(IntOption(loop.added[2], SO_RCVBUF), 40000);
  }
  EXPECT_EQ(HomeSockets(), sockets);
}

SCENARIO_F(UdpPortsAlone, ThatCannotBeMadeLeaveNoSocket) {
  const size_t sockets = HomeSockets();
  for (const char* const call : {"bind", "ioctlsocket"}) {
    UdpSession one(&provider, 2, game, server, 30000, 40000);
    for (unsigned nth = 2; nth <= 1000; ++nth) port::FailCall(call, nth, WSAENOBUFS);
    EXPECT_FALSE(one.Init()) << call;
    port::ClearFaults();
    EXPECT_EQ(HomeSockets(), sockets + 1) << call << ": the flow's own";
  }
}

// No port that is drawn is 0, so this one is taken away.
SCENARIO_F(UdpSessionAlone, HasNoAddressWithoutAPort) {
  ASSERT_TRUE(session.Init());
  session.*MemberOf(FirstSession{})->*MemberOf(LocalPort{}) = 0;
  EXPECT_FALSE(session.GetRelayAddr(&relay));
  EXPECT_EQ(relay.sin_family, 0) << "and nothing is stored";
}

}  // namespace
