// What moves with a flow to another node, and what stays: one trial after another, sockets, and
// datagrams that wait for room. At stake: the move costs the game no datagram, and no socket has
// two owners.
#include "tests/scenario/switch_world.h"
#include "tests/support/log_texts.h"
//
#include "port/shared/faults.h"
#include "tests/support/wire_bytes.h"
#include "tracker/tracker.h"

namespace {

using namespace switch_test;  // NOLINT

using SwitchHandOver = SwitchWorld;

// --- more than one ----------------------------------------------------------------------------

SCENARIO_F(SwitchHandOver, OneRunsAtATime) {
  IsCarried();
  ASSERT_TRUE(Fires());
  const UdpSwitchRemoteSession* const first = Trial();
  EXPECT_FALSE(Fires());
  EXPECT_EQ(Trial(), first);
  ASSERT_TRUE(b.IsAsked());
  EXPECT_FALSE(b.IsAsked()) << "asked once";
}

SCENARIO_F(SwitchHandOver, AnEndedTrialIsReplacedAtOnce) {
  IsCarried();
  port::FailCall("sendto", 1, WSAENETUNREACH);
  ASSERT_TRUE(Fires());
  const SOCKET first = TrialSocket();
  ASSERT_TRUE(Fires()) << "before the timer has cleared the first away";
  EXPECT_NE(TrialSocket(), first);
  EXPECT_FALSE(loop.Has(first));
  EXPECT_EQ(Readiness(first), "error 10038") << "closed";
  EXPECT_TRUE(b.IsAsked());
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNotAsked});
}

SCENARIO_F(SwitchHandOver, ASecondSwitchLeavesTheSocketInBetweenOpen) {
  IsCarried();
  IsVerified();
  const SOCKET in_between = TrialSocket();
  b.SendsData("proof");
  Turns(2);
  ASSERT_TRUE(Fires());
  Turn();
  ASSERT_TRUE(a.IsAsked());
  EXPECT_EQ(test::Value(a.request.body.last_node.port), 7002) << "it is B's link that is left now";
  a.Answers();
  Turn();
  const SOCKET last = TrialSocket();
  HealthyTurns(10);
  b.Takes();
  a.SendsData("second proof");
  Turns(2);
  EXPECT_EQ(Results(), (Outcomes{SwitchResult::kTakenOver, SwitchResult::kTakenOver}));
  EXPECT_EQ(GameGets(), "proof second proof");
  EXPECT_EQ(b.TakenEnds(), 1);
  EXPECT_FALSE(loop.Has(in_between));
  EXPECT_EQ(Readiness(in_between), "w") << "open, and nobody's";
  EXPECT_TRUE(loop.Has(last));
  EXPECT_TRUE(loop.Has(local_sock));
  GameSends("on");
  Turn();
  EXPECT_EQ(a.TakenData(), "on");
  session.reset();
  EXPECT_EQ(Counted(in_between), "0 sent, 1 received") << "watched, too";
  EXPECT_EQ(Counted(last), "nothing");
  EXPECT_EQ(Counted(local_sock), "nothing");
  EXPECT_EQ(Readiness(in_between), "w");
  EXPECT_EQ(Readiness(last), "error 10038");
  EXPECT_EQ(Readiness(local_sock), "error 10038");
}

// The game sends to one port and receives from it, however often the node changes behind it.
SCENARIO_F(SwitchHandOver, TheGamesPortStaysTheSameThroughAnyNumber) {
  IsCarried();
  sockaddr_in relay = {};
  ASSERT_TRUE(session->GetRelayAddr(&relay));
  for (int moves = 1; moves <= 5; ++moves) {
    ScriptedNode& next = moves % 2 != 0 ? b : a;
    ASSERT_TRUE(Fires());
    Turn();
    ASSERT_TRUE(next.IsAsked()) << moves;
    next.Answers();
    Turn();
    HealthyTurns(10);
    next.SendsData("proof");
    Turns(2);
    ASSERT_EQ(Results(), Outcomes(moves, SwitchResult::kTakenOver));
    sockaddr_in now = {}, from = {};
    ASSERT_TRUE(session->GetRelayAddr(&now));
    EXPECT_EQ(now.sin_port, relay.sin_port) << moves;
    ASSERT_TRUE(ReadableWithin(game, 0));
    char bytes[16];
    int size = sizeof from;
    EXPECT_EQ(recvfrom(game, bytes, sizeof bytes, 0, Raw(from), &size), 5);
    EXPECT_EQ(from.sin_port, relay.sin_port) << moves;
    next.Takes();
    GameSends("on");
    Turn();
    EXPECT_EQ(next.TakenData(), "on") << moves;
  }
}

