// Flows of sockets that were closed without telling the relay: the message could not be sent, the
// answer came too late, another thread's request came last, or the socket was closed while it was
// being asked for. At stake: a relay has 128 places, and a flow that nobody can use must release
// its socket and its node's flow once the game's own socket is gone.
#include "tests/scenario/udp_spied_world.h"
#include "tests/scenario/udp_swarm.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"
#include "port/sim/sockets.h"
#include "udp/relay_messages.h"
#include "udp/udp_package_queue.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT

bool IsOpen(const SentDatagram& one) {
  return !one.by_relay && one.text.size() == sizeof(ProtoRelayOpen);
}
bool IsClose(const SentDatagram& one) {
  return !one.by_relay && one.text.size() == sizeof(ProtoRelayClose);
}

class UdpUntold : public UdpSpiedWorld {
 protected:
  void Begins() {
    Starts();
    ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
    base_ = HomeSockets();
  }
  size_t HomeSockets() { return world.sockets().CountOf(world.home()); }
  void StallWorker(sim::Duration time) { world.Stall(GetRelayMgr().GetWorkerThreadId(), time); }
  // A socket with a flow through A.
  SOCKET Relayed() {
    const SOCKET s = Udp();
    EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
    EXPECT_EQ(a.Count("flow_opened"), ++flows_);
    EXPECT_EQ(HomeSockets(), base_ + 2);
    return s;
  }
  // Once the game's sockets are closed: the relay has nothing open, and nothing more is sent.
  void ExpectNothingLeft() {
    RunFor(500ms);
    EXPECT_EQ(HomeSockets(), base_) << log_text();
    sent.clear();
    RunFor(15s);  // a flow that lives is probed within ten
    EXPECT_TRUE(RelaySent().empty()) << sent.size();
  }
  // The same, and its node got the end message: a flow that was accepted is not left open there.
  void ExpectNothingLeftAnywhere() {
    ExpectNothingLeft();
    EXPECT_GT(a.Count("flow_opened"), 0u);
    EXPECT_TRUE(NodesAreFree()) << a.AllEvents();
  }

  size_t base_ = 0;
  size_t flows_ = 0;
};

// --- the message cannot be sent ---------------------------------------------------------------

SCENARIO_F(UdpUntold, AnEndThatWouldBlockIsFoundOut) {
  Begins();
  const SOCKET s = Relayed();
  fails = [](const SentDatagram& one) { return IsClose(one) ? WSAEWOULDBLOCK : 0; };
  sent.clear();
  closesocket(s);
  EXPECT_TRUE(Logged(test::CloseSendFailed(WSAEWOULDBLOCK))) << log_text();
  EXPECT_EQ(GameSent(), std::vector<std::string>{"close"}) << "said once, and not again";
  ExpectNothingLeftAnywhere();
  EXPECT_TRUE(GameSent().empty());
  EXPECT_EQ(a.Count("flow_closed"), 1u);
}

SCENARIO_F(UdpUntold, ATruncatedEndMessageIsDetected) {
  Begins();
  const SOCKET s = Relayed();
  // The relay must not act on a message that the provider has cut short.
  const auto send_to = NextProvider().lpWSPSendTo;
  NextProvider().lpWSPSendTo = [](SOCKET, LPWSABUF, DWORD, LPDWORD bytes, DWORD, const sockaddr*,
                                  int, LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                                  LPWSATHREADID, LPINT) {
    *bytes = 12;
    return 0;
  };
  closesocket(s);
  NextProvider().lpWSPSendTo = send_to;
  EXPECT_TRUE(Logged(test::CloseSentShort(12)));
  ExpectNothingLeftAnywhere();
}

SCENARIO_F(UdpUntold, AnEndWithoutACallIsDetected) {
  Begins();
  const SOCKET s = Relayed();
  const auto send_to = NextProvider().lpWSPSendTo;
  NextProvider().lpWSPSendTo = nullptr;
  closesocket(s);
  NextProvider().lpWSPSendTo = send_to;
  ExpectNothingLeftAnywhere();
}

