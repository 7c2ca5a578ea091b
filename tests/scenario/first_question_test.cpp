// Which call is the first to ask for the relay, and how long that may take. At stake: a call of the
// game starts the relay and waits for it, but not for ever.
#include <gtest/gtest.h>

#include <functional>

#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "hooks/relay_admission.h"
#include "route/acc_config.h"
#include "tests/scenario/game_process.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/log_capture.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using namespace sim_test;       // NOLINT

bool RelayHasStarted() { return GetRelayMgr().GetWorkerThreadId() != 0; }

// --- how long ---------------------------------------------------------------------------------

SCENARIO(FirstQuestion, WaitsThreeSecondsForARelayThatIsLate) {
  AccConfig config;
  config.net_mode = 0x8;
  ReplaceAccConfig(config);
  test::UseSlowProvider();
  SocketRecord record;
  record.socket = 5;
  record.type = SOCK_STREAM;
  record.token = 7;
  GetSocketMap().Add(record.socket, record.type, IPPROTO_TCP, record.token);
  const auto before = world.now();
  EXPECT_FALSE(IsAllowedRelay(record));
  EXPECT_GE(world.now() - before, 3000ms);
  EXPECT_LE(world.now() - before, 3010ms);
  record = GetSocketMap().Get(5);
  EXPECT_TRUE(record.relay_disabled);
  const auto again = world.now();
  EXPECT_FALSE(IsAllowedRelay(record));
  EXPECT_EQ(world.now(), again) << "it is not waited for twice";
  RunFor(3s);
  EXPECT_FALSE(IsAllowedRelay(record)) << "this socket goes without it for good";
  record.relay_disabled = false;
  EXPECT_TRUE(IsAllowedRelay(record)) << "another's";
}

// The policy is asked about the socket's actual kind.
SCENARIO(FirstQuestion, OfADestinationNamesTheKindOfSocket) {
  const sockaddr_in anywhere = At("203.0.113.77", 9);
  for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
    const test::LogCapture log(0);
    EXPECT_FALSE(IsAllowConnect(type, &anywhere, 5, 9));
    EXPECT_TRUE(
        log.Contains("[Route][NeedRelay] Ready to Check Relay(203.0.113.77:9), socket=5, "
                     "socket_type=" +
                     std::to_string(type) + ", token=9\n"))
        << log.Text();
  }
}

// --- which call, and when in it ---------------------------------------------------------------

// Whether the relay had started when the next provider was called.
bool started_below = false;
template <class... Arguments>
int WSPAPI Look(Arguments...) {
  started_below = RelayHasStarted();
  return 0;
}
template <class... Arguments>
void Put(int(WSPAPI** entry)(Arguments...)) {
  *entry = Look<Arguments...>;
}

// A game that has done nothing yet but open a socket of each kind.
class FirstCallOfAGame : public sim::ScenarioTest {
 protected:
  FirstCallOfAGame() {
    game.ListAsGame(5);
    EXPECT_EQ(game.Start(IPPROTO_UDP), 0);
    log = std::make_unique<test::LogCapture>(5);
    table = game.table;
    WSPPROC_TABLE& next = common::GetProcessInfo().udp_proc_table;
    Put(&next.lpWSPConnect);
    Put(&next.lpWSPCloseSocket);
    Put(&next.lpWSPBind);
    Put(&next.lpWSPGetPeerName);
    Put(&next.lpWSPIoctl);
    Put(&next.lpWSPSend);
    Put(&next.lpWSPRecv);
    Put(&next.lpWSPSendTo);
    Put(&next.lpWSPRecvFrom);
    s = table.lpWSPSocket(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, 0, &error);
  }
  void Make(int type, int protocol) {
    s = table.lpWSPSocket(AF_INET, type, protocol, nullptr, 0, 0, &error);
  }

