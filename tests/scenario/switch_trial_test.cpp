// A trial of another node, from the request to each of its ends. At stake: the game plays on over
// the old node until the new one has proved itself with a datagram of the game's, and each trial is
// reported once, with its outcome.
#include "tests/scenario/switch_world.h"
#include "tests/support/log_texts.h"
//
#include "port/shared/faults.h"
#include "tests/support/link_judge.h"
#include "tests/support/wire_bytes.h"
#include "tracker/tracker.h"

namespace {

using namespace switch_test;  // NOLINT

class SwitchTrial : public SwitchWorld {
 protected:
  SwitchTrial() = default;
  explicit SwitchTrial(const char* server_ip) : SwitchWorld(server_ip) {}

  // The game still plays over A.
  void ExpectCarriedByA() {
    a.Takes();
    GameSends("ping");
    Turn();
    EXPECT_EQ(a.TakenData(), "ping");
    a.SendsData("pong");
    GameGets();
    Turn();
    EXPECT_EQ(GameGets(), "pong");
  }
  // A trial that has failed is gone a tick later, and its node is not told.
  void ExpectOver(SwitchResult result) {
    EXPECT_EQ(Results(), Outcomes{result}) << log->Text();
    Turns(2);
    EXPECT_EQ(Trial(), nullptr);
    EXPECT_EQ(b.TakenEnds(), 0);
    EXPECT_EQ(Results(), Outcomes{result}) << "reported once";
    ExpectCarriedByA();
  }
};

SCENARIO_F(SwitchTrial, WithoutAnotherNodeItEndsAtOnce) {
  ScriptedNode::Answer no_group;
  no_group.last_node = kLastNode + 1;
  IsCarried(no_group);
  EXPECT_TRUE(Fires()) << "a trial that cannot start has been made all the same";
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNoRoute});
  EXPECT_TRUE(Logged("Can not find IDC(11)'s switch proxy route, current_proxy=1, last_node=62"));
  Turn();
  EXPECT_FALSE(b.IsAsked());
  ExpectOver(SwitchResult::kNoRoute);
}

SCENARIO_F(SwitchTrial, AnAnswerOfTheFirstVersionLeavesNoCandidate) {
  ScriptedNode::Answer first_version;
  first_version.version = 1;
  IsCarried(first_version);
  EXPECT_TRUE(Fires());
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNoRoute});
}

SCENARIO_F(SwitchTrial, ARequestThatCannotBeSentEndsIt) {
  IsCarried();
  port::FailCall("sendto", 1, WSAENETUNREACH);
  EXPECT_TRUE(Fires());
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNotAsked});
  EXPECT_TRUE(Logged(test::kTrialSendFailed + "10051, token=77"));
  Turn();
  EXPECT_FALSE(b.IsAsked());
  ExpectOver(SwitchResult::kNotAsked);
}

// The request waits for room all the same, and is sent if there is room before the trial is
// removed. Its answer finds no trial.
SCENARIO_F(SwitchTrial, ARequestThatHasToWaitEndsItAndStillLeaves) {
  IsCarried();
  port::FailCall("sendto", 1, WSAEWOULDBLOCK);
  EXPECT_TRUE(Fires());
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kNotAsked});
  EXPECT_EQ(loop.wants_room.count(TrialSocket()), 1u);
  loop.Pass();
  EXPECT_TRUE(b.IsAsked());
  EXPECT_TRUE(Logged("UdpSwitchRemoteSession::" + test::Flushed(1, 0) + ", token=77"));
  b.Answers();
  loop.Pass();
  EXPECT_FALSE(Logged(test::kTrialAgreed));
  ExpectOver(SwitchResult::kNotAsked);
}

SCENARIO_F(SwitchTrial, WithoutASocketItEnds) {
  IsCarried();
  port::FailCall("socket", 1, WSAEMFILE);
  EXPECT_TRUE(Fires());
  EXPECT_TRUE(Logged("UdpSwitchRemoteSession::Init socket error=10024, token=77"));
  EXPECT_FALSE(Logged(test::kTrialStarted));
  ExpectOver(SwitchResult::kNotAsked);
}

SCENARIO_F(SwitchTrial, ASocketThatStaysBlockingIsUsed) {
  IsCarried();
  port::FailCall("ioctlsocket", 1, WSAENOBUFS);
  EXPECT_TRUE(Fires());
  EXPECT_TRUE(Logged("[UDP] UdpSwitchRemoteSession::Init ioctlsocket , error=10055, token=77"));
  EXPECT_TRUE(Logged(test::kTrialStarted + ", remote_ip=198.51.100.10"));
  EXPECT_NE(TrialSocket(), INVALID_SOCKET);
}

