// How a flow ends while another node is on trial, and after a trial. At stake: every node that
// still holds the flow gets one end message, and no socket is left open.
#include "tests/scenario/switch_world.h"
//
#include "port/shared/faults.h"
#include "tests/support/link_judge.h"
#include "tests/support/log_texts.h"

namespace {

using namespace switch_test;  // NOLINT

class SwitchEnd : public SwitchWorld {
 protected:
  void Ends() {
    a.Takes();
    b.Takes();
    session.reset();
  }
  void ExpectNothingLeft() {
    for (const auto& [socket, delegate] : loop.delegates) {
      EXPECT_EQ(dynamic_cast<UdpRemoteSession*>(delegate), nullptr) << socket;
      EXPECT_EQ(dynamic_cast<UdpSwitchRemoteSession*>(delegate), nullptr) << socket;
    }
  }
  // What waits for the game keeps the flow, until a trial has made sure of its node.
  void MovesWhileItIsClosing() {
    IsCarried();
    IsVerified();
    a.SendsData("waits");
    Sleep(1);
    port::FailCall("sendto", 1, WSAEWOULDBLOCK);
    loop.delegates[local_sock]->OnReadable(local_sock);
    loop.wants_room.clear();  // there is no room for a long time
    EXPECT_FALSE(session->CanClose());
    b.SendsData("proof");
    Turn();
    ASSERT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  }
};

SCENARIO_F(SwitchEnd, ClosingStopsItsProbes) {
  IsCarried();
  IsVerifying();
  flow->SetClosing();
  b.Takes();
  HealthyTurns(50);
  EXPECT_EQ(Results(), Outcomes{});
  EXPECT_TRUE(b.Takes().empty());
  EXPECT_TRUE(a.Takes().empty()) << "nor are there any of the old link";
}

// While it negotiates it has no address for an end message.
SCENARIO_F(SwitchEnd, WhileItNegotiates) {
  IsCarried();
  ASSERT_TRUE(Fires());
  Ends();
  EXPECT_EQ(a.TakenEnds(), 1);
  EXPECT_EQ(b.TakenEnds(), 0);
  EXPECT_EQ(Count(test::kTrialSendFailed), 1) << "kept: it is tried";
  ExpectNothingLeft();
}

SCENARIO_F(SwitchEnd, WhileItIsVerified) {
  IsCarried();
  IsVerifying();
  Ends();
  EXPECT_EQ(a.TakenEnds(), 1);
  const std::vector<Wrapped> last = b.Takes();
  ASSERT_EQ(last.size(), 1u);
  EXPECT_TRUE(last[0].IsEnd());
  EXPECT_EQ(last[0].accl_token, b.accl_token);
  EXPECT_EQ(last[0].seq, 2u);
  ExpectNothingLeft();
}

// Kept: the trial's own counter does not include what its parent has sent through it.
SCENARIO_F(SwitchEnd, OnceItIsVerified) {
  IsCarried();
  IsVerified();
  for (const char* text : {"one", "two", "three"}) {
    GameSends(text);
    Turn();
  }
  EXPECT_EQ(b.TakenData(), "one two three");
  Ends();
  EXPECT_EQ(a.TakenEnds(), 1);
  const std::vector<Wrapped> last = b.Takes();
  ASSERT_EQ(last.size(), 1u);
  EXPECT_TRUE(last[0].IsEnd());
  EXPECT_EQ(last[0].seq, 2u);
  ExpectNothingLeft();
}

// A flow that waits for room to leave may still be moved, by answers to probes that come late: then
// what waits leaves as a new node is verified, and the flow ends behind the trial that calls.
SCENARIO_F(SwitchEnd, AFlowThatIsClosingEndsAsATrialIsVerified) {
  config.max_delay_avg = 300;
  ASSERT_NO_FATAL_FAILURE(MovesWhileItIsClosing());
  ASSERT_TRUE(flow->OwesServers());
  for (int i = 0; i < 100 && Trial() == nullptr; ++i) {
    b.SendsRaw(b.LateProbeAnswer(static_cast<u32>(i + 1), 500));
    Turn(100);
  }
  ASSERT_NE(Trial(), nullptr) << log->Text();
  EXPECT_FALSE(session->IsCloseWanted());
  Turn();
  ASSERT_TRUE(a.IsAsked());
  a.Answers();
  Turn();
  b.TakenData();
  for (int i = 0; i < 20 && !session->IsCloseWanted(); ++i) HealthyTurns(1);
  EXPECT_TRUE(session->IsCloseWanted()) << log->Text();
  EXPECT_EQ(GameGets(), "proof waits");
  EXPECT_TRUE(session->CanClose());
}

// Neither is such a flow measured any more, over whatever node.
SCENARIO_F(SwitchEnd, AFlowThatMovesWhileItIsClosingSendsNoProbes) {
  ASSERT_NO_FATAL_FAILURE(MovesWhileItIsClosing());
  b.Takes();
  Turns(400);
  EXPECT_TRUE(b.Takes().empty());
}

// Answers that come late judge nothing any more.
SCENARIO_F(SwitchEnd, AFlowThatIsClosingBeginsNoTrial) {
  config.max_delay_avg = 300;
  for (const bool closing : {false, true}) {
    IsCarried();
    if (closing) flow->SetClosing();
    for (int i = 0; i < 100 && Trial() == nullptr; ++i) {
      a.SendsRaw(a.LateProbeAnswer(static_cast<u32>(i + 1), 500));
      Turn(100);
    }
    EXPECT_EQ(Trial() == nullptr, closing) << log->Text();
    session.reset();
    loop.delegates.clear();
    provider.Uninit();
    while (b.IsAsked()) continue;
  }
}

SCENARIO_F(SwitchEnd, AfterItHasFailed) {
  config.switching_max_real_route_lost = 0;
  IsCarried();
  IsVerifying();
  while (Results().empty()) HealthyTurns(1);
  Ends();
  EXPECT_EQ(a.TakenEnds(), 1);
  EXPECT_EQ(b.TakenEnds(), 0) << "a final state says nothing more";
  ExpectNothingLeft();
}

SCENARIO_F(SwitchEnd, WhileTheRelayStopsNoNodeIsNotified) {
  for (int stage = 0; stage < 4; ++stage) {
    if (stage != 0) {
      stopping = false;
      loop.delegates.clear();
      provider.Uninit();
    }
    if (stage == 0) IsCarried(), Fires();
    if (stage == 1) IsCarried(), IsVerifying();
    if (stage == 2) IsCarried(), IsVerified();
    if (stage == 3) IsCarried(), IsTakenOver();
    stopping = true;
    Ends();
    EXPECT_EQ(a.TakenEnds(), 0) << stage;
    EXPECT_EQ(b.TakenEnds(), 0) << stage;
    ExpectNothingLeft();
    while (b.IsAsked()) {
    }
  }
}

// --- after a hand-over -------------------------------------------------------------------------

// The game knows one port, whichever socket faces the node.
SCENARIO_F(SwitchEnd, ABlockedAnswerIsStillSentFromTheGamesPort) {
  IsCarried();
  IsTakenOver();
  EXPECT_EQ(GameGets(), "proof");
  sockaddr_in relay = {}, from = {};
  ASSERT_TRUE(session->GetRelayAddr(&relay));
  b.SendsData("waits");
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  Turn();
  port::ClearFaults();
  ASSERT_TRUE(ReadableWithin(game, 0));
  char bytes[16];
  int size = sizeof from;
  EXPECT_EQ(recvfrom(game, bytes, sizeof bytes, 0, Raw(from), &size), 5);
  EXPECT_EQ(from.sin_port, relay.sin_port);
  EXPECT_TRUE(Logged("UdpRemoteSession::" + test::Flushed(1, 0) + ", token=77"));
}

SCENARIO_F(SwitchEnd, AFlowThatHasMovedClosesBothItsSockets) {
  IsCarried();
  IsTakenOver();
  std::vector<SOCKET> own;
  for (const auto& [socket, delegate] : loop.delegates) {
    if (delegate == flow) own.push_back(socket);
  }
  ASSERT_EQ(own.size(), 2u);
  session.reset();
  for (const SOCKET socket : own) {
    EXPECT_FALSE(loop.Has(socket));
    sockaddr_in name = {};
    int size = sizeof name;
    EXPECT_EQ(ErrorOf(getsockname(socket, Raw(name), &size)), WSAENOTSOCK);
  }
}

}  // namespace
