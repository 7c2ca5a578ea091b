// The end of a flow: by the game, which may close its socket at any moment, and by the end of the
// relay. At stake: what can still be sent is sent first, each node gets one end message, and
// nothing is left behind.
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT

constexpr size_t kHeaderSize = 20;
constexpr char kProbe = 8;

class UdpEnd : public UdpSpiedWorld {
 protected:
  void IsQuiet() {
    server->answer = [](const std::string&) { return std::string(); };
  }
  // How many probes have left through that socket.
  size_t ProbesOf(SOCKET s) const {
    return static_cast<size_t>(std::count_if(sent.begin(), sent.end(), [s](const auto& one) {
      return one.socket == s && one.by_relay && one.text.size() > kHeaderSize &&
             one.text[2] == kProbe;
    }));
  }
};

// Closing does not wait for a negotiation: what the game sent during it is lost, as the rules say.
SCENARIO_F(UdpEnd, ClosingDuringANegotiationLosesWaitingDatagrams) {
  a.StopsAnswering();
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "waits"), 0);
  RunFor(100ms);
  closesocket(s);
  RunFor(100ms);
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
  RunFor(20s);
  EXPECT_TRUE(heard.empty());
}

SCENARIO_F(UdpEnd, EachFlowOfASocketIsEndedWithItsNode) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "one"), "one from 198.51.100.10:27015");
  EXPECT_EQ(Talks(s, "two", kSecond), "two from 198.51.100.13:27015");
  EXPECT_EQ(Talks(s, "three", kDirect), "three from 198.51.100.11:27015");
  sent.clear();
  closesocket(s);
  RunFor(100ms);
  EXPECT_EQ(RelaySent().size(), 2u) << "one word for each node's flow, none for the direct one";
  for (const SentDatagram& one : sent) {
    if (!one.by_relay) continue;
    ASSERT_EQ(one.text.size(), kHeaderSize);
    EXPECT_EQ(one.text[2], 4);
  }
  EXPECT_TRUE(NodesAreFree());
}

// The end is announced with the number that follows the last one; data takes it first.
SCENARIO_F(UdpEnd, NumbersCountFromOneAndTheEndSkipsOne) {
  IsQuiet();
  Starts();
  const SOCKET s = Udp();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Sends(s, "x"), 0);
  RunFor(500ms);
  closesocket(s);
  RunFor(100ms);
  std::vector<int> numbers;
  std::string data, end;
  for (const std::string& text : RelaySent()) {
    if (text.size() >= 40 || (text[2] != 0 && text[2] != 4)) continue;
    numbers.push_back(static_cast<unsigned char>(text[7]));
    (text[2] == 0 ? data : end) = text;
  }
  EXPECT_EQ(numbers, (std::vector<int>{1, 2, 3, 5}));
  ASSERT_EQ(end.size(), kHeaderSize);
  EXPECT_EQ(end.substr(8, 11), data.substr(8, 11)) << "the flow's token and its game server";
  EXPECT_EQ(end[19], 0);
}

// A process that ends does not delay its end with end messages.
SCENARIO_F(UdpEnd, StoppingTheRelayEndsTheFlowsWithoutAnEndMessage) {
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  sent.clear();
  GetRelayMgr().Stop();
  RunFor(100ms);
  EXPECT_TRUE(Logged(test::kUdpListenerClosed));
  EXPECT_TRUE(Logged("[UDP] UdpSession::Cleanup, token="));
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(GetRelayMgr().UseQueue(RecordOf(s).send_queue, RecordOf(s).token), nullptr);
  // The relay no longer runs, so it is not asked: new datagrams go directly.
  EXPECT_EQ(Talks(Udp(), "later"), "later from 198.51.100.10:27015");
  EXPECT_EQ(Heard("game"), std::vector<std::string>{"later"});
  EXPECT_FALSE(Logged(test::kUdpRelayFailed));
}

// Only the flow with something left to send is closing; the others live on until the session ends.
SCENARIO_F(UdpEnd, ABlockedFlowIsNoLongerMeasuredAndTheOthersAre) {
  IsQuiet();
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "waits"), 0);
  RunFor(100ms);
  EXPECT_EQ(Sends(s, "goes", kSecond), 0);
  RunFor(100ms);
  const auto flow_of = [this](const std::string& text) {
    const auto found = std::find_if(sent.begin(), sent.end(), [&](const SentDatagram& one) {
      return one.by_relay && one.text.size() == kHeaderSize + text.size() &&
             one.text.substr(kHeaderSize) == text;
    });
    return found != sent.end() ? found->socket : INVALID_SOCKET;
  };
  const SOCKET waits = flow_of("waits"), goes = flow_of("goes");
  ASSERT_NE(waits, goes);
  fails = [](const SentDatagram& one) {
    return one.by_relay && one.text.find("farewell") != std::string::npos ? WSAEWOULDBLOCK : 0;
  };
  EXPECT_EQ(Sends(s, "farewell"), 0);
  RunFor(5s);
  EXPECT_GE(ProbesOf(waits), 3u);
  EXPECT_GE(ProbesOf(goes), 3u);
  closesocket(s);
  RunFor(100ms);
  EXPECT_TRUE(Logged(test::kUdpSessionClosing));
  sent.clear();
  RunFor(5s);
  EXPECT_EQ(ProbesOf(waits), 0u);
  EXPECT_GE(ProbesOf(goes), 3u);
  EXPECT_FALSE(Logged(test::kUdpSessionClosed));
}

}  // namespace
