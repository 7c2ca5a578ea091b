// Which sockets may use the relay at all. At stake: a socket that may not is handled as if there
// were no relay, and one that may is never refused by a later rule.
#include "hooks/relay_admission.h"

#include <gtest/gtest.h>

#include <memory>

#include "engine/relay_mgr.h"
#include "hooks/hook_flags.h"
#include "route/acc_config.h"
#include "tests/scenario/game_process.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/log_capture.h"
#include "tests/support/log_texts.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using namespace sim_test;       // NOLINT

constexpr u32 kTcp = 0x8, kUdp = 0x10, kNeedsAccMode = 0x2000000;

bool RelayHasStarted() { return GetRelayMgr().GetWorkerThreadId() != 0; }

class Admission : public sim::ScenarioTest {
 protected:
  static void Configure(u32 net_mode, u32 acc_mode = 0) {
    AccConfig config;
    config.net_mode = net_mode;
    config.acc_mode = acc_mode;
    ReplaceAccConfig(config);
  }
  static bool May(int type, bool disabled = false) {
    SocketRecord record;
    record.socket = 5;
    record.type = type;
    record.relay_disabled = disabled;
    return IsAllowedRelay(record);
  }
};

SCENARIO_F(Admission, EachKindOfSocketNeedsItsBitExceptForPings) {
  Configure(kTcp);
  EXPECT_TRUE(May(SOCK_STREAM));
  EXPECT_FALSE(May(SOCK_DGRAM));
  EXPECT_TRUE(May(SOCK_RAW));
}

// Kept: whatever the answer, asking has started the relay.
SCENARIO_F(Admission, AKindThatIsNotRelayedStartsTheRelayToo) {
  Configure(kUdp);
  EXPECT_FALSE(May(SOCK_STREAM));
  EXPECT_TRUE(RelayHasStarted());
}

SCENARIO_F(Admission, ASocketThatIsShutOutStartsNothing) {
  Configure(kTcp);
  GetHookFlags().speed_tester_mode = true;
  EXPECT_FALSE(May(SOCK_STREAM, true));
  EXPECT_FALSE(RelayHasStarted());
}

SCENARIO_F(Admission, ABlockedKindIsLoggedAndDoesNotAffectTheOthers) {
  Configure(kTcp | kUdp);
  test::LogCapture log(0);
  GetHookFlags().block_tcp = true;
  EXPECT_FALSE(May(SOCK_STREAM));
  EXPECT_TRUE(log.Contains("[0][lsp]ignore tcp relay\n"));
  EXPECT_TRUE(RelayHasStarted());
  EXPECT_TRUE(May(SOCK_DGRAM));
  EXPECT_TRUE(May(SOCK_RAW));
  GetHookFlags().block_tcp = false;
  GetHookFlags().block_udp = true;
  EXPECT_FALSE(log.Contains(test::kUdpIgnored));
  EXPECT_FALSE(May(SOCK_DGRAM));
  EXPECT_TRUE(log.Contains("[0][lsp]" + test::kUdpIgnored + "\n"));
  EXPECT_TRUE(May(SOCK_STREAM));
}

// Its configuration is all zero, and it measures whatever it is asked to.
SCENARIO_F(Admission, SpeedTesterIsAlwaysAdmitted) {
  Configure(kNeedsAccMode);
  HookFlags& flags = GetHookFlags();
  flags.speed_tester_mode = flags.block_tcp = flags.block_udp = true;
  test::LogCapture log(0);
  for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_RAW}) EXPECT_TRUE(May(type)) << type;
  const sockaddr_in anywhere = At("203.0.113.77", 9);
  EXPECT_TRUE(IsAllowConnect(SOCK_STREAM, &anywhere, 5, 9));
  EXPECT_FALSE(log.Contains("ignore "));
  EXPECT_FALSE(log.Contains("IsAllowConnect"));
}

// Kept: the modes are read once, when they are first asked for, and never again.
SCENARIO_F(Admission, TheModesOfTheFirstQuestionStand) {
  Configure(kNeedsAccMode | kTcp, 1);
  EXPECT_TRUE(May(SOCK_STREAM));
  Configure(kNeedsAccMode | kTcp, 0);
  EXPECT_TRUE(May(SOCK_STREAM));
  Configure(kUdp, 1);
  EXPECT_TRUE(May(SOCK_STREAM));
  EXPECT_FALSE(May(SOCK_DGRAM));
}

SCENARIO_F(Admission, WithoutARequiredAccModeNothingIsAdmitted) {
  Configure(kNeedsAccMode | kTcp | kUdp, 0);
  for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_RAW}) EXPECT_FALSE(May(type)) << type;
  Configure(kNeedsAccMode | kTcp | kUdp, 1);
  EXPECT_FALSE(May(SOCK_STREAM)) << "nor later";
}