SCENARIO_F(SwitchTrial, ItsSocketHasItsOwnBufferSizes) {
  IsCarried();
  ASSERT_TRUE(Fires());
  for (const int option : {SO_SNDBUF, SO_RCVBUF}) {
    EXPECT_EQ(IntOption(local_sock, option), kGameBuffer);
    EXPECT_EQ(IntOption(TrialSocket(), option), 65536);
  }
}

SCENARIO_F(SwitchTrial, ItsRequestNamesTheLinkThatIsLeft) {
  IsCarried();
  const NegoRequest first = a.request;
  EXPECT_EQ(test::Value(first.body.flags), 0u);
  EXPECT_EQ(test::Value(first.body.last_node.node_id), 0);
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  NegoRequestBody asked = b.request.body;
  EXPECT_EQ(test::Value(b.request.header.version), 3u);
  EXPECT_EQ(test::Value(asked.flags), 2u);
  EXPECT_EQ(test::Value(asked.retry), 0);
  EXPECT_EQ(test::Value(asked.last_node.node_id), kLastNode);
  EXPECT_EQ(test::Value(asked.last_node.port), 7001);
  EXPECT_EQ(test::Value(asked.last_node.ip), 0x7F000001u);
  EXPECT_EQ(test::Value(asked.last_node.accl_token), a.accl_token);
  // The rest equals the flow's first request.
  asked.flags = 0;
  asked.last_node = {};
  EXPECT_EQ(std::memcmp(&asked, &first.body, sizeof asked), 0);
}

// The limit is a second, however the timer's steps fall, and one step more.
SCENARIO_F(SwitchTrial, ASilentNodeHasOneSecond) {
  IsCarried();
  ASSERT_TRUE(Fires());
  Turns(10, 100);
  EXPECT_EQ(Results(), Outcomes{});
  Turn(1);
  EXPECT_TRUE(
      Logged("UdpSwitchRemoteSession::" + test::NegotiationFailed(kNegoTimedOut) + "token=77"));
  ExpectOver(SwitchResult::kNegotiationFailed);
}

SCENARIO_F(SwitchTrial, AnAnswerAtTheLastMomentCounts) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  Turns(10, 100);
  b.Answers();
  Turn(1);
  EXPECT_EQ(Results(), Outcomes{});
  EXPECT_TRUE(
      Logged(test::kTrialAgreed +
             ", accl_data_addr=127.0.0.1:7102, client_ip=127.0.0.1, client_isp=1, accl_token=178, "
             "last_node:(node_id=61, ip=127.0.0.1, port=7002, accl_token=178), token=77"))
      << log->Text();
}

SCENARIO_F(SwitchTrial, ARefusalEndsItWithoutAnotherAttempt) {
  test::ReportClient client;
  GetTracker().Init();
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  ScriptedNode::Answer refusal;
  refusal.result = 9;
  b.Answers(refusal);
  loop.Pass();
  EXPECT_TRUE(Logged("UdpSwitchRemoteSession::" + test::NegotiationFailed(9) + "token=77"));
  ExpectOver(SwitchResult::kNegotiationFailed);
  EXPECT_FALSE(b.IsAsked());
  GetTracker().UnInit();
  ASSERT_EQ(test::UsedSlots(client.failures), 1);
  const NegRetRecord& failure = client.failures->slots[0];
  EXPECT_EQ(test::Value(failure.nego_result), 9);
  EXPECT_EQ(test::Value(failure.proxy_idc), 2u);
  EXPECT_EQ(test::Value(failure.elapsed_ms), 1u) << "never nothing";
  EXPECT_EQ(test::Value(failure.user_isp), 1u) << "a refusal says it too";
  EXPECT_EQ(test::Value(failure.user_ip), test::Ip("127.0.0.1"));
  ASSERT_EQ(test::UsedSlots(client.switches), 1);
  const RecoverySwitchRecord& report = client.switches->slots[0];
  EXPECT_EQ(test::Value(report.is_switch_succ), static_cast<i32>(SwitchResult::kNegotiationFailed));
  EXPECT_EQ(test::Value(report.need_switch), 1) << "the judge's word";
  EXPECT_EQ(test::Value(report.count), 3);
}

