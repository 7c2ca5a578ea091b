// A switch as the game sees it, through the provider, its worker and real nodes. At stake: the game
// plays on with the same port, the client program learns what happened, and whatever the game does
// meanwhile, nothing is left waiting.
#include "tests/scenario/udp_world.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"
#include "tests/support/report_client.h"
#include "tests/support/wire_bytes.h"

namespace {

using namespace udp_test;  // NOLINT
using moru_vyr::lsp::GetRelayMgr;
using moru_vyr::lsp::RecoverySwitchRecord;

class SwitchFlow : public UdpWorld {
 protected:
  // Windows of half a second, and bursts of ten probes.
  void Begins(const std::function<void(moru_vyr::lsp::AccConfigRecord*)>& change = {}) {
    MayMeasureAndSwitch();
    Configures([&](moru_vyr::lsp::AccConfigRecord* config) {
      config->lost_calc_unit_size = 100;
      config->recovery_window_word = 50;
      config->high_freq_test_interval = 100;
      if (change) change(config);
    });
    Starts(4);
    s = Udp();
    GameThread([this] {
      while (playing) {
        Sends(s, std::to_string(sent++));
        Sleep(50);
      }
    });
    GameThread([this] {
      while (playing) {
        const Datagram came = Receives(s, 100);
        if (came.from.empty()) continue;
        EXPECT_EQ(came.from, "198.51.100.10:27015");
        ++answered;
      }
    });
    RunFor(3s);
    ASSERT_EQ(Difference(Heard(), Heard("A")), "");
    ASSERT_GT(answered, 50);
  }
  // Node A dies; true once the condition holds.
  bool DiesUntil(const std::function<bool()>& condition) {
    a.GoesDark();
    return RunUntil(condition, 15s);
  }
  bool AskedB() const { return b.Count("request") != 0; }
  bool OpenedAtB() const { return b.Count("flow_opened") != 0; }
  void GameCloses() {
    playing = false;
    RunFor(200ms);
    closesocket(s);
    RunFor(1s);
    EXPECT_TRUE(Logged(test::kUdpSessionClosed)) << log_text();
  }

  SOCKET s = INVALID_SOCKET;
  bool playing = true;
  int sent = 0, answered = 0;
};

SCENARIO_F(SwitchFlow, IsReportedWithItsCause) {
  test::ReportClient client;
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); })) << log_text();
  RunFor(2s);
  const int before = answered;
  RunFor(2s);
  EXPECT_GE(answered - before, 38);
  ASSERT_GE(test::UsedSlots(client.switches), 1);
  const RecoverySwitchRecord& report = client.switches->slots[0];
  EXPECT_EQ(test::Value(report.game_id), 7u);
  EXPECT_EQ(std::string(report.guid), b.Last("request").Text("guid")) << "the flow's, to its nodes";
  EXPECT_EQ(test::Value(report.need_switch), 1);
  EXPECT_EQ(test::Value(report.is_switch_succ), static_cast<i32>(SwitchResult::kTakenOver));
  EXPECT_EQ(test::Value(report.count), 1);
  EXPECT_EQ(test::Value(report.proxy_idc), 1) << "the node that was left";
  EXPECT_EQ(test::Value(report.data_link_small_section_pack), 0);
  EXPECT_EQ(std::string(report.switch_condition), "delay_amp>=1000;delay_avg>=1000;real_lost>=20");
  EXPECT_EQ(std::string(report.acc_info), "198.51.100.10-27015-1-198.51.100.20-7001");
  EXPECT_GT(test::Value(report.total_send_pack), 50);
  // The report on the negotiation describes the new link.
  EXPECT_EQ(b.Last("flow_opened").Number("replaces_node_id"), 1u) << b.AllEvents();
  GameCloses();
  EXPECT_EQ(b.Count("flow_closed"), 1u);
}