  test::GameProcess game;
  WSPPROC_TABLE table{};
  std::unique_ptr<test::LogCapture> log;
  SOCKET s = INVALID_SOCKET;
  INT error = 0;
  sockaddr_in address = At("203.0.113.7", 9);
  INT size = sizeof address;
  char data[8] = {};
  WSABUF buffer{sizeof data, data};
  DWORD bytes = 0, flags = 0;
};

#define EXPECT_STARTED(before_the_next_provider, after) \
  do {                                                  \
    EXPECT_EQ(started_below, before_the_next_provider); \
    EXPECT_EQ(RelayHasStarted(), after);                \
  } while (false)

// The question comes before the call, which may wait for a datagram for hours.
SCENARIO_F(FirstCallOfAGame, MayBeARecvFromWhichAsksBeforeItReceives) {
  EXPECT_EQ(table.lpWSPRecvFrom(s, &buffer, 1, &bytes, &flags, Raw(address), &size, nullptr,
                                nullptr, nullptr, &error),
            0);
  EXPECT_STARTED(true, true);
}

// And after the call, which has returned by then.
SCENARIO_F(FirstCallOfAGame, MayBeAnIoctlWhichAsksAfterwards) {
  EXPECT_EQ(table.lpWSPIoctl(s, 0x8004667e, data, 4, nullptr, 0, &bytes, nullptr, nullptr, nullptr,
                             &error),
            0);
  EXPECT_STARTED(false, true);
}

SCENARIO_F(FirstCallOfAGame, MayBeAConnectOfAnyKind) {
  Make(SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(table.lpWSPConnect(s, Raw(address), size, nullptr, nullptr, nullptr, nullptr, &error),
            0);
  EXPECT_STARTED(true, true);
}

SCENARIO_F(FirstCallOfAGame, MayBeASend) {
  Make(SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(table.lpWSPSend(s, &buffer, 1, &bytes, 0, nullptr, nullptr, nullptr, &error), 0);
  EXPECT_STARTED(true, true);
}

SCENARIO_F(FirstCallOfAGame, MayBeARecv) {
  Make(SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(table.lpWSPRecv(s, &buffer, 1, &bytes, &flags, nullptr, nullptr, nullptr, &error), 0);
  EXPECT_STARTED(true, true);
}

SCENARIO_F(FirstCallOfAGame, MayBeASendTo) {
  EXPECT_EQ(table.lpWSPSendTo(s, &buffer, 1, &bytes, 0, Raw(address), size, nullptr, nullptr,
                              nullptr, &error),
            0);
  EXPECT_STARTED(true, true);
}

SCENARIO_F(FirstCallOfAGame, MayBeAClose) {
  Make(SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(table.lpWSPCloseSocket(s, &error), 0);
  EXPECT_STARTED(true, true);
}

// A stream that names an address with its bytes does not concern the relay.
SCENARIO_F(FirstCallOfAGame, IsNoSendToOfAStream) {
  Make(SOCK_STREAM, IPPROTO_TCP);
  EXPECT_EQ(table.lpWSPSendTo(s, &buffer, 1, &bytes, 0, Raw(address), size, nullptr, nullptr,
                              nullptr, &error),
            0);
  EXPECT_STARTED(false, false);
}

SCENARIO_F(FirstCallOfAGame, IsNeitherABindNorAQuestionForTheName) {
  EXPECT_EQ(table.lpWSPBind(s, Raw(address), size, &error), 0);
  EXPECT_STARTED(false, false);
  EXPECT_EQ(table.lpWSPGetPeerName(s, Raw(address), &size, &error), 0);
  EXPECT_STARTED(false, false);
}

// Opening and accepting sockets does not start the relay either.
SCENARIO_F(FirstCallOfAGame, IsNotTheOpeningOfASocket) {
  for (const int type : {SOCK_STREAM, SOCK_DGRAM, SOCK_RAW}) Make(type, 0);
  EXPECT_FALSE(RelayHasStarted());
}

}  // namespace