// The flow's own negotiation, too, may be over before the clock has moved.
SCENARIO_F(SwitchTrial, AFlowThatIsRefusedAtOnceIsReportedWithAMillisecond) {
  test::ReportClient client;
  GetTracker().Init();
  Begins();
  const auto asked = world.now();
  ScriptedNode::Answer refusal;
  refusal.result = 9;
  a.Answers(refusal);
  loop.Pass();
  ASSERT_EQ(world.now(), asked);
  EXPECT_TRUE(Logged("UdpRemoteSession::" + test::NegotiationFailed(9) + "token=77"));
  GetTracker().UnInit();
  ASSERT_EQ(test::UsedSlots(client.failures), 1);
  EXPECT_EQ(test::Value(client.failures->slots[0].elapsed_ms), 1u);
}

SCENARIO_F(SwitchTrial, AnInvalidAnswerEndsIt) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  b.AnswersBytes("garbage");
  Turn();
  EXPECT_TRUE(Logged("UdpSwitchRemoteSession::HandleNegoRecv, Unpack error="));
  EXPECT_TRUE(
      Logged("UdpSwitchRemoteSession::" + test::NegotiationFailed(kNegoBadHeader) + "token=77"));
  ExpectOver(SwitchResult::kNegotiationFailed);
}

SCENARIO_F(SwitchTrial, ANodeOfAnotherProviderEndsIt) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  ScriptedNode::Answer other;
  other.isp = 2;
  b.Answers(other);
  Turn();
  EXPECT_TRUE(
      Logged("[UDP] UdpSwitchRemoteSession::CheckNegotiation isp not support, "
             "client_isp=2, support_isps=1, token=77"));
  EXPECT_TRUE(
      Logged("UdpSwitchRemoteSession::" + test::NegotiationFailed(kNegoIspNotServed) + "token=77"));
  ExpectOver(SwitchResult::kNegotiationFailed);
}

SCENARIO_F(SwitchTrial, AnErrorOfItsSocketEndsNothing) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  b.Answers();
  port::FailCall("recvfrom", 1, WSAECONNRESET);
  loop.Pass();
  EXPECT_TRUE(
      Logged("UdpSwitchRemoteSession::ReadPackage recvfrom failed, error = 10054, token=77"));
  EXPECT_FALSE(Logged(test::kTrialAgreed));
  loop.Pass();
  EXPECT_TRUE(Logged(test::kTrialAgreed));
  EXPECT_EQ(Count("recvfrom failed"), 1) << "that there is nothing more to read is no error";
}

class ForcedTrial : public SwitchTrial {
 protected:
  ForcedTrial() : SwitchTrial(kForcedServer) {}
};

SCENARIO_F(ForcedTrial, TakesANodeOfAnotherProvider) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  ScriptedNode::Answer other;
  other.isp = 2;
  b.Answers(other);
  Turn();
  EXPECT_TRUE(
      Logged("UdpSwitchRemoteSession::" + test::kForcedPastIsp + "support_isps=1, token=77"));
  EXPECT_TRUE(Logged(test::kTrialAgreed));
}

SCENARIO_F(SwitchTrial, AcceptsDatagramsOfItsNodeOnly) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  b.AnswersFromTheWrongPort();
  Turn();
  EXPECT_EQ(Results(), Outcomes{});
  EXPECT_FALSE(Logged(test::kTrialAgreed));
  b.Answers();
  Turn();
  EXPECT_TRUE(Logged(test::kTrialAgreed));
}

// Nor the game's socket, even if the node names that as its data address.
SCENARIO_F(SwitchTrial, IgnoresTheGame) {
  IsCarried();
  ASSERT_TRUE(Fires());
  ASSERT_TRUE(b.IsAsked());
  ScriptedNode::Answer the_games;
  the_games.data_port = 5555;
  b.Answers(the_games);
  Turn();
  ASSERT_TRUE(Logged(test::kTrialAgreed + ", accl_data_addr=127.0.0.1:5555,")) << log->Text();
  sockaddr_in trial;
  int size = sizeof trial;
  ASSERT_EQ(getsockname(TrialSocket(), Raw(trial), &size), 0);
  SendTextTo(game, b.DataBytes("from the game", 1, 101), "127.0.0.1", ntohs(trial.sin_port));
  Turn();
  EXPECT_EQ(Results(), Outcomes{}) << "data of the node would have completed it";
  EXPECT_NE(Trial(), nullptr);
}

