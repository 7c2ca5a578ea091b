// Edges of a flow and of its trial, step by step: nodes that cannot be reached, late answers,
// sockets without room at the flow's end, and a trial that there is no memory for. At stake: the
// game plays on over the node that carries it, and no node waits for a flow that is over.
#include "abi/mending_formats.h"
#include "port/shared/faults.h"
#include "port/sim/sockets.h"
#include "tests/scenario/switch_world.h"
#include "tests/support/log_texts.h"
#include "tests/support/mended.h"
#include "tests/support/report_client.h"
#include "tests/support/wire_bytes.h"
#include "tests/unit/out_of_memory.h"
#include "tracker/tracker.h"
#include "udp/relay_messages.h"

namespace {

using namespace switch_test;  // NOLINT
using moru_vyr::lsp::kMendAfterSwitch;
using moru_vyr::lsp::kMendFailedNode;
using moru_vyr::lsp::kMendFallback;

class SwitchEdges : public SwitchWorld {};

SCENARIO_F(SwitchEdges, WithoutMemoryThereIsNoTrialAndTheNextOneIsNotHeldUp) {
  IsCarried();
  {
    const test::OutOfMemory none(1, sizeof(UdpSwitchRemoteSession), sizeof(UdpSwitchRemoteSession));
    EXPECT_FALSE(Fires());
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_EQ(Trial(), nullptr);
  EXPECT_EQ(Results(), Outcomes{}) << "the judge asks again";
  a.SendsData("goes on");
  Turn();
  EXPECT_EQ(GameGets(), "goes on");
  IsVerifying();
}

SCENARIO_F(SwitchEdges, ATrialReadsItsOwnSocketOnly) {
  IsCarried();
  IsVerifying();
  a.SendsData("pong");
  const SOCKET other = local_sock;
  Sleep(1);
  loop.delegates[TrialSocket()]->OnReadable(other);
  EXPECT_EQ(GameGets(), "");
  Turn();
  EXPECT_EQ(GameGets(), "pong") << "it was left to the flow";
}

SCENARIO_F(SwitchEdges, WithoutMemoryForItsDecisionAFlowGoesDirect) {
  Begins();
  UdpSession other(&provider, kToken + 1, At("127.0.0.1", 5556), server_addr, kGameBuffer,
                   kGameBuffer);
  ASSERT_TRUE(other.Init());
  u8 bytes[] = {1, 2, 3};
  {
    const test::OutOfMemory none(1, SessionGuid::kTextSize, SessionGuid::kTextSize);
    other.RouteFromGame({bytes, sizeof bytes, sizeof bytes, server_addr});
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::DecideAccl result=direct, socket=")) << log->Text();
}

SCENARIO_F(SwitchEdges, ATrialOfAProviderThatWasNotStartedHasNoSocket) {
  const size_t sockets = world.sockets().CountOf(world.home());
  const test::LogCapture lines(5);
  UdpSession owner(&provider, kToken, At("127.0.0.1", 5555), server_addr, kGameBuffer, kGameBuffer);
  UdpRemoteSession parent(&owner, server_addr, At("127.0.0.1", 5555));
  const UdpFlow of{&owner, kToken, server_addr, At("127.0.0.1", 5555), SessionGuid::Make()};
  {
    UdpSwitchRemoteSession trial(&parent, of);
    trial.Init();
    EXPECT_EQ(trial.sock(), INVALID_SOCKET);
    EXPECT_TRUE(lines.Contains(
        "[UDP] UdpSwitchRemoteSession::Init failed, remote_ip=198.51.100.10, token=77\n"));
  }
  EXPECT_EQ(world.sockets().CountOf(world.home()), sockets);
  ASSERT_TRUE(provider.Init(&loop, &route)) << "without which the others could not end";
}

// Readers of the log tell the two links of a flow apart by it.
SCENARIO_F(SwitchEdges, WhatIsReadIsLoggedUnderTheNameOfItsReader) {
  IsCarried();
  const std::string flows = "[UDP] UdpRemoteSession::ReadPackage recvfrom success, addr=127.0.0.1:";
  const std::string trials =
      "[UDP] UdpSwitchRemoteSession::ReadPackage recvfrom success, addr=127.0.0.1:";
  EXPECT_TRUE(
      Logged(flows + "7001, len=41, socket=" + std::to_string(local_sock) + ", token=77\n"));
  EXPECT_FALSE(Logged(trials));
  IsVerifying();
  EXPECT_TRUE(Logged(trials + "7002, len=41, token=77\n"));
  EXPECT_FALSE(Logged(flows + "7002"));
}

// The worker would be kept busy by a socket that takes nothing.
SCENARIO_F(SwitchEdges, AFullSocketIsTriedOnceForAllThatWaits) {
  IsCarried();
  for (const char* text : {"one", "two", "three"}) a.SendsData(text);
  Sleep(1);
  port::FailCall("sendto", 0, WSAEWOULDBLOCK);
  loop.delegates[local_sock]->OnReadable(local_sock);
  ASSERT_TRUE(flow->OwesServers());
  flow->OnWritable(local_sock);
  EXPECT_EQ(Count("[UDP] UdpRemoteSession::SendTo, error=10035, "), 1) << log->Text();
  port::ClearFaults();
  flow->OnWritable(local_sock);
  EXPECT_EQ(GameGets(), "one two three");
}

// The worker would wait in another read, also once the flow has taken the socket over.
SCENARIO_F(SwitchEdges, ATrialsSocketThatStaysBlockingIsReadOnceAPass) {
  IsCarried();
  port::FailCall("ioctlsocket", 1, WSAENOBUFS);
  IsVerified();
  const SOCKET blocking = TrialSocket();
  for (const char* text : {"proof", "one", "two"}) b.SendsData(text);
  for (const char* text : {"proof", "one", "two"}) {
    Sleep(1);
    loop.delegates[blocking]->OnReadable(blocking);
    EXPECT_EQ(GameGets(), text);
  }
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
}

SCENARIO_F(SwitchEdges, AFlowThatHasLeftNoNodeTellsNoneOfIt) {
  IsCarried();
  HealthyTurns(100);
  EXPECT_FALSE(Logged("[UDP] UdpRemoteSession::SendTo, error=")) << log->Text();
}

// --- the end of a flow whose trial still has to send ---------------------------------------------

// What the game sent last goes to the trial's node, which has passed. The session of that token
// ends when it has left, and not before.
SCENARIO_F(SwitchEdges, AFlowEndsOnceItsTrialHasSentWhatWaited) {
  IsCarried();
  IsVerified();
  const SOCKET trial = TrialSocket();
  const auto has_to_wait = [&](const char* text) {
    GameSends(text);
    Sleep(1);
    port::FailCall("sendto", 1, WSAEWOULDBLOCK);
    loop.delegates[local_sock]->OnReadable(local_sock);
    EXPECT_EQ(loop.wants_room.count(trial), 1u);
    b.Takes();
  };
  // A session of the same token that the provider knows: this fixture's own is not among them.
  const SOCKET asker = Udp();
  EXPECT_EQ(BindTo(asker, "127.0.0.1", 5556), 0);
  const ProtoRelayOpen open = ProtoRelayOpen::Request(kToken, server_addr, nullptr, asker);
  sockaddr_in control;
  provider.GetLocalAddr(&control);
  sendto(asker, reinterpret_cast<const char*>(&open), sizeof open, 0, Raw(control), sizeof control);
  Sleep(1);
  for (const auto& [socket, delegate] : std::map(loop.delegates)) {
    if (delegate == &provider) delegate->OnReadable(socket);
  }
  const std::string closed = "[UDP] session closed, token=77\n";
  has_to_wait("in between");
  loop.delegates[trial]->OnWritable(trial);
  EXPECT_EQ(b.TakenData(), "in between");
  EXPECT_FALSE(Logged(closed)) << "the game goes on";
  has_to_wait("last");
  flow->SetClosing();
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  loop.delegates[trial]->OnWritable(trial);
  EXPECT_EQ(b.TakenData(), "");
  EXPECT_FALSE(Logged(closed)) << "there was no room yet";
  loop.delegates[trial]->OnWritable(trial);
  EXPECT_EQ(b.TakenData(), "last");
  EXPECT_TRUE(Logged(closed)) << log->Text();
}

// What waits for the negotiation leaves all the same; only with fast fallback does the end wait for
// it.
SCENARIO_F(SwitchEdges, AFlowThatEndsWhileItAsksIsNotHeldUpByWhatWaits) {
  Begins();
  flow->SetClosing();
  a.Answers();
  Turn();
  EXPECT_EQ(a.TakenData(), "first");
  EXPECT_FALSE(session->IsCloseWanted());
}

struct AsksToRetry {
  test::Mended mended{moru_vyr::lsp::kMendStart};
};

class RetryingTrial : public AsksToRetry, public SwitchWorld {};

// A socket may be called writable and take nothing: the timer asks again.
SCENARIO_F(RetryingTrial, SendsWhatFoundNoRoomTwice) {
  IsCarried();
  IsVerified();
  b.Takes();
  GameSends("waits");
  Sleep(1);
  port::FailCall("sendto", 0, WSAEWOULDBLOCK);
  loop.delegates[local_sock]->OnReadable(local_sock);
  loop.Pass();
  EXPECT_TRUE(loop.wants_room.empty());
  port::ClearFaults();
  Turns(2);
  EXPECT_EQ(b.TakenData(), "waits");
}

struct AsksToHasten {
  test::Mended mended{moru_vyr::lsp::kMendThroughput};
};

class PromptTrial : public AsksToHasten, public SwitchWorld {};

// Its probes do not wait for the timer's steps, and afterwards the timer is left alone.
SCENARIO_F(PromptTrial, AsksForUpdatesWhileItsBurstRuns) {
  IsCarried();
  Turn();
  EXPECT_EQ(loop.early_updates, 0);
  IsVerifying();
  EXPECT_EQ(loop.early_updates, 1);
  HealthyTurns(10);
  ASSERT_TRUE(Logged(test::kTrialVerified));
  loop.early_updates = 0;
  HealthyTurns(3);
  EXPECT_EQ(loop.early_updates, 0);
}

// What the game then sends goes to its node, and no probes beside it.
SCENARIO_F(SwitchEdges, ATrialThatHasPassedSendsNoProbes) {
  IsCarried();
  IsVerified();
  b.Takes();
  Turns(400);
  EXPECT_TRUE(b.Takes().empty());
}

// --- nodes that cannot be reached ----------------------------------------------------------------

struct AsksToLeaveFailedNodes {
  test::Mended mended{kMendFailedNode};
};

class UnreachableTrial : public AsksToLeaveFailedNodes, public SwitchWorld {};

// What the system says when the node's host sends a request back, by any of its words.
SCENARIO_F(UnreachableTrial, EndsAtOnce) {
  IsCarried();
  Outcomes expected;
  for (const int error : {WSAECONNRESET, WSAECONNREFUSED, WSAENETRESET, WSAEHOSTUNREACH,
                          WSAENETUNREACH, WSAEADDRNOTAVAIL}) {
    SCOPED_TRACE(error);
    ASSERT_TRUE(Fires());
    const SOCKET trial = TrialSocket();
    port::FailCall("recvfrom", 1, static_cast<DWORD>(error));
    loop.delegates[trial]->OnReadable(trial);
    port::ClearFaults();
    expected.push_back(SwitchResult::kNegotiationFailed);
    EXPECT_EQ(Results(), expected) << log->Text();
    Turns(2);
    EXPECT_EQ(Trial(), nullptr);
  }
  a.SendsData("goes on");
  Turn();
  EXPECT_EQ(GameGets(), "goes on");
}

// Any other error says nothing about the node.
SCENARIO_F(UnreachableTrial, GoesOnAfterAnErrorOfItsOwnSocket) {
  IsCarried();
  ASSERT_TRUE(Fires());
  const SOCKET trial = TrialSocket();
  port::FailCall("recvfrom", 1, WSAENOBUFS);
  loop.delegates[trial]->OnReadable(trial);
  EXPECT_EQ(Results(), Outcomes{});
  Turn();
  ASSERT_TRUE(b.IsAsked());
  b.Answers();
  Turn();
  EXPECT_TRUE(Logged(test::kTrialAgreed)) << log->Text();
}

// --- nodes that were left ------------------------------------------------------------------------

struct AsksToStartAnew {
  test::Mended mended{kMendAfterSwitch};
};

class LeftNode : public AsksToStartAnew, public SwitchWorld {};

// A process that ends tells nobody, also not the node that it was about to tell.
SCENARIO_F(LeftNode, IsNotToldTheEndWhileTheRelayStops) {
  IsCarried();
  IsTakenOver();
  a.Takes();
  stopping = true;
  Turns(75);
  EXPECT_EQ(a.TakenEnds(), 0);
  stopping = false;
}

// --- answers that come too late ------------------------------------------------------------------

struct AsksForFallback {
  test::Mended mended{kMendFallback};
};

// The node was asked and given up, there was no other, and the game plays without one.
class LateAnswers : public AsksForFallback, public SwitchWorld {
 protected:
  void GivesUpTheNode() {
    Begins();
    for (int i = 0; i < 200 && !Logged("begin direct mode"); ++i) Turn();
    ASSERT_TRUE(Logged("begin direct mode")) << log->Text();
    a.Takes();
    GameGets();
  }
};

// What it gets directly is counted like anything else.
SCENARIO_F(LateAnswers, AFlowThatHasGivenUpItsNodeIsCounted) {
  GivesUpTheNode();
  sockaddr_in relay = {};
  ASSERT_TRUE(session->GetRelayAddr(&relay));
  SendTextTo(Udp(), "answer", "127.0.0.1", ntohs(relay.sin_port));
  Turn();
  EXPECT_EQ(GameGets(), "answer");
  EXPECT_EQ(Counted(local_sock), "1 sent, 1 received");
}

SCENARIO_F(LateAnswers, AreToldTheEndOnce) {
  GivesUpTheNode();
  a.AnswersBytes("no answer at all");
  Turn();
  EXPECT_EQ(a.TakenEnds(), 0);
  a.Answers();
  Turn();
  EXPECT_EQ(a.TakenEnds(), 1) << log->Text();
  a.Answers();
  Turn();
  EXPECT_EQ(a.TakenEnds(), 0) << "told once";
}

// The node accepts after another one has been asked: the flow is its own, as the client program
// learns, and the answer is no data, even of a node that sends data from the same port.
SCENARIO_F(LateAnswers, OfTheFirstNodeMakeTheFlowItsOwn) {
  test::ReportClient client;
  GetTracker().Init();
  RouteEntry& entry = image.route_sets[0].routes[0];
  for (u32 i = 0; i < 2; ++i) entry.top_refs[i] = test::Ref(i + 1, DECISION_ACCE, kLastNode);
  Begins();
  for (int i = 0; i < 100 && !b.IsAsked(); ++i) Turn();
  EXPECT_EQ(test::Value(b.request.body.retry), 1);
  ScriptedNode::Answer answer;
  answer.data_port = 7001;
  a.Answers(answer);
  Turn();
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::TakeLateAnswer, proxy_idc=1, token=77\n"));
  EXPECT_FALSE(Logged("UnWrapUdpAcclPackage failed")) << log->Text();
  EXPECT_EQ(GameGets(), "");
  session.reset();
  GetTracker().UnInit();
  int ended = 0;
  for (const CommInfoRecord& record : client.traffic->slots) {
    if (record.used == 0 || record.ended == 0) continue;
    ++ended;
    EXPECT_EQ(test::Value(record.proxy_idc), 1u);
  }
  EXPECT_EQ(ended, 1);
}

SCENARIO_F(LateAnswers, AFlowEndsWhenWhatWaitedForThemHasLeft) {
  Begins();
  EXPECT_FALSE(session->CanClose());
  a.Answers();
  Sleep(1);
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  loop.delegates[local_sock]->OnReadable(local_sock);
  EXPECT_TRUE(flow->OwesServers());
  EXPECT_FALSE(session->IsCloseWanted()) << "there was no room yet";
  Turn();
  EXPECT_EQ(a.TakenData(), "first");
  EXPECT_FALSE(flow->OwesServers());
}

SCENARIO_F(LateAnswers, AFlowThatOwesNothingMoreWantsToEnd) {
  Begins();
  EXPECT_FALSE(session->CanClose());
  a.Answers();
  Turn();
  EXPECT_EQ(a.TakenData(), "first");
  EXPECT_TRUE(session->IsCloseWanted());
}

SCENARIO_F(LateAnswers, ThatRefuseNeedNoEnd) {
  GivesUpTheNode();
  ScriptedNode::Answer refusal;
  refusal.result = 1;
  a.Answers(refusal);
  Turn();
  EXPECT_EQ(a.TakenEnds(), 0);
  EXPECT_EQ(GameGets(), "") << "it is not the game's";
  a.Answers();
  Turn();
  EXPECT_EQ(a.TakenEnds(), 0) << "that node was heard out";
}

}  // namespace
