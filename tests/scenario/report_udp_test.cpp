// What the client program learns of datagram flows: every way through a node, past it or around it
// leaves exactly the reports that it should, with figures that agree with the node's own.
#include "relay/nego_common.h"
#include "tests/scenario/udp_world.h"
//
#include <cstring>
#include <set>

#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "tests/support/report_client.h"

namespace {

using namespace udp_test;       // NOLINT: the verbs of these tests
using namespace moru_vyr::lsp;  // NOLINT: the records
using common::u32;
using test::UsedSlots;

// The client program has started before the game.
struct EarlyClient {
  test::ReportClient client;
};

class ReportUdp : public EarlyClient, public UdpWorld {
 protected:
  SOCKET Opens(const char* ip = kServer) {
    const SOCKET s = Udp();
    EXPECT_EQ(Talks(s, "hello", ip).substr(0, 5), "hello") << log_text();
    return s;
  }
  void Closes(SOCKET s) {
    closesocket(s);
    EXPECT_TRUE(RunUntil([this] { return NodesAreFree(); }, 5s)) << a.AllEvents();
    RunFor(1s);
  }
  // Twenty datagrams a second, with their answers read.
  void Plays(SOCKET s, int ms, const char* ip = kServer) {
    for (int passed = 0; passed < ms; passed += 50) {
      Sends(s, "tick" + std::to_string(passed), ip);
      RunFor(50ms);
      while (ReadableWithin(s, 0)) Receives(s, 0);
    }
  }
  bool PlaysUntil(SOCKET s, const std::function<bool()>& until, int most_ms) {
    for (int passed = 0; passed < most_ms && !until(); passed += 50) Plays(s, 50);
    return until();
  }
  void ExpectSlots(int decisions, int negotiations, int failures) {
    EXPECT_EQ(UsedSlots(client.decisions), decisions);
    EXPECT_EQ(UsedSlots(client.negotiations), negotiations);
    EXPECT_EQ(UsedSlots(client.failures), failures);
  }
  std::vector<const CommInfoRecord*> Traffic(int ended) {
    std::vector<const CommInfoRecord*> found;
    for (const CommInfoRecord& record : client.traffic->slots)
      if (record.used != 0 && record.ended == ended) found.push_back(&record);
    return found;
  }
  // The last report of the one flow that has ended.
  const CommInfoRecord& LastReport() {
    static const CommInfoRecord none;
    const auto ended = Traffic(1);
    EXPECT_EQ(ended.size(), 1u);
    return ended.size() == 1 ? *ended[0] : none;
  }
  static void ExpectNodesFigures(const CommInfoRecord& report, const node::Event& flow) {
    EXPECT_EQ(report.total_sent_packets, flow.Number("datagrams_to_server"));
    EXPECT_EQ(report.total_sent_bytes, flow.Number("bytes_to_server"));
    EXPECT_EQ(report.total_recv_packets, flow.Number("datagrams_to_client"));
    EXPECT_EQ(report.total_recv_bytes, flow.Number("bytes_to_client"));
    EXPECT_EQ(report.guid_str, flow.Text("guid"));
  }
};

// --- each way through the channels ------------------------------------------------------------

SCENARIO_F(ReportUdp, DirectFlowHasOnlyADecision) {
  Starts();
  EXPECT_EQ(Talks(Udp(), "hello", kUnlisted).substr(0, 5), "hello");  // no node is asked about it
  RunFor(1s);
  ExpectSlots(0, 0, 0);
  const SOCKET s = Opens(kDirect);
  RunFor(500ms);
  ExpectSlots(1, 0, 0);
  const AccDecisionInfo& decision = client.decisions->slots[0];
  EXPECT_EQ(decision.used, 1);
  EXPECT_EQ(decision.game_id, 7u);
  EXPECT_EQ(decision.game_ip, 0xc633640bu);
  EXPECT_EQ(decision.game_port, 27015u);
  EXPECT_EQ(decision.socket_type, 1);  // a datagram socket is 1 here and 2 in the traffic
  EXPECT_EQ(decision.acc_reason, kReasonDirect);
  EXPECT_EQ(std::string(decision.guid).size(), 36u);
  Plays(s, 8000, kDirect);
  Closes(s);
  ExpectSlots(1, 0, 0);
  EXPECT_EQ(UsedSlots(client.traffic), 0);
}

SCENARIO_F_SEEDS(ReportUdp, FlowThroughANodeIsReportedToTheByte, 3) {
  Starts();
  const SOCKET s = Opens();
  for (size_t i = 0; i < 60; ++i) {
    const std::string text = Pattern(world.random().Below(1900));
    EXPECT_EQ(Talks(s, text), text + " from 198.51.100.10:27015");
  }
  Closes(s);
  ExpectSlots(1, 1, 0);
  const CommInfoRecord& last = LastReport();
  ExpectNodesFigures(last, a.Last("flow_closed"));
  EXPECT_EQ(last.total_sent_packets, heard.size());
  EXPECT_EQ(last.total_recv_packets, 61u);
  EXPECT_EQ(last.total_sent_errors + last.total_recv_errors, 0u);
  EXPECT_EQ(last.game_id, 7u);
  EXPECT_EQ(last.socket_type, 2u);
  EXPECT_STREQ(last.game_ip, kServer);
  EXPECT_EQ(last.game_port, 27015u);
  EXPECT_EQ(last.game_idc, 11u);
  EXPECT_STREQ(last.proxy_ip, kNodeA);
  EXPECT_EQ(last.proxy_port, 7001);
  EXPECT_EQ(last.proxy_idc, 1u);
  EXPECT_EQ(last.user_isp, 1u);
  EXPECT_EQ(last.user_ip, test::Ip(kGame));
}

SCENARIO_F(ReportUdp, DecisionAndNegotiationOfAFlowHaveTheSameGuid) {
  Starts();
  Closes(Opens());
  const std::string guid = a.Last("request").Text("guid");
  const AccDecisionInfo& decision = client.decisions->slots[0];
  const RealNegoRecord& negotiation = client.negotiations->slots[0];
  EXPECT_EQ(decision.guid, guid);
  EXPECT_EQ(negotiation.guid, guid);
  EXPECT_EQ(LastReport().guid_str, guid);
  EXPECT_EQ(decision.acc_reason, kReasonAcce);
  EXPECT_STREQ(decision.selected_proxy.proxy_addr, kNodeA);
  EXPECT_EQ(u32{decision.selected_proxy.user_ip}, test::Ip(kGame));  // as the node has answered
  EXPECT_EQ(negotiation.game_id, 7u);
  EXPECT_EQ(negotiation.user_isp, 1u);
  EXPECT_EQ(negotiation.user_ip, test::Ip(kGame));
  EXPECT_EQ(negotiation.proxy_id, 1u);
  EXPECT_STREQ(negotiation.proxy_ip, kNodeA);
  EXPECT_EQ(negotiation.proxy_port, 7001u);
  EXPECT_EQ(negotiation.last_node_id, 1u);
  EXPECT_EQ(negotiation.last_node_ip, test::Ip(kNodeA));
  EXPECT_EQ(negotiation.game_ip, 0xc633640au);
  EXPECT_EQ(negotiation.game_port, 27015u);
  EXPECT_GE(negotiation.stamp, 1'700'000'000u);
  EXPECT_LE(negotiation.stamp, 1'700'000'002u);
}

SCENARIO_F(ReportUdp, RefusalIsReportedAndThenTheNodeThatServes) {
  a.AnswersWith(9);
  Starts();
  Closes(Opens());
  ExpectSlots(1, 1, 1);
  const NegRetRecord& failure = client.failures->slots[0];
  EXPECT_EQ(failure.neg_type, 1);
  EXPECT_EQ(failure.game_id, 7u);
  EXPECT_EQ(failure.nego_result, 9);
  EXPECT_EQ(failure.nego_count, 1u);
  EXPECT_GE(failure.elapsed_ms, 1u);
  EXPECT_LT(failure.elapsed_ms, 100u);
  EXPECT_EQ(failure.game_idc, 11u);
  EXPECT_STREQ(failure.game_ip, kServer);
  EXPECT_EQ(failure.game_port, 27015);
  EXPECT_EQ(failure.proxy_idc, 1u);
  EXPECT_STREQ(failure.proxy_ip, kNodeA);
  EXPECT_EQ(failure.proxy_port, 7001);
  EXPECT_EQ(failure.process_id, GetCurrentProcessId());
  EXPECT_EQ(failure.user_isp, 1u);  // a refusal says it too
  EXPECT_EQ(failure.user_ip, test::Ip(kGame));
  EXPECT_STREQ(client.negotiations->slots[0].proxy_ip, kNodeB);
  EXPECT_STREQ(client.negotiations->slots[0].guid, failure.guid);
  EXPECT_STREQ(client.decisions->slots[0].selected_proxy.proxy_addr, kNodeB);
  const CommInfoRecord& last = LastReport();
  EXPECT_STREQ(last.proxy_ip, kNodeB);
  EXPECT_EQ(last.proxy_port, 7002);
  ExpectNodesFigures(last, b.Last("flow_closed"));
}

// The record of the socket names the node that is being asked, before that has answered.
SCENARIO_F(ReportUdp, AChangeOfNodeIsReportedWhenItHappens) {
  a.AnswersWith(9);
  b.StopsAnswering();
  Starts(0);
  EXPECT_EQ(Sends(Udp(), "hello"), 0);
  RunFor(1s);
  const std::string log = log_text(),
                    noted = "[Tracker] Socket Base Acce Information saved socket=";
  const size_t change = log.find("[UDP] UdpRemoteSession::ChangeAcclServer, proxy_idc=2,token=");
  ASSERT_NE(change, std::string::npos) << log;
  const size_t second = log.rfind(noted, change);
  EXPECT_NE(log.find(noted), second) << "the decision's own is the first";
  EXPECT_NE(log.find("is_acce=1", second), std::string::npos);
  EXPECT_EQ(log.find(noted, change), std::string::npos);
}

SCENARIO_F(ReportUdp, TwoSilentNodesAreTwoFailuresAndNothingElse) {
  a.StopsAnswering();
  b.StopsAnswering();
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "hello"), 0);
  RunFor(11s);
  ASSERT_EQ(Heard("game").size(), 1u) << AllHeard();
  Plays(s, 6000);
  closesocket(s);
  RunFor(1s);
  ExpectSlots(0, 0, 2);
  EXPECT_EQ(UsedSlots(client.traffic), 0);
  for (u32 i = 0; i < 2; ++i) {
    const NegRetRecord& failure = client.failures->slots[i];
    EXPECT_EQ(failure.nego_result, int{moru_vyr::lsp::kNegoTimedOut});
    EXPECT_EQ(failure.nego_count, i + 1);
    EXPECT_GE(failure.elapsed_ms, 5000u);
    EXPECT_LT(failure.elapsed_ms, 5200u);
    EXPECT_STREQ(failure.proxy_ip, i == 0 ? kNodeA : kNodeB);
    EXPECT_EQ(failure.guid, a.Last("request").Text("guid"));
  }
}

// --- traffic while a flow lives ---------------------------------------------------------------

SCENARIO_F(ReportUdp, TrafficIsReportedAfterTheNegotiationAndThenEveryFiveSeconds) {
  Starts();
  RunFor(3s);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "hello"), 0);
  EXPECT_TRUE(RunUntil([&] { return UsedSlots(client.traffic) == 1; }, 250ms));
  EXPECT_EQ(client.traffic->slots[0].total_sent_packets, 0u);  // it is reported, then sent
  Plays(s, 26'000);
  const auto live = Traffic(0);
  ASSERT_GE(live.size(), 6u);
  ASSERT_LE(live.size(), 7u);
  for (size_t i = 2; i < live.size(); ++i) {
    const u32 pause = live[i]->life - live[i - 1]->life;
    EXPECT_GT(pause, 5000u);
    EXPECT_LE(pause, 5025u);
    EXPECT_NEAR(live[i]->total_sent_packets - live[i - 1]->total_sent_packets, pause / 50, 1);
    EXPECT_LE(live[i]->idle, 60u);
  }
  EXPECT_TRUE(Traffic(1).empty());
}