// --- verification -----------------------------------------------------------------------------

// Five probes, the timer's next steps apart; no datagram of the game's goes that way.
SCENARIO_F(SwitchTrial, ItsBurstStartsAtOnceWhileTheGamePlaysOnOverTheOldNode) {
  config.ignore_high_freq_test_time = 60;  // for links that carry the game
  IsCarried();
  IsVerifying();
  int probes = 0;
  for (int turn = 0; turn < 5; ++turn) {
    GameSends("tick");
    Turn();
    for (const Wrapped& one : b.Takes()) {
      EXPECT_TRUE(one.IsProbe());
      EXPECT_EQ(one.accl_token, b.accl_token);
      EXPECT_EQ(one.seq, static_cast<u32>(++probes));
      EXPECT_EQ(one.game_ip, ntohl(server_addr.sin_addr.s_addr));
      EXPECT_EQ(one.game_port, kServerPort);
    }
    b.AnswersProbes();
    EXPECT_EQ(a.TakenData(), "tick");
  }
  // The first step of the burst only read the clock, as the negotiation ended.
  EXPECT_EQ(probes, 5);
  EXPECT_TRUE(Logged(test::kTrialVerified));
}

// The verdict falls as the last probe leaves: of five the first is the base to count from, and the
// last is not answered by then, which makes one of four.
SCENARIO_F(SwitchTrial, ANodeThatLosesNothingShowsAQuarterOfLoss) {
  config.switching_max_real_route_lost = 26;
  IsCarried();
  IsVerified();
  EXPECT_TRUE(Logged(test::kRealRouteLoss +
                     ", cycle_size=5, download_lost=25, upload_lost=0, full_lost=25, "
                     "need_recv_pkg=4, real_recv_pkgs=3,"))
      << log->Text();
}

SCENARIO_F(SwitchTrial, ByDefaultNoNodePasses) {
  config.switching_max_real_route_lost = 0;
  IsCarried();
  IsVerifying();
  HealthyTurns(10);
  EXPECT_TRUE(
      Logged("[UDP] UdpSwitchRemoteSession::" + test::kTrialVerdict + ", Verifying result=failed"));
  ExpectOver(SwitchResult::kVerificationFailed);
}

SCENARIO_F(SwitchTrial, ANodeThatAnswersNoProbeFails) {
  IsCarried();
  IsVerifying();
  const SOCKET trial = TrialSocket();
  Turns(10);
  ExpectOver(SwitchResult::kVerificationFailed);
  EXPECT_EQ(Readiness(trial), "error 10038") << "closed";
  EXPECT_EQ(Counted(trial), "nothing");
}

// More probes than the long window holds: what a node lost in the beginning does not count.
SCENARIO_F(SwitchTrial, ALongBurstIsJudgedByItsLastSlots) {
  config.lost_calc_unit_size = 100;
  config.long_cycle = 2;
  config.switching_high_freq_test_time = 400;  // 40 probes, 30 ms apart
  IsCarried();
  IsVerifying();
  for (int turn = 0, probes = 0; turn < 60 && !Logged(test::kTrialVerdict); ++turn) {
    Turn();
    for (const Wrapped& one : b.Takes()) probes += one.IsProbe() ? 1 : 0;
    if (probes <= 30) b.ForgetsProbes();
    b.AnswersProbes();
  }
  EXPECT_TRUE(Logged(test::kTrialVerified)) << log->Text();
}

SCENARIO_F(SwitchTrial, WithGameTrafficBarredAGoodNodeIsOnlyReported) {
  config.game_link_switch_open = 0;
  IsCarried();
  IsVerified();
  EXPECT_TRUE(
      Logged("UdpSwitchRemoteSession::" + test::kTrialVerdict + ", game_link switch is not open"));
  ExpectOver(SwitchResult::kNotOpen);
}

// A judge that may not measure the new node gives no verdict, and no time limit ends the trial.
// Kept.
SCENARIO_F(SwitchTrial, OfANodeThatMayNotBeMeasuredNeverEnds) {
  image.proxies[1].flag = 4;
  IsCarried();
  IsVerifying();
  HealthyTurns(2000);
  EXPECT_EQ(Results(), Outcomes{});
  EXPECT_NE(Trial(), nullptr);
  EXPECT_FALSE(Fires()) << "and bars every later one";
  ExpectCarriedByA();
}

// --- verified ---------------------------------------------------------------------------------