// Datagrams that still wait to be sent delay the end, as after an announced one; and closing begins
// once.
SCENARIO_F(UdpUntold, AFlowThatWaitsForRoomIsClosing) {
  Begins();
  const SOCKET s = Relayed();
  fails = [](const SentDatagram& one) {
    const bool blocked = one.by_relay && one.text.find("farewell") != std::string::npos;
    return blocked || IsClose(one) ? WSAEWOULDBLOCK : 0;
  };
  EXPECT_EQ(Sends(s, "farewell"), 0);
  RunFor(100ms);
  closesocket(s);
  RunFor(1s);
  EXPECT_EQ(log_text().find("session enter closing state"),
            log_text().rfind("session enter closing state"));
  EXPECT_TRUE(Logged(test::kUdpSessionClosing));
  EXPECT_FALSE(Logged(test::kUdpSessionClosed));
  EXPECT_EQ(HomeSockets(), base_ + 1);
}

// --- the answer comes too late ----------------------------------------------------------------

// Kept: for as long as the game has its socket, the session and its answer stay.
SCENARIO_F(UdpUntold, ASessionThatCameTooLateEndsWithItsSocket) {
  Begins();
  const SOCKET s = Udp();
  const u32 token = RecordOf(s).token;
  StallWorker(600ms);
  EXPECT_EQ(Sends(s, "hello"), 0);
  EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused);
  RunFor(60s);
  EXPECT_EQ(HomeSockets(), base_ + 2);
  closesocket(s);
  ExpectNothingLeft();
  ProtoRelayOpen late;
  EXPECT_TRUE(GetRelayMgr().GetCreateResult(token, &late)) << "kept: the answer stays";
}

// Its token is the smallest there is.
SCENARIO_F(UdpUntold, TheFirstSocketOfAProcessEndsItsSessionToo) {
  game.IsStartedBySockets();
  const SOCKET s = Udp();
  ASSERT_EQ(RecordOf(s).token, 1u);
  ASSERT_TRUE(GetRelayMgr().CheckAndInit(3000));
  const size_t before = HomeSockets();
  StallWorker(600ms);
  EXPECT_EQ(Sends(s, "hello"), 0);
  RunFor(1s);
  EXPECT_EQ(HomeSockets(), before + 1) << "a session that came too late";
  closesocket(s);
  RunFor(500ms);
  EXPECT_EQ(HomeSockets(), before - 1);
}

SCENARIO_F(UdpUntold, ASessionCreatedAfterItsSocketWasClosedEndsAtOnce) {
  Begins();
  const SOCKET s = Udp();
  StallWorker(600ms);
  EXPECT_EQ(Sends(s, "hello"), 0);
  closesocket(s);
  EXPECT_EQ(HomeSockets(), base_);
  for (int i = 0; i < 1000 && !Logged(test::kUdpRelayAnswered); ++i) Sleep(1);
  ExpectNothingLeft();
  EXPECT_TRUE(Logged(test::kUdpSessionClosed)) << log_text();
}

