// Flows that move to another node, of a game whose client asks for mending: the move leaves nothing
// behind. The old node is heard out, the reports go on, and the next trouble finds a flow that can
// move again.
#include "abi/mending_formats.h"
#include "tests/scenario/switch_world.h"
#include "tests/scenario/udp_world.h"
#include "tests/support/log_texts.h"
//
#include "port/shared/faults.h"
#include "relay/node_choice.h"
#include "tests/support/link_judge.h"
#include "tests/support/mended.h"
#include "tests/support/report_client.h"
#include "tests/support/switch_config.h"
#include "tests/support/wire_bytes.h"
#include "tracker/tracker.h"

namespace {

using namespace switch_test;  // NOLINT
using moru_vyr::lsp::kMendAfterSwitch;
using moru_vyr::lsp::kMendFallback;
using moru_vyr::lsp::kMendJudgement;

// The client program has asked before the flow begins.
struct AsksForAfterSwitch {
  test::Mended mended{kMendAfterSwitch};
};

class MendedSwitch : public AsksForAfterSwitch, public SwitchWorld {
 protected:
  // The socket that carries the flow, once it has moved.
  SOCKET NewSocket() const {
    for (const auto& [socket, delegate] : loop.delegates) {
      if (delegate == flow && socket != local_sock) return socket;
    }
    return INVALID_SOCKET;
  }
};

SCENARIO_F(MendedSwitch, TheOldNodeIsHeardOutAndThenToldOfTheEnd) {
  IsCarried();
  IsTakenOver();
  EXPECT_EQ(GameGets(), "proof");
  a.Takes();
  a.SendsData("late");
  std::string marked = a.DataBytes("marked", 9, 101);
  marked[2] = 8;  // a probe's mark alone makes no probe
  a.SendsRaw(marked);
  a.SendsRaw(a.LateProbeAnswer(1, 40));
  a.SendsRaw("short");
  Turns(60);
  EXPECT_EQ(GameGets(), "late marked");
  EXPECT_TRUE(Logged("[UDP] UnWrapUdpAcclPackage failed, unpack error, ret="))
      << "the flow's words, as for its own node";
  EXPECT_EQ(a.TakenEnds(), 0);
  Turns(10);
  EXPECT_EQ(a.TakenEnds(), 1);
  a.SendsData("too late");
  Turn();
  EXPECT_EQ(GameGets(), "");
  session.reset();
  EXPECT_EQ(a.TakenEnds(), 0) << "told once";
  EXPECT_EQ(b.TakenEnds(), 1);
}

SCENARIO_F(MendedSwitch, AFlowThatEndsMeanwhileTellsBothNodes) {
  IsCarried();
  IsTakenOver();
  a.Takes();
  b.Takes();
  session.reset();
  EXPECT_EQ(a.TakenEnds(), 1);
  EXPECT_EQ(b.TakenEnds(), 1);
}

SCENARIO_F(MendedSwitch, ASecondSwitchHearsOutTheSocketInBetweenAndClosesIt) {
  IsCarried();
  IsTakenOver();
  const SOCKET in_between = NewSocket();
  Turns(2);
  ASSERT_TRUE(Fires());
  Turn();
  ASSERT_TRUE(a.IsAsked());
  a.Answers();
  Turn();
  HealthyTurns(10);
  a.SendsData("second");
  Turns(2);
  ASSERT_EQ(Results(), (Outcomes{SwitchResult::kTakenOver, SwitchResult::kTakenOver}));
  b.SendsData("late");
  Turn();
  EXPECT_EQ(GameGets(), "proof second late");
  EXPECT_TRUE(loop.Has(in_between));
  Turns(70);
  EXPECT_FALSE(loop.Has(in_between));
  EXPECT_EQ(Readiness(in_between), "error 10038") << "closed";
  EXPECT_EQ(b.TakenEnds(), 1);
  EXPECT_TRUE(loop.Has(local_sock)) << "the game's";
}

SCENARIO_F(MendedSwitch, TheReportsOfTheFlowGoOnUnderTheNewNode) {
  test::ReportClient client;
  GetTracker().Init();
  IsCarried();
  IsVerified();
  GameSends("over B");
  Turn();
  EXPECT_EQ(Counted(local_sock), "1 sent, 0 received");
  b.SendsData("proof");
  Turn();
  const SOCKET new_sock = NewSocket();
  EXPECT_EQ(Counted(local_sock), "nothing");
  EXPECT_EQ(Counted(new_sock), "2 sent, 1 received") << "of the flow, over either node";
  a.SendsData("late");
  Turn();
  EXPECT_EQ(Counted(new_sock), "2 sent, 2 received");
  session.reset();
  GetTracker().UnInit();
  int ended = 0;
  for (const CommInfoRecord& record : client.traffic->slots) {
    if (record.used == 0 || record.ended == 0) continue;
    ++ended;
    EXPECT_EQ(test::Value(record.proxy_idc), 2u);
    EXPECT_EQ(test::Value(record.total_sent_packets), 2u);
    EXPECT_EQ(test::Value(record.total_recv_packets), 2u);
    EXPECT_STREQ(record.game_ip, kServer);
    EXPECT_EQ(std::string(record.guid_str).size(), 36u);
  }
  EXPECT_EQ(ended, 1);
}

SCENARIO_F(MendedSwitch, DataBeforeTheVerdictReachesTheGameAndMovesNothing) {
  IsCarried();
  IsVerifying();
  b.SendsData("early");
  Turn();
  EXPECT_EQ(GameGets(), "early");
  EXPECT_EQ(Results(), Outcomes{});
  HealthyTurns(10);
  ASSERT_TRUE(Logged(test::kTrialVerified));
  b.SendsData("proof");
  Turn();
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  EXPECT_EQ(GameGets(), "proof");
}

SCENARIO_F(MendedSwitch, ANodeThatCarriesNothingBackIsLeftForTheOldOne) {
  IsCarried();
  IsVerified();
  Turns(400);
  EXPECT_TRUE(Results().empty()) << "the game is quiet: its silence says nothing";
  for (int i = 0; i < 10; ++i) GameSends("question");
  Turns(190);
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kVerificationFailed});
  EXPECT_EQ(b.TakenEnds(), 1);
  a.Takes();
  GameSends("back");
  Turn();
  EXPECT_EQ(a.TakenData(), "back");
  EXPECT_TRUE(Fires()) << "another may be tried";
}