SCENARIO_F(SwitchTrial, AVerifiedNodeCarriesWhatTheGameSendsAndTheOldOneWhatItGets) {
  IsCarried();
  IsVerified();
  GameSends("one");
  GameSends("two");
  Turn();
  const std::vector<Wrapped> came = b.Takes();
  ASSERT_EQ(came.size(), 2u);
  for (u32 i = 0; i < 2; ++i) {
    EXPECT_TRUE(came[i].IsData());
    EXPECT_EQ(came[i].accl_token, b.accl_token);
    EXPECT_EQ(came[i].seq, i + 1) << "a link has numbers of its own";
    EXPECT_EQ(came[i].lost, 0) << "of this link nothing is known yet";
  }
  EXPECT_EQ(a.TakenData(), "");
  EXPECT_EQ(Counted(TrialSocket()), "2 sent, 0 received");
  EXPECT_EQ(Counted(local_sock), "1 sent, 0 received") << "the first, before the trial";
  a.SendsData("late");
  Turn();
  EXPECT_EQ(GameGets(), "late");
  EXPECT_EQ(Results(), Outcomes{});
}

SCENARIO_F(SwitchTrial, ADatagramTooLongToWrapAlsoBypassesAVerifiedNode) {
  IsCarried();
  IsVerified();
  GameSends(Pattern(2029));
  Turn();
  EXPECT_EQ(b.TakenData(), "");
  EXPECT_EQ(a.TakenData(), "");
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::SendTo success, addr=198.51.100.10:27015, len=2029"));
}

SCENARIO_F(SwitchTrial, NothingButDataOfItsNodeCompletesIt) {
  IsCarried();
  IsVerified();
  GameSends("hello");
  Turn();
  b.Takes();
  b.AnswersProbes();  // however late
  b.SendsDataFromTheWrongPort("from elsewhere");
  b.SendsRaw("short");  // no header
  std::string past_end = b.DataBytes("x", 1, 101);
  past_end[1] = 60;  // its header says that it is longer than the datagram
  b.SendsRaw(past_end);
  Turns(100);
  EXPECT_EQ(Results(), Outcomes{});
  EXPECT_EQ(GameGets(), "");
  EXPECT_TRUE(
      Logged("[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, unpack error, "
             "ret=-3, accl_data_addr=127.0.0.1:7102, token=77"))
      << log->Text();
  EXPECT_TRUE(
      Logged("[UDP] UdpSwitchRemoteSession::UnWrapUdpAcclPackage failed, package invalid, "
             "head_len > pack_len, accl_data_addr=127.0.0.1:7102, token=77"));
  EXPECT_TRUE(Logged("UdpSwitchRemoteSession::UnWrapUdpAcclPackage: it is a speed test result"));
  EXPECT_FALSE(Fires()) << "it runs, for as long as the node is silent";
  GameSends("still");
  Turn();
  EXPECT_EQ(b.TakenData(), "still");
}

// A datagram that is marked as a probe and is not one is data, and proves the node like any other.
SCENARIO_F(SwitchTrial, DataWithAProbesMarkCompletesIt) {
  IsCarried();
  IsVerified();
  std::string marked = b.DataBytes("marked", 1, 101);
  marked[2] = 8;
  b.SendsRaw(marked);
  Turn();
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  EXPECT_EQ(GameGets(), "marked");
}

