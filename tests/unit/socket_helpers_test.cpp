// The random bind of a game socket, which goes through the socket's own next provider. What the
// helpers do with plain sockets is in the scenarios.
#include "sockets/socket_helpers.h"

#include <gtest/gtest.h>
#include <ws2spi.h>

#include <set>
#include <vector>

#include "engine/relay_mgr.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"

namespace moru_vyr::lsp {
namespace {

constexpr SOCKET kUnbound = 4321;
constexpr int kNoError = -1;  // a bind that fails and does not say why

// The next provider's answers, call by call, and its arguments.
struct NextBind {
  std::vector<int> errors;  // of the first calls; after them, `then`
  int then = 0;
  std::vector<sockaddr_in> addresses;
  std::vector<SOCKET> sockets;
  std::vector<SOCKET> closed;
};
NextBind* next_bind = nullptr;

int WSPAPI AnswerBind(SOCKET s, const sockaddr* name, int name_size, LPINT error) {
  EXPECT_EQ(name_size, static_cast<int>(sizeof(sockaddr_in)));
  const std::size_t call = next_bind->addresses.size();
  next_bind->addresses.push_back(*reinterpret_cast<const sockaddr_in*>(name));
  next_bind->sockets.push_back(s);
  const int answer = call < next_bind->errors.size() ? next_bind->errors[call] : next_bind->then;
  if (answer == 0) return 0;
  if (answer != kNoError) *error = answer;
  return SOCKET_ERROR;
}

int WSPAPI AnswerClose(SOCKET s, LPINT) {
  next_bind->closed.push_back(s);
  return 0;
}

struct BindThroughNextProvider : testing::Test {
  BindThroughNextProvider() {
    table.lpWSPBind = AnswerBind;
    next_bind = &bind;
    GetSocketMap().Add(kUnbound, kSocketTypeStream, IPPROTO_TCP, 1);
    GetSocketMap().SetNextProcTable(kUnbound, &table);
  }
  ~BindThroughNextProvider() override {
    GetSocketMap().Remove(kUnbound);
    next_bind = nullptr;
  }
  bool Bind(u16* port, bool loopback = true) {
    return BindRandomPort(kUnbound, true, port, loopback);
  }