// What a flow may be moved to is kept with it from its beginning.
SCENARIO_F(SwitchFlow, FindsANodeThatIsNoLongerInTheTables) {
  Begins();
  routes.Publish(*std::make_unique<moru_vyr::lsp::RouteTableImage>());
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); })) << log_text();
  GameCloses();
}

SCENARIO_F(SwitchFlow, ReturnsToANodeThatHasRecovered) {
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); }));
  a.ComesBack();
  RunFor(31s);
  heard.clear();
  b.GoesDark();
  ASSERT_TRUE(RunUntil([&] { return !Heard("A").empty(); }, 15s)) << log_text();
  RunFor(2s);
  const int before = answered;
  RunFor(2s);
  EXPECT_GE(answered - before, 38);
  GameCloses();
}

// No other trial is allowed, and the flow stays with a dead node: that is intended.
SCENARIO_F(SwitchFlow, HappensNoMoreOftenThanAllowed) {
  Begins([](moru_vyr::lsp::AccConfigRecord* config) { config->max_link_switch_count = 1; });
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); }));
  a.ComesBack();
  RunFor(31s);
  heard.clear();
  b.GoesDark();
  RunFor(15s);
  EXPECT_TRUE(Heard("A").empty());
  EXPECT_TRUE(Logged(test::SwitchLimitReached(1, 2)));
  GameCloses();
}

// The node on trial does not learn of it: where its data would go is not known yet.
SCENARIO_F(SwitchFlow, EndsWithTheGameWhileItNegotiates) {
  b.AnswersAfter(900);
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return AskedB(); }));
  closesocket(s);
  playing = false;
  RunFor(3s);
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
  EXPECT_FALSE(Logged(test::kTrialAgreed));
}

SCENARIO_F(SwitchFlow, EndsWithTheGameWhileItIsVerified) {
  Begins(
      [](moru_vyr::lsp::AccConfigRecord* config) { config->switching_high_freq_test_time = 5000; });
  ASSERT_TRUE(DiesUntil([&] { return OpenedAtB(); }));
  RunFor(300ms);
  closesocket(s);
  playing = false;
  RunFor(1s);
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
  EXPECT_FALSE(Logged(test::kTrialVerdict));
  EXPECT_EQ(b.Count("flow_closed"), 1u) << b.AllEvents();
}

SCENARIO_F(SwitchFlow, EndsWithTheGameOnceItIsVerified) {
  b.behaviour().data_down_loss = 100;
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); })) << log_text();
  EXPECT_FALSE(Logged(test::kSocketReplaced));
  GameCloses();
  EXPECT_EQ(b.Count("flow_closed"), 1u) << b.AllEvents();
}

class SwitchStop : public SwitchFlow {
 protected:
  // The library is being unloaded; no node gets an end message, and nothing is left of the worker.
  void Stops() {
    const std::size_t closed = b.Count("flow_closed");
    playing = false;
    ASSERT_TRUE(RunToTheEnd());
    GetRelayMgr().Stop();
    closesocket(s);
    RunFor(1s);
    EXPECT_EQ(b.Count("flow_closed"), closed);
  }
};

SCENARIO_F(SwitchStop, WhileItNegotiates) {
  b.AnswersAfter(900);
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return AskedB(); }));
  Stops();
}

SCENARIO_F(SwitchStop, WhileItIsVerified) {
  Begins(
      [](moru_vyr::lsp::AccConfigRecord* config) { config->switching_high_freq_test_time = 5000; });
  ASSERT_TRUE(DiesUntil([&] { return OpenedAtB(); }));
  RunFor(300ms);
  Stops();
}

SCENARIO_F(SwitchStop, OnceItIsVerified) {
  b.behaviour().data_down_loss = 100;
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); }));
  Stops();
}

SCENARIO_F(SwitchStop, OnceItHasHappened) {
  Begins();
  ASSERT_TRUE(DiesUntil([&] { return !Heard("B").empty(); }));
  RunFor(500ms);
  EXPECT_TRUE(Logged(test::kSocketReplaced));
  Stops();
}

}  // namespace