SCENARIO_F(SwitchTrial, TheFirstDataOfItsNodeHandsTheFlowOver) {
  IsCarried();
  IsVerified();
  const SOCKET new_sock = TrialSocket();
  sockaddr_in relay_before, relay_after;
  ASSERT_TRUE(session->GetRelayAddr(&relay_before));
  a.Takes();
  GameSends("one");
  Turn();
  b.SendsData("answer");
  b.SendsData("another");  // behind it in the socket, for its next owner
  Turns(2);
  EXPECT_EQ(GameGets(), "answer another");
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  EXPECT_EQ(Trial(), nullptr);
  EXPECT_EQ(loop.delegates[new_sock], static_cast<IRelaySocketDelegate*>(flow));
  EXPECT_TRUE(loop.Has(local_sock)) << "the game's port";
  ASSERT_TRUE(session->GetRelayAddr(&relay_after));
  EXPECT_EQ(relay_after.sin_port, relay_before.sin_port);
  // The old node gets an end message, with the number after its last.
  const std::vector<Wrapped> last = a.Takes();
  ASSERT_EQ(last.size(), 1u);
  EXPECT_TRUE(last[0].IsEnd());
  EXPECT_EQ(last[0].accl_token, a.accl_token);
  EXPECT_EQ(last[0].seq, 3u) << "after one datagram: the number is counted before it is taken";
  EXPECT_TRUE(Logged(test::kSocketReplaced + std::to_string(new_sock) +
                     ", ori socket=" + std::to_string(local_sock) + ", token=77"));
  // From here on B is the link: for data either way, and for the end message.
  EXPECT_EQ(b.TakenData(), "one");
  GameSends("two");
  Turn();
  const std::vector<Wrapped> came = b.Takes();
  ASSERT_GE(came.size(), 1u);
  EXPECT_EQ(came[0].payload, "two");
  EXPECT_EQ(came[0].seq, 2u) << "the link's numbers go on";
  EXPECT_EQ(Counted(new_sock), "2 sent, 2 received");
  EXPECT_EQ(Counted(local_sock), "1 sent, 0 received");
  a.SendsData("too late");
  Turn();
  EXPECT_EQ(GameGets(), "") << "the old node is a stranger now";
  session.reset();
  EXPECT_EQ(b.TakenEnds(), 1);
  EXPECT_EQ(a.TakenEnds(), 0);
}

SCENARIO_F(SwitchTrial, TheNewLinkIsProbedAndJudgedFromNothing) {
  config.ignore_high_freq_test_time = 3600;  // no burst
  IsCarried();
  IsVerified();
  const SOCKET new_sock = TrialSocket();
  SpeedStats before, after;
  ASSERT_TRUE(GetTracker().GetSpeedTestResult(new_sock, &before));
  b.SendsData("proof");
  Turn();
  ASSERT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  a.Takes();
  b.Takes();
  Turns(60);
  const std::vector<Wrapped> probes = b.Takes();
  EXPECT_EQ(probes.size(), 3u);
  for (u32 i = 0; i < probes.size(); ++i) {
    EXPECT_TRUE(probes[i].IsProbe());
    EXPECT_EQ(probes[i].accl_token, b.accl_token);
    EXPECT_EQ(probes[i].seq, i + 1);
  }
  ASSERT_TRUE(GetTracker().GetSpeedTestResult(new_sock, &after));
  EXPECT_EQ(after.frontend.all_send_count - before.frontend.all_send_count, probes.size());
  EXPECT_TRUE(a.Takes().empty());
  EXPECT_EQ(Count("acc_info=198.51.100.10-27015-2-127.0.0.1-7002, client_info=0-0-1-127.0.0.1, "
                  "socket=" +
                  std::to_string(new_sock) + ", token=77"),
            2)
      << "its judge on trial and then as the flow's";
}

// The parent takes over a link that has never been filled in. Kept: the flow is lost with it.
SCENARIO_F(SwitchTrial, DataWhileItIsVerifiedHandsOverALinkThatIsNotFilled) {
  IsCarried();
  IsVerifying();
  b.SendsData("eager");
  Turn();
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver});
  EXPECT_EQ(a.TakenEnds(), 1);
  EXPECT_EQ(GameGets(), "") << "its sender is not the one that the link names";
  Turn();
  EXPECT_EQ(Trial(), nullptr);
  GameSends("lost");
  Turn();
  EXPECT_EQ(a.TakenData() + b.TakenData(), "");
}

// The same if a link has been verified before: the copy is that of the earlier link.
SCENARIO_F(SwitchTrial, DataWhileASecondOneIsVerifiedHandsOverTheLinkBefore) {
  IsCarried();
  IsTakenOver();
  Turns(2);
  b.Takes();
  ASSERT_TRUE(Fires());
  Turn();
  ASSERT_TRUE(a.IsAsked());
  a.Answers();
  Turn();
  a.SendsData("eager");
  Turn();
  EXPECT_EQ(Results(), (Outcomes{SwitchResult::kTakenOver, SwitchResult::kTakenOver}));
  GameSends("on");
  Turn();
  EXPECT_EQ(b.TakenData(), "on") << "over A's socket to B's address";
}

SCENARIO_F(SwitchTrial, BarredGameTrafficStillMovesWithData) {
  config.game_link_switch_open = 0;
  IsCarried();
  IsVerifying();
  b.SendsData("eager");
  Turn();
  EXPECT_EQ(Results(), Outcomes{SwitchResult::kTakenOver})
      << "kept: only the verdict asks whether that is open";
}

}  // namespace