SCENARIO_F(ReportUdp, ProbesAreReportedAsTheNodeCountsThem) {
  a.behaviour().relays = 2;
  a.behaviour().hop_delay_ms = 30;
  a.DelaysRoundTripBy(80);
  Starts();
  const SOCKET s = Opens();
  Plays(s, 10'000);
  RunFor(200ms);
  Closes(s);
  const CommInfoRecord& last = LastReport();
  const node::Event flow = a.Last("flow_closed");
  EXPECT_GE(last.frontend_all.send_count, 15u);
  EXPECT_EQ(last.frontend_all.send_count, flow.Number("probes"));
  EXPECT_EQ(last.backend_all.send_count, flow.Number("probes"));
  EXPECT_EQ(last.frontend_all.recv_count + last.backend_all.recv_count,
            flow.Number("probe_answers"));
  EXPECT_EQ(last.topology_type, 2u);
  EXPECT_NEAR(last.frontend_fine.delay_avg, 83, 22);  // the node steps every 20 ms
  EXPECT_NEAR(last.backend_fine.delay_avg, 143, 42);
  EXPECT_GE(last.backend_fine.delay_avg, last.frontend_fine.delay_avg + 50);
  EXPECT_LE(last.frontend_fine.delay_min, last.frontend_fine.delay_avg);
  EXPECT_GE(last.frontend_fine.delay_max, last.frontend_fine.delay_avg);
  EXPECT_EQ(last.frontend_over.count + last.backend_over.count, 0u);
}

SCENARIO_F(ReportUdp, LateProbesAreOverAndNotLost) {
  a.DelaysRoundTripBy(700);  // the limit is 500
  Starts();
  const SOCKET s = Udp();
  Plays(s, 10'000);
  RunFor(1s);
  Closes(s);
  const CommInfoRecord& last = LastReport();
  EXPECT_GE(last.frontend_over.count, 10u);
  EXPECT_GE(last.frontend_over.delay_min, 700u);
  EXPECT_EQ(last.frontend_fine.total_recv, 0u);
  EXPECT_LE(last.frontend_fine.total_send, 2u);  // those under way
  EXPECT_EQ(last.topology_type, 1u);
}

SCENARIO_F(ReportUdp, ProbeInFlightAtTheEndIsNotLost) {
  Starts();
  const SOCKET s = Opens();
  Plays(s, 10'000);
  world.Partition(world.home().host, a_host);
  RunFor(600ms);
  closesocket(s);
  RunFor(1s);
  const CommInfoRecord& last = LastReport();
  EXPECT_EQ(last.frontend_fine.total_send, last.frontend_all.send_count - 1);
  EXPECT_EQ(last.backend_fine.total_send, last.backend_all.send_count - 1);
  EXPECT_LT(last.frontend_all.recv_count, last.frontend_all.send_count);
}

// --- errors -----------------------------------------------------------------------------------

SCENARIO_F(ReportUdp, FailedCallsAreCountedWithTheirErrors) {
  Starts();
  const SOCKET s = Opens();
  // The game's own send, then the relay's.
  port::FailCall("WSPSendTo", 2, WSAENOBUFS);
  EXPECT_EQ(Sends(s, "lost"), 0);
  RunFor(200ms);
  port::ClearFaults();
  port::FailCall("WSPSendTo", 2, WSAENETUNREACH);
  EXPECT_EQ(Sends(s, "lost too"), 0);
  RunFor(200ms);
  port::ClearFaults();
  port::FailCall("WSPRecvFrom", 1, WSAECONNRESET);
  EXPECT_EQ(Talks(s, "after"), "after from 198.51.100.10:27015");
  port::ClearFaults();
  Closes(s);
  EXPECT_EQ(Heard(), (std::vector<std::string>{"hello", "after"}));
  const CommInfoRecord& last = LastReport();
  EXPECT_EQ(last.total_sent_packets, 2u);
  EXPECT_EQ(last.total_sent_errors, 2u);
  EXPECT_EQ(last.first_send_error_code, static_cast<u32>(WSAENOBUFS));
  EXPECT_EQ(last.curr_send_error_code, static_cast<u32>(WSAENETUNREACH));
  EXPECT_EQ(last.total_recv_packets, 2u);
  EXPECT_EQ(last.total_recv_errors, 1u);
  EXPECT_EQ(last.first_recv_error_code, static_cast<u32>(WSAECONNRESET));
  EXPECT_EQ(last.curr_recv_error_code, static_cast<u32>(WSAECONNRESET));
}

SCENARIO_F(ReportUdp, FiguresDoNotDependOnAnEarlierLastError) {
  port::SuccessKeepsLastError(true);
  Starts();
  const SOCKET s = Opens();
  Plays(s, 3000);
  Closes(s);
  ExpectSlots(1, 1, 0);
  ExpectNodesFigures(LastReport(), a.Last("flow_closed"));
  EXPECT_EQ(LastReport().total_sent_packets, 61u);
  EXPECT_EQ(LastReport().total_recv_packets, 61u);
}

// Kept: what had to wait for room is neither an error nor ever counted as sent.
SCENARIO_F(ReportUdp, DatagramThatWaitedForRoomIsNotCounted) {
  Starts();
  const SOCKET s = Opens();
  port::FailCall("WSPSendTo", 2, WSAEWOULDBLOCK);
  EXPECT_EQ(Sends(s, "waits"), 0);
  RunFor(200ms);
  port::ClearFaults();
  EXPECT_EQ(Talks(s, "after").substr(0, 5), "waits");
  EXPECT_EQ(Receives(s).text, "after");
  Closes(s);
  const CommInfoRecord& last = LastReport();
  EXPECT_EQ(a.Last("flow_closed").Number("datagrams_to_server"), 3u);
  EXPECT_EQ(last.total_sent_packets, 2u);
  EXPECT_EQ(last.total_sent_errors, 0u);
  EXPECT_EQ(last.first_send_error_code, 0u);
  EXPECT_EQ(last.total_recv_packets, 3u);
}

SCENARIO_F(ReportUdp, DatagramThatBypassesTheNodeIsCountedLikeTheOthers) {
  Starts();
  const SOCKET s = Opens();
  EXPECT_EQ(Sends(s, Pattern(2029)), 0);
  RunFor(100ms);
  EXPECT_EQ(Heard("game").size(), 1u);
  Closes(s);
  const CommInfoRecord& last = LastReport();
  const node::Event flow = a.Last("flow_closed");
  EXPECT_EQ(flow.Number("datagrams_to_server"), 1u);
  EXPECT_EQ(last.total_sent_packets, 2u);
  EXPECT_EQ(last.total_sent_bytes, flow.Number("bytes_to_server") + 2029);
}

// --- moving to another node -------------------------------------------------------------------

class ReportSwitch : public ReportUdp {
 protected:
  // A flow through A that may be moved by now.
  SOCKET OpensSwitchable() {
    MayMeasureAndSwitch();
    Starts();
    RunFor(60s);
    const SOCKET s = Opens();
    Plays(s, 8000);
    return s;
  }
  const RecoverySwitchRecord* LastSwitch() {
    const int used = UsedSlots(client.switches);
    return used > 0 ? &client.switches->slots[used - 1] : nullptr;
  }
};

// Kept: the socket on trial has no decision of its own, so from the move on the traffic is in no
// report, and the report on the flow's end covers only the time before.
SCENARIO_F(ReportSwitch, MoveIsReportedOnceItIsDone) {
  const SOCKET s = OpensSwitchable();
  ASSERT_EQ(UsedSlots(client.switches), 0);
  a.GoesDark();
  const size_t heard_by_a = Heard("A").size();
  ASSERT_TRUE(PlaysUntil(
      s, [&] { return !Heard("B").empty(); }, 60'000))
      << log_text();
  Plays(s, 2000);
  ExpectSlots(2, 2, 0);
  const std::string guid = client.decisions->slots[0].guid;
  const RecoverySwitchRecord* const moved = LastSwitch();
  ASSERT_NE(moved, nullptr);
  EXPECT_EQ(moved->game_id, 7u);
  EXPECT_EQ(moved->need_switch, 1);
  EXPECT_EQ(moved->is_switch_succ, 0);
  EXPECT_EQ(moved->count, 1);
  EXPECT_EQ(moved->proxy_idc, 1);  // the node that was left
  EXPECT_EQ(moved->link_type, 1);
  EXPECT_EQ(moved->guid, guid);
  EXPECT_STREQ(moved->switch_condition, "delay_amp>=1000;delay_avg>=1000;real_lost>=20");
  EXPECT_STREQ(moved->acc_info, "198.51.100.10-27015-1-198.51.100.20-7001");
  const u32 table = client.decisions->slots[0].header1;
  EXPECT_EQ(moved->client_info, std::to_string(table) + "-0-1-192.0.2.1");
  EXPECT_GT(moved->total_send_pack, moved->total_recv_pack);
  EXPECT_GE(moved->elapse_time, 8000u);
  EXPECT_STREQ(client.decisions->slots[1].selected_proxy.proxy_addr, kNodeB);
  EXPECT_STREQ(client.negotiations->slots[1].proxy_ip, kNodeB);
  EXPECT_STREQ(client.negotiations->slots[1].guid, "");
  const u32 at_the_move = static_cast<u32>(Heard("B").size());
  Plays(s, 6000);
  EXPECT_GT(Heard("B").size(), at_the_move + 100);
  closesocket(s);
  RunFor(1s);
  const CommInfoRecord& last = LastReport();
  EXPECT_EQ(last.guid_str, guid);
  EXPECT_STREQ(last.proxy_ip, kNodeA);
  EXPECT_GE(last.idle, 8000u);
  EXPECT_EQ(last.total_recv_packets, heard_by_a);
  for (const CommInfoRecord* live : Traffic(0)) EXPECT_STREQ(live->guid_str, guid.c_str());
}

SCENARIO_F(ReportSwitch, FailedTrialIsAFailedNegotiationAndAReportOfTheMove) {
  b.StopsAnswering();
  const SOCKET s = OpensSwitchable();
  a.LosesDown(60);
  ASSERT_TRUE(PlaysUntil(
      s, [&] { return UsedSlots(client.switches) > 0; }, 60'000))
      << log_text();
  ExpectSlots(1, 1, 1);
  const NegRetRecord& failure = client.failures->slots[0];
  EXPECT_EQ(failure.neg_type, 1);
  EXPECT_EQ(failure.nego_result, int{moru_vyr::lsp::kNegoTimedOut});
  EXPECT_EQ(failure.nego_count, 1u);
  EXPECT_GE(failure.elapsed_ms, 1000u);
  EXPECT_LT(failure.elapsed_ms, 1200u);
  EXPECT_STREQ(failure.proxy_ip, kNodeB);
  EXPECT_STREQ(failure.guid, "");  // a socket on trial has none
  EXPECT_EQ(LastSwitch()->is_switch_succ, 3);
  EXPECT_EQ(LastSwitch()->need_switch, 1);
  EXPECT_EQ(LastSwitch()->guid, std::string(client.decisions->slots[0].guid));
  Closes(s);  // the flow itself has stayed where it was
  EXPECT_STREQ(LastReport().proxy_ip, kNodeA);
  EXPECT_EQ(std::string(LastReport().recovery_info).substr(0, 8), "0-0-0-0-");
}

SCENARIO_F(ReportSwitch, ABadLinkThatMayNotSwitchIsReported) {
  MayMeasureAndSwitch();
  Configures([](AccConfigRecord* config) { config->switch_open = 0; });
  Starts();
  RunFor(60s);
  const SOCKET s = Opens();
  Plays(s, 8000);
  a.LosesDown(60);
  ASSERT_TRUE(PlaysUntil(
      s, [&] { return UsedSlots(client.switches) > 0; }, 60'000))
      << log_text();
  ExpectSlots(1, 1, 0);
  EXPECT_EQ(LastSwitch()->need_switch, 0);
  EXPECT_EQ(LastSwitch()->is_switch_succ, 0);
  EXPECT_EQ(b.Count("request"), 0u);
}

// --- slow and absent client programs ----------------------------------------------------------

SCENARIO_F(ReportUdp, FullChannelCostsItsReportsAndNothingElse) {
  for (CommInfoRecord& slot : client.traffic->slots) test::Fill(slot, 0x5a);
  const CommunicationRegion before = client.traffic.region();
  Starts();
  SOCKET s = Opens();
  Plays(s, 6000);
  Closes(s);
  EXPECT_EQ(std::memcmp(&before, &client.traffic.region(), sizeof before), 0);
  EXPECT_TRUE(Logged("ReportCommunicationStatistic failed. can't find free position., socket="));
  ExpectSlots(1, 1, 0);
  client.traffic->slots[9].used = 0;
  client.traffic->slots[5].used = 0;
  s = Opens();
  RunFor(300ms);
  EXPECT_EQ(client.traffic->slots[5].used, 1);
  EXPECT_EQ(client.traffic->slots[5].ended, 0);
  EXPECT_EQ(client.traffic->slots[9].used, 0);
  Closes(s);
  EXPECT_EQ(client.traffic->slots[9].used, 1);
  EXPECT_EQ(client.traffic->slots[9].ended, 1);
}

// Kept: flows are reported in the order of their guids until the channel is full, so a slow client
// program gets the same ones each time. The end of each flow is reported separately.
SCENARIO_F(ReportUdp, FlowsBeyondTheSlotsAreReportedWhenTheyEnd) {
  constexpr size_t kFlows = 40, kSlots = kCommunicationChannel.slot_count;
  Starts();
  std::vector<SOCKET> sockets;
  for (size_t i = 0; i < kFlows; ++i) sockets.push_back(Opens());
  std::set<std::string> guids;
  for (const node::Event& one : a.Events("request")) guids.insert(one.Text("guid"));
  ASSERT_EQ(guids.size(), kFlows);
  RunFor(6s);
  for (CommInfoRecord& slot : client.traffic->slots) slot.used = 0;
  RunFor(5100ms);
  auto guid = guids.begin();
  for (const CommInfoRecord& slot : client.traffic->slots) EXPECT_EQ(slot.guid_str, *guid++);
  EXPECT_EQ(Traffic(0).size(), kSlots);
  std::set<std::string> ended;
  for (const SOCKET s : sockets) {
    for (CommInfoRecord& slot : client.traffic->slots) slot.used = 0;
    closesocket(s);
    RunFor(300ms);
    for (const CommInfoRecord* record : Traffic(1)) ended.insert(record->guid_str);
  }
  EXPECT_EQ(ended, guids);
}

SCENARIO_F(ReportUdp, RegionsOfAnotherVersionAreNotWrittenAndTheRelayWorks) {
  client.decisions->header.minor_ver = 37;
  client.traffic->header.minor_ver = 37;
  client.log_paths->header.major_ver = 2;
  client.loaded->header.shared_mem_size += 8;
  client.failures->header.minor_ver = 35;
  client.negotiations->header.minor_ver = 0;
  a.AnswersWith(9);
  Starts();
  const SOCKET s = Opens();
  Plays(s, 6000);
  Closes(s);
  EXPECT_EQ(Difference(Heard(), Heard("B")), "");
  ExpectSlots(0, 0, 0);
  EXPECT_EQ(UsedSlots(client.traffic) + UsedSlots(client.log_paths) + UsedSlots(client.loaded), 0);
  for (const char* text :
       {"[Tracker] ReportAcceDecisionInfo failed, mem_addr=null",
        "[Tracker] ReportNegRetValue failed, mem_addr=null",
        "[SocketQosHelper] ReportRealNego failed, mem_addr=null",
        "[Tracker] ReportCommunicationStatistic failed, mem_addr=null,socket="}) {
    EXPECT_TRUE(Logged(text)) << text;
  }
}

// --- the end of the game ----------------------------------------------------------------------

// The Tracker ends before the relays do: open flows are reported as open, and never again.
SCENARIO_F_SEEDS(ReportUdp, CleanupReportsOpenFlowsOnceMoreAndNoEnd, 5) {
  Starts();
  const SOCKET s = Opens();
  const SOCKET other = Opens(kSecond);
  RunFor(std::chrono::milliseconds(300 + world.random().Below(6000)));
  Plays(s, 200);
  const size_t before = Traffic(0).size();
  const u32 sent = static_cast<u32>(Heard("A").size()) - 1;
  int error = 0;
  EXPECT_EQ(WSPCleanup(&error), 0);
  RunFor(1s);
  const auto live = Traffic(0);
  ASSERT_EQ(live.size(), before + 2);
  EXPECT_EQ(live[before]->total_sent_packets + live[before + 1]->total_sent_packets, sent + 1);
  EXPECT_TRUE(Traffic(1).empty());
  closesocket(s);
  closesocket(other);
  RunFor(1s);
  EXPECT_TRUE(Traffic(1).empty());
}

}  // namespace