// A note about a socket that was refused for good has no effect.
SCENARIO_F(UdpUntold, ARefusedSocketLeavesNothingAndEndsNoOtherSession) {
  Begins();
  const SOCKET other = Relayed();
  const SOCKET s = Udp();
  fails = [](const SentDatagram& one) { return IsOpen(one) ? WSAENOBUFS : 0; };
  EXPECT_EQ(Sends(s, "hello"), 0);
  closesocket(s);
  RunFor(5s);
  EXPECT_EQ(Receives(other, 0).text, "");
  EXPECT_EQ(Talks(other, "again"), "again from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), (std::vector<std::string>{"hello", "again"}));
  closesocket(other);
  ExpectNothingLeftAnywhere();
}

// --- two threads ask at once ------------------------------------------------------------------

// The refusal may be stored last: then the session carries what the other thread has sent, and the
// socket's record does not mention it.
SCENARIO_F_SEEDS(UdpUntold, ASessionThatASocketHasLostToASecondRequestEndsWithIt, 3) {
  Begins();
  int lost = 0;
  for (int i = 0; i < 40; ++i) {
    const SOCKET s = Udp();
    for (const char* text : {"one", "two"}) {
      GameThread([this, s, text] { EXPECT_EQ(Sends(s, text), 0); });
    }
    ASSERT_TRUE(RunToTheEnd());
    RunFor(100ms);
    const bool is_lost = RecordOf(s).relay_state == kRelayRefused && HomeSockets() > base_ + 1;
    lost += is_lost ? 1 : 0;
    closesocket(s);
    RunFor(500ms);
    EXPECT_EQ(HomeSockets(), base_) << i << "\n" << log_text();
  }
  EXPECT_GT(lost, 0) << "it did not happen in this world";
  ExpectNothingLeftAnywhere();
}

// --- the socket is closed during the request --------------------------------------------------

SCENARIO_F(UdpUntold, ASocketThatIsClosedWhileItAsksLeavesNothing) {
  Begins();
  for (const bool connects : {false, true}) {
    const SOCKET s = Udp();
    StallWorker(300ms);
    GameThread([&] { connects ? ConnectTo(s, kServer, kPort) : Sends(s, "hello"); });
    GameThread([&] {
      Sleep(100);
      closesocket(s);
    });
    ASSERT_TRUE(RunToTheEnd());
    EXPECT_TRUE(Logged(connects ? "[UDP] HandleUdpConnect:SetRelayAddr failed, socket="
                                : "[UDP] WSPSendTo: SetRelayAddr failed, socket="));
    ExpectNothingLeft();
  }
}

SCENARIO_F(UdpUntold, ASocketThatIsClosedWhileItWaitsForALateAnswerLeavesNothing) {
  Begins();
  const SOCKET s = Udp();
  StallWorker(600ms);
  GameThread([&] { Sends(s, "hello"); });
  GameThread([&] {
    Sleep(100);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_TRUE(Logged(test::kNoRelayAnswer));
  RunFor(200ms);
  ExpectNothingLeft();
}

// A new socket of the same handle is another one, and keeps its own relay.
SCENARIO_F(UdpUntold, TheEndOfOneSocketIsNotThatOfTheNextWithItsHandle) {
  world.ReuseSocketHandles(true);
  Begins();
  const SOCKET s = Udp();
  StallWorker(300ms);
  GameThread([&] { Sends(s, "hello"); });
  SOCKET other = INVALID_SOCKET;
  GameThread([&] {
    Sleep(100);
    closesocket(s);
    other = Udp();
    Sends(other, "mine");
  });
  ASSERT_TRUE(RunToTheEnd());
  ASSERT_EQ(other, s);
  RunFor(1s);
  EXPECT_EQ(HomeSockets(), base_ + 2) << "the new one and its relay";
  EXPECT_EQ(RecordOf(other).relay_state, kRelayRunning);
  closesocket(other);
  ExpectNothingLeftAnywhere();
}

// At any moment of the request.
SCENARIO_F_SEEDS(UdpUntold, ASocketMayGoAtAnyMoment, 12) {
  Begins();
  for (int i = 0; i < 10; ++i) {
    const SOCKET s = Udp();
    for (int n = 0; n < 2; ++n) GameThread([this, s] { Sends(s, "hello"); });
    GameThread([this, s] {
      Sleep(static_cast<DWORD>(world.random().Below(3)));
      closesocket(s);
    });
    ASSERT_TRUE(RunToTheEnd());
    RunFor(600ms);
    EXPECT_EQ(HomeSockets(), base_) << i << "\n" << log_text();
  }
  ExpectNothingLeft();
}

// --- in any order -----------------------------------------------------------------------------

// Sockets of several threads that come and go, over a worker that sleeps and events that are lost.
SCENARIO_F_SEEDS(UdpSwarm, NoSocketLeaksItsFlow, SwarmSeeds(10)) {
  Begins();
  bool over = false;
  GameThread([this, &over] {
    for (int n = 0; n < 20 && !over; ++n) {
      Sleep(static_cast<DWORD>(Below(400)));
      if (Chance(50)) {
        world.LoseSetEvent(1);
      } else {
        world.Stall(GetRelayMgr().GetWorkerThreadId(), Ms(900));
      }
    }
  });
  Run(8, 20, [this](Player* player) {
    player->senders = 1 + static_cast<int>(Below(3));
    player->stays_ms = static_cast<DWORD>(Below(500));
    player->leaves_early = Chance(50);
  });
  over = true;
  ExpectAtMostOnce();
  ExpectNothingIsLeft();
}

}  // namespace