SCENARIO_F(MendedSwitch, ATrialThatCannotBeMeasuredEnds) {
  image.proxies[1].flag = 4;
  IsCarried();
  IsVerifying();
  Turns(160);
  EXPECT_TRUE(Results().empty());
  Turns(20);
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kVerificationFailed});
  EXPECT_TRUE(Fires());
}

// From its node's answer on, with which this world's clock moves 30 ms.
SCENARIO_F(MendedSwitch, ATrialHasFiveSecondsBeyondItsBurst) {
  image.proxies[1].flag = 4;
  IsCarried();
  IsVerifying();
  Turn(5000 + 50 - 30 - 1);
  EXPECT_EQ(Results(), Outcomes{});
  Turn(1);
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kVerificationFailed});
}

SCENARIO_F(MendedSwitch, WhatWaitsForRoomAtTheHandOverLeavesByItself) {
  IsCarried();
  IsVerified();
  port::FailCall("sendto", 2, WSAEWOULDBLOCK);  // the game's own is the first
  GameSends("blocked");
  Sleep(1);
  loop.delegates[local_sock]->OnReadable(local_sock);
  b.Takes();
  b.SendsData("proof");
  const SOCKET new_sock = TrialSocket();
  loop.delegates[new_sock]->OnReadable(new_sock);
  ASSERT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  Turns(2);
  EXPECT_EQ(b.TakenData(), "blocked");
  EXPECT_FALSE(flow->OwesServers());
}

// --- the nodes that are tried --------------------------------------------------------------------

void Failed(int port) {
  AccDecisionInfo decision;
  common::SetFieldText(decision.selected_proxy.proxy_addr, "127.0.0.1");
  decision.selected_proxy.proxy_port = static_cast<u16>(port);
  NoteNodeFailed(SOCK_DGRAM, decision);
}

class MendedCandidates : public SwitchWorld {
 private:
  test::Mended mended_{kMendFallback};
};

SCENARIO_F(MendedCandidates, ANodeThatFailedIsNotTriedUntilItHasRested) {
  IsCarried();
  Failed(7002);
  EXPECT_TRUE(Fires());
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNoRoute});
  HealthyTurns(990);
  EXPECT_FALSE(b.IsAsked());
  HealthyTurns(20);
  IsVerifying();
}

SCENARIO_F(MendedCandidates, InPlaceOfANodeThatFailedAnotherOneIsTried) {
  ScriptedNode c{7003, 0xC3};
  ProxyRecord& third = test::AddProxy(image, 3, "127.0.0.1");
  third.surport_isps = 1;
  third.flag = image.proxies[1].flag;
  image.route_sets[0].routes[0].switch_groups[0].candidates[0] =
      test::Ref(3, DECISION_ACCE, kLastNode);
  IsCarried();
  Failed(7002);
  EXPECT_TRUE(Fires());
  Turn();
  EXPECT_FALSE(b.IsAsked());
  ASSERT_TRUE(c.IsAsked()) << log->Text();
  c.Answers();
  Turn();
  EXPECT_TRUE(Logged(test::kTrialAgreed));
}

SCENARIO_F(MendedSwitch, WhereNoNodeRestsOneThatFailedIsTried) {
  IsCarried();
  Failed(7002);
  IsVerifying();
}

// --- the judgement -------------------------------------------------------------------------------

struct AsksForJudgement {
  test::Mended mended{kMendJudgement};
};

class MendedTrial : public AsksForJudgement, public SwitchWorld {
 protected:
  // The whole burst has left, and no answer has come.
  void HasSentItsBurst() {
    IsCarried();
    IsVerifying();
    for (int i = 0; i < 10; ++i) {
      Turn();
      b.Takes();
    }
    EXPECT_FALSE(Logged(test::kTrialVerdict)) << "all of it is on its way";
  }
};