// The results of a socket's calls are counted for that socket, whichever of the two carries the
// link.
SCENARIO_F(SwitchHandOver, AnErrorOfReceivingIsBookedOnTheSocketThatHadIt) {
  test::ReportClient client;
  GetTracker().Init();
  IsCarried();
  IsTakenOver();
  SOCKET new_sock = INVALID_SOCKET;
  for (const auto& [socket, delegate] : loop.delegates) {
    if (delegate == flow && socket != local_sock) new_sock = socket;
  }
  ASSERT_NE(new_sock, INVALID_SOCKET);
  for (const SOCKET socket : {local_sock, new_sock, new_sock}) {
    port::FailCall("recvfrom", 1, WSAECONNRESET);
    loop.delegates[socket]->OnReadable(socket);
  }
  port::ClearFaults();
  session.reset();
  GetTracker().UnInit();
  const CommInfoRecord* last = nullptr;
  for (const CommInfoRecord& record : client.traffic->slots) {
    if (record.used != 0 && record.ended == 1) {
      EXPECT_EQ(last, nullptr) << "a socket that came in by a move leaves no report";
      last = &record;
    }
  }
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(test::Value(last->total_recv_errors), 1u);
}

// --- datagrams that wait for room --------------------------------------------------------------

SCENARIO_F(SwitchHandOver, BlockedDatagramsForTheNewNodeMoveWithItsSocket) {
  IsCarried();
  IsVerified();
  port::FailCall("sendto", 2, WSAEWOULDBLOCK);  // the game's own is the first
  GameSends("blocked");
  Sleep(1);
  loop.delegates[local_sock]->OnReadable(local_sock);
  EXPECT_EQ(loop.wants_room.count(TrialSocket()), 1u);
  b.Takes();
  b.SendsData("proof");
  const SOCKET new_sock = TrialSocket();
  loop.delegates[new_sock]->OnReadable(new_sock);
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  EXPECT_TRUE(flow->OwesServers());
  // Kept: no write event is requested for the new owner until another datagram has to wait.
  Turns(3);
  EXPECT_EQ(b.TakenData(), "");
  port::FailCall("sendto", 2, WSAEWOULDBLOCK);
  GameSends("next");
  Turns(2);
  EXPECT_EQ(b.TakenData(), "blocked next");
  EXPECT_FALSE(flow->OwesServers());
}

SCENARIO_F(SwitchHandOver, WhatWaitedAtTheOldSocketLeavesBeforeWhatWaitedAtTheNew) {
  IsCarried();
  IsVerified();
  a.SendsData("answer");
  Sleep(1);
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  loop.delegates[local_sock]->OnReadable(local_sock);
  port::FailCall("sendto", 2, WSAEWOULDBLOCK);  // the game's own is the first
  GameSends("question");
  Sleep(1);
  loop.delegates[local_sock]->OnReadable(local_sock);
  const SOCKET new_sock = TrialSocket();
  b.Takes();
  b.SendsData("proof");
  loop.delegates[new_sock]->OnReadable(new_sock);
  ASSERT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  EXPECT_EQ(GameGets(), "proof");
  port::FailCall("sendto", 2, WSAEWOULDBLOCK);
  flow->OnWritable(new_sock);
  EXPECT_EQ(GameGets(), "answer");
  EXPECT_EQ(b.TakenData(), "");
  flow->OnWritable(new_sock);
  EXPECT_EQ(b.TakenData(), "question");
}

SCENARIO_F(SwitchHandOver, BlockedDatagramsForTheOldNodeAreSentWhenTheNewOneIsVerified) {
  IsCarried();
  IsVerifying();
  port::FailCall("sendto", 2, WSAEWOULDBLOCK);
  GameSends("waited");
  Sleep(1);
  loop.delegates[local_sock]->OnReadable(local_sock);
  ASSERT_TRUE(flow->OwesServers());
  loop.wants_room.clear();  // there is no room for a long time
  HealthyTurns(10);
  ASSERT_TRUE(Logged(test::kTrialVerified));
  EXPECT_FALSE(flow->OwesServers());
  EXPECT_EQ(GameGets(), "waited") << "A, to which it was wrapped, echoes it";
  EXPECT_FALSE(session->IsCloseWanted());
}

}  // namespace