  NextBind bind;
  WSPPROC_TABLE table{};
  test::LogCapture log{5};
};

TEST_F(BindThroughNextProvider, TakesAPortOfLoopbackAndReturnsItInNetworkOrder) {
  u16 port = 0;
  ASSERT_TRUE(Bind(&port));
  ASSERT_EQ(bind.addresses.size(), 1u);
  const sockaddr_in& asked = bind.addresses[0];
  EXPECT_EQ(asked.sin_family, AF_INET);
  EXPECT_EQ(ntohl(asked.sin_addr.s_addr), 0x7F000001u);
  EXPECT_EQ(asked.sin_port, port);
  EXPECT_EQ(bind.sockets[0], kUnbound);
  EXPECT_TRUE(
      log.Contains("BindRandomPort bind, port=" + std::to_string(ntohs(port)) + ", socket=4321"))
      << log.Text();
}

TEST_F(BindThroughNextProvider, WithoutLoopbackItBindsToAllAddresses) {
  ASSERT_TRUE(Bind(nullptr, false));
  EXPECT_EQ(bind.addresses[0].sin_addr.s_addr, 0u);
}

TEST_F(BindThroughNextProvider, APortInUseLeadsToAnotherAttempt) {
  bind.errors = {WSAEADDRINUSE, WSAEADDRINUSE, WSAEADDRINUSE};
  u16 port = 0;
  ASSERT_TRUE(Bind(&port));
  ASSERT_EQ(bind.addresses.size(), 4u);
  EXPECT_EQ(port, bind.addresses[3].sin_port);
}

TEST_F(BindThroughNextProvider, TheLastOf200TriesMaySucceed) {
  bind.errors.assign(199, WSAEADDRINUSE);
  EXPECT_TRUE(Bind(nullptr));
  EXPECT_EQ(bind.addresses.size(), 200u);
}

TEST_F(BindThroughNextProvider, After200PortsInUseItGivesUpWithoutALogLine) {
  bind.then = WSAEADDRINUSE;
  u16 port = 7;
  EXPECT_FALSE(Bind(&port));
  EXPECT_EQ(bind.addresses.size(), 200u);
  EXPECT_EQ(port, 7);
  EXPECT_EQ(log.Text(), "");
}

TEST_F(BindThroughNextProvider, AnyOtherErrorEndsItAtOnce) {
  bind.errors = {WSAEADDRINUSE, WSAEINVAL};
  EXPECT_FALSE(Bind(nullptr));
  EXPECT_EQ(bind.addresses.size(), 2u);
  EXPECT_TRUE(log.Contains("BindRandomPort bind, err=10022, socket=4321")) << log.Text();
}

TEST_F(BindThroughNextProvider, AFailureThatIsNotExplainedEndsItAtOnce) {
  bind.errors = {kNoError};
  EXPECT_FALSE(Bind(nullptr));
  EXPECT_EQ(bind.addresses.size(), 1u);
  EXPECT_TRUE(log.Contains("BindRandomPort bind, err=0, socket=4321")) << log.Text();
}

TEST_F(BindThroughNextProvider, WithoutATableNothingIsCalled) {
  GetSocketMap().Remove(kUnbound);
  u16 port = 7;
  EXPECT_FALSE(Bind(&port));
  GetSocketMap().Add(kUnbound, kSocketTypeStream, IPPROTO_TCP, 1);  // a record, but no table
  EXPECT_FALSE(Bind(&port));
  EXPECT_TRUE(bind.addresses.empty());
  EXPECT_EQ(port, 7);
}

TEST_F(BindThroughNextProvider, WithoutABindInTheTableNothingIsCalled) {
  table.lpWSPBind = nullptr;
  EXPECT_FALSE(Bind(nullptr));
}

// Ends Winsock, and with it on Windows all sockets of a worker that another test has started.
// Suites of such a name run before all others.
using WinsocksEndDeathTest = BindThroughNextProvider;

// The socket's number may be given to another socket at once.
TEST_F(WinsocksEndDeathTest, ASocketClosedThenLeavesNoRecord) {
  table.lpWSPCloseSocket = AnswerClose;
#ifdef _WIN32
  ASSERT_FALSE(GetRelayMgr().Serves());
#endif
  int starts = 0;  // the test program's own, and whatever tests before this one left
  while (WSACleanup() == 0) ++starts;
  CloseRelaySocket(kUnbound);
  WSADATA data;
  for (; starts > 0; --starts) ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
  EXPECT_EQ(bind.closed, std::vector<SOCKET>{kUnbound});
  EXPECT_EQ(GetSocketMap().Get(kUnbound).socket, INVALID_SOCKET);
}

TEST_F(BindThroughNextProvider, PortsComeFromTheWholeRangeOnly) {
  bind.then = WSAEADDRINUSE;
  for (int i = 0; i < 200; ++i) Bind(nullptr);
  std::set<unsigned> ports;
  for (const sockaddr_in& address : bind.addresses) ports.insert(ntohs(address.sin_port));
  ASSERT_EQ(bind.addresses.size(), 40000u);
  EXPECT_GE(*ports.begin(), 1025u);
  EXPECT_LE(*ports.rbegin(), 65530u);
  // Of 40000 draws from 64506 ports, about 29800 differ; each end is reached within 50.
  EXPECT_GT(ports.size(), 28000u);
  EXPECT_LT(*ports.begin(), 1075u);
  EXPECT_GT(*ports.rbegin(), 65480u);
}

}  // namespace
}  // namespace moru_vyr::lsp