SCENARIO_F(MendedTrial, IsJudgedWhenTheAnswersAreBack) {
  config.switching_max_real_route_lost = 0;  // 1 percent, which a node that loses nothing passes
  HasSentItsBurst();
  b.AnswersProbes();
  Turn();
  EXPECT_TRUE(Logged(test::kTrialVerified)) << log->Text();
}

SCENARIO_F(MendedTrial, IsLostOnceNoAnswerCanCome) {
  HasSentItsBurst();
  Turns(20);
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kVerificationFailed});
}

// Two of five may be missing where the limit is 60 percent, and nobody waits for them.
SCENARIO_F(MendedTrial, PassesWithoutTheAnswersThatItCanSpare) {
  IsCarried();
  IsVerifying();
  Turns(2);
  b.Takes();
  b.ForgetsProbes();
  Turns(7);
  b.Takes();
  b.AnswersProbes();
  Turn();
  EXPECT_TRUE(Logged(test::kTrialVerified)) << log->Text();
}

// --- with real nodes, and a game that plays ------------------------------------------------------

class MendedPlay : public AsksForAfterSwitch, public udp_test::UdpWorld {
 protected:
  MendedPlay() {
    MayMeasureAndSwitch();
    Starts();
  }
  // Twenty datagrams a second, with their answers read, at most so long.
  bool PlaysUntil(SOCKET s, const std::function<bool()>& until, int most_ms) {
    for (int passed = 0; passed < most_ms && !until(); passed += 50) {
      Sends(s, "tick");
      RunFor(50ms);
      while (ReadableWithin(s, 0)) Receives(s, 0);
    }
    return until();
  }
  int Moves() const { return test::CountOf(test::kSocketReplaced, log_text()); }
  void Cuts(sim::Host& node, bool cut) {
    sim::LinkOptions link;
    link.partitioned = cut;
    world.SetLink(world.home().host, node, link);
  }
};

// Long before the new link is as old as the old one was.
SCENARIO_F(MendedPlay, TheNextTroubleMovesTheFlowAgain) {
  const SOCKET s = Udp();
  PlaysUntil(
      s, [] { return false; }, 40'000);
  ASSERT_EQ(Moves(), 0);
  Cuts(a_host, true);
  ASSERT_TRUE(PlaysUntil(
      s, [this] { return Moves() == 1; }, 10'000))
      << log_text();
  Cuts(a_host, false);
  const int troubles = test::CountOf("indicating", log_text());
  PlaysUntil(
      s, [] { return false; }, 31'000);
  EXPECT_EQ(Moves(), 1) << "a healthy node is not left for what the old one did";
  EXPECT_LE(test::CountOf("indicating", log_text()), troubles + 1) << "the first slot";
  Cuts(b_host, true);
  EXPECT_TRUE(PlaysUntil(
      s, [this] { return Moves() == 2; }, 10'000))
      << log_text();
  closesocket(s);
}

// Nothing is set but what allows switching.
class OpenJudge : public udp_test::UdpWorld {
 protected:
  explicit OpenJudge(u32 mended = 0) : udp_test::UdpWorld(mended) {
    Configures(test::OpenSwitches);
    Starts();
  }
  void LinksTake(sim::Duration delay) {
    sim::LinkOptions link;
    link.delay = delay;
    link.jitter = 3ms;
    for (sim::Host* node : {&a_host, &b_host}) world.SetLink(world.home().host, *node, link);
  }
  void Plays(SOCKET s, int ms) {
    for (int passed = 0; passed < ms; passed += 50) {
      Sends(s, "tick");
      RunFor(50ms);
      while (ReadableWithin(s, 0)) Receives(s, 0);
    }
  }
};

class MendedJudge : public OpenJudge {
 protected:
  MendedJudge() : OpenJudge(kMendJudgement) {}
};

SCENARIO_F(OpenJudge, AHealthyLinkLooksDeadInItsFirstSlot) {
  LinksTake(72ms);
  const SOCKET s = Udp();
  Plays(s, 3000);
  EXPECT_EQ(test::CountOf("indicating dead link", log_text()), 1) << log_text();
  closesocket(s);
}

SCENARIO_F(MendedJudge, AHealthyLinkIsLeftAloneFromItsFirstSlotOn) {
  LinksTake(72ms);
  const SOCKET s = Udp();
  Plays(s, 20'000);
  EXPECT_FALSE(Logged("requesting high freq test")) << log_text();
  EXPECT_FALSE(Logged(test::kSwitchFires));
  closesocket(s);
}

SCENARIO_F(MendedJudge, ADeadLinkIsLeftSoonWithNothingSet) {
  LinksTake(20ms);
  const SOCKET s = Udp();
  Plays(s, 10'000);
  sim::LinkOptions cut;
  cut.partitioned = true;
  world.SetLink(world.home().host, a_host, cut);
  Plays(s, 3000);
  EXPECT_TRUE(Logged(test::kSocketReplaced)) << log_text();
  closesocket(s);
}

}  // namespace