SCENARIO_F(Admission, EarlierChecksDoNotReadTheModes) {
  Configure(kUdp);
  GetHookFlags().block_tcp = true;
  EXPECT_FALSE(May(SOCK_STREAM));
  GetHookFlags().block_tcp = false;
  GetHookFlags().speed_tester_mode = true;
  EXPECT_TRUE(May(SOCK_STREAM));
  GetHookFlags().speed_tester_mode = false;
  Configure(kTcp);
  EXPECT_TRUE(May(SOCK_STREAM));
}

SCENARIO_F(Admission, ADestinationIsDecidedByTheRoutePolicy) {
  test::LogCapture log(0);
  const sockaddr_in unlisted = At("203.0.113.77", 27015);
  EXPECT_FALSE(IsAllowConnect(SOCK_STREAM, &unlisted, 5, 9));
  EXPECT_TRUE(
      log.Contains("[0][lsp]IsAllowConnect result=false, type=1, port=27015, socket=5, token=9\n"))
      << log.Text();
  EXPECT_TRUE(IsAllowConnect(SOCK_STREAM, nullptr, 5, 9));
}

// --- through the call table ---------------------------------------------------------------------

constexpr char kServer[] = "198.51.100.10";
constexpr int kPort = 27015;

class AdmissionOfAProcess : public sim::ScenarioTest {
 protected:
  AdmissionOfAProcess() {
    world.SpawnOn(world.AddHost("server", {kServer}), "server", [this] {
      const SOCKET listener = ListenAt(kPort);
      while (true) {
        const SOCKET s = AcceptFrom(listener);
        heard = ReceivedAll(s);
        closesocket(s);
      }
    });
  }
  void Starts() {
    EXPECT_EQ(game.Start(IPPROTO_TCP), 0);
    EXPECT_TRUE(game.GotHookedTable());
    log = std::make_unique<test::LogCapture>(0);
  }
  // A stream of the process, connected through its table to a server that hears what it says.
  SOCKET Connects() {
    INT error = 0;
    const SOCKET s =
        game.table.lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error);
    const sockaddr_in server = At(kServer, kPort);
    EXPECT_EQ(game.table.lpWSPConnect(s, Raw(server), sizeof server, nullptr, nullptr, nullptr,
                                      nullptr, &error),
              0)
        << error;
    return s;
  }
  void ExpectServed(SOCKET s) {
    EXPECT_EQ(SendText(s, "hello"), 5);
    INT error = 0;
    EXPECT_EQ(game.table.lpWSPCloseSocket(s, &error), 0);
    EXPECT_TRUE(RunUntil([this] { return heard == "hello"; }, 10s)) << heard;
  }
  static u16 PortOf(SOCKET s) {
    u16 port = 0;
    EXPECT_TRUE(GetSocketMap().GetLocalPort(s, &port));
    return port;
  }

  test::GameProcess game;
  std::unique_ptr<test::LogCapture> log;
  std::string heard;
};

SCENARIO_F(AdmissionOfAProcess, WithoutRelayedStreamsBindsNoPort) {
  game.ListAsGame(0, "C:\\logs\\", kUdp);
  Starts();
  const SOCKET s = Connects();
  EXPECT_FALSE(log->Contains(test::kConnectCalled));
  EXPECT_FALSE(log->Contains("CheckAndBind"));
  EXPECT_EQ(PortOf(s), 0);
  ExpectServed(s);
}

SCENARIO_F(AdmissionOfAProcess, OfTheSpeedTesterIsRelayedToEveryDestination) {
  game.Is(L"D:\\tools\\SpeedTester.exe");
  Starts();
  const SOCKET s = Connects();
  EXPECT_TRUE(log->Contains(test::kConnectRelayed + "127.0.0.1:"));
  EXPECT_NE(PortOf(s), 0);
  sockaddr_in peer = {};
  INT size = sizeof peer, error = 0;
  EXPECT_EQ(game.table.lpWSPGetPeerName(s, Raw(peer), &size, &error), 0);
  EXPECT_STREQ(inet_ntoa(peer.sin_addr), kServer);
  EXPECT_EQ(getpeername(s, Raw(peer), &size), 0);
  EXPECT_STREQ(inet_ntoa(peer.sin_addr), "127.0.0.1") << "what the next provider knows";
  ExpectServed(s);
}

// A relay that cannot start costs one socket its relay; the next one tries again.
SCENARIO_F(AdmissionOfAProcess, WithoutARelayGoesDirect) {
  game.Is(L"D:\\tools\\SpeedTester.exe");
  Starts();
  world.FailThreadStart(1);
  const SOCKET s = Connects();
  EXPECT_TRUE(log->Contains("[4][lsp]" + test::RelayInitialized(1)));
  EXPECT_TRUE(log->Contains(test::kAdmissionFailed + std::to_string(s) + "\n"));
  EXPECT_FALSE(RelayHasStarted());
  ExpectServed(s);
  EXPECT_FALSE(RelayHasStarted()) << "its later calls do not try";
  heard.clear();
  const SOCKET next = Connects();
  EXPECT_TRUE(log->Contains(test::kConnectRelayed + "127.0.0.1:"));
  ExpectServed(next);
}

}  // namespace
