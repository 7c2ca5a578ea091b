// The file with which support keeps one kind of traffic out of the relay. At stake: on a player's
// machine it must have no effect, and it may only ever exclude traffic.
#include <gtest/gtest.h>

#include "abi/ip_table_formats.h"
#include "hooks/hook_flags.h"
#include "sockets/socket_map.h"
#include "tests/scenario/game_process.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/log_capture.h"
#include "tests/support/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using namespace sim_test;       // NOLINT

constexpr char kServer[] = "198.51.100.10";
constexpr int kPort = 27015;

void WriteIni(const std::string& text) {
  CreateDirectoryW(L"C:\\logs", nullptr);
  const HANDLE file = CreateFileW(L"C:\\logs\\vyr_lsp.ini", GENERIC_WRITE, 0, nullptr,
                                  CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  ASSERT_NE(file, INVALID_HANDLE_VALUE);
  DWORD written = 0;
  WriteFile(file, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  CloseHandle(file);
}

class DiagnosticFile : public sim::ScenarioTest {
 protected:
  DiagnosticFile() {
    ips->ip_count = 1;
    ips->records[0] = {11, test::Ip(kServer)};
    world.SpawnOn(world.AddHost("server", {kServer}), "server", [this] {
      const SOCKET listener = ListenAt(kPort);
      while (true) {
        const SOCKET s = AcceptFrom(listener);
        heard = ReceivedAll(s);
        closesocket(s);
      }
    });
  }
  // Whether the relay takes a stream of a process with that log level. It arrives in any case.
  void ExpectRelayed(bool relayed, common::u32 log_level) {
    game.ListAsGame(log_level);
    ASSERT_EQ(game.Start(IPPROTO_TCP), 0);
    ASSERT_TRUE(game.GotHookedTable());
    INT error = 0;
    const SOCKET s =
        game.table.lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error);
    const sockaddr_in server = At(kServer, kPort);
    EXPECT_EQ(game.table.lpWSPConnect(s, Raw(server), sizeof server, nullptr, nullptr, nullptr,
                                      nullptr, &error),
              0)
        << error;
    sockaddr_in peer = {};
    INT size = sizeof peer;
    EXPECT_EQ(getpeername(s, Raw(peer), &size), 0);
    EXPECT_STREQ(inet_ntoa(peer.sin_addr), relayed ? "127.0.0.1" : kServer);
    EXPECT_EQ(SendText(s, "hello"), 5);
    EXPECT_EQ(game.table.lpWSPCloseSocket(s, &error), 0);
    EXPECT_TRUE(RunUntil([this] { return heard == "hello"; }, 10s)) << heard;
  }

  test::ClientRegion<IpTableRegion> ips{kIpTableRegionName};
  test::GameProcess game;
  std::string heard;
};

SCENARIO_F(DiagnosticFile, KeepsStreamsOutAtTheMostVerboseLevel) {
  WriteIni("[LSP]\r\nTCP=false\r\n");
  ExpectRelayed(false, 0);
  EXPECT_TRUE(GetHookFlags().block_tcp);
}

SCENARIO_F(DiagnosticFile, DoesNothingAtTheNextLevel) {
  WriteIni("[LSP]\r\nTCP=false\r\nUDP=false\r\n");
  ExpectRelayed(true, 1);
  EXPECT_FALSE(GetHookFlags().block_tcp);
  EXPECT_FALSE(GetHookFlags().block_udp);
}

SCENARIO_F(DiagnosticFile, ThatIsMissingBlocksNothing) { ExpectRelayed(true, 0); }

// Every hooked start of a protocol reads it, even if the first start was for another protocol.
SCENARIO_F(DiagnosticFile, IsReadAgainAtTheNextProtocol) {
  game.ListAsGame(0);
  ASSERT_EQ(game.Start(IPPROTO_TCP), 0);
  EXPECT_FALSE(GetHookFlags().block_udp);
  WriteIni("[LSP]\r\nUDP=false\r\n");
  ASSERT_EQ(game.Start(IPPROTO_UDP), 0);
  EXPECT_TRUE(GetHookFlags().block_udp);
  EXPECT_FALSE(GetHookFlags().block_tcp);
}

}  // namespace
