// Programs that take ConnectEx from the provider, as event-loop runtimes do. At stake: the one
// pointer that they fetch carries every connection that they ever make. It must be ours for them,
// and the platform's own for our worker.
#include <mswsock.h>

#include <cstring>
#include <vector>

#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "port/shared/backend.h"
#include "port/shared/faults.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using moru_vyr::lsp::GetRelayMgr;
using moru_vyr::lsp::WSPConnectEx;
using moru_vyr::lsp::WSPIoctl;

constexpr char kRecognised[] =
    "[Main]WSPIoctl\xA3\xBA"
    "extension function is ";

struct Answer {
  int result = 0;
  INT error = 0;
  DWORD bytes = 0;
  LPFN_CONNECTEX function = nullptr;
};

Answer Query(SOCKET s, GUID id, DWORD id_size = sizeof(GUID)) {
  Answer answer;
  answer.result =
      WSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, id_size, &answer.function,
               sizeof answer.function, &answer.bytes, nullptr, nullptr, nullptr, &answer.error);
  return answer;
}

class Extensions : public TcpWorld {
 protected:
  // Logs at every level, from here on.
  void ReadAlong() { log_ = std::make_unique<test::LogCapture>(0); }
  bool Said(const std::string& part) const { return log_->Contains(part); }
  bool SaidWhatItIs() const { return Said(kRecognised); }

  // The result of the call; its error goes to *error.
  static BOOL ConnectsWith(LPFN_CONNECTEX connect_ex, SOCKET s, const char* server, int* error) {
    EXPECT_EQ(BindTo(s, "0.0.0.0", 0), 0);
    const sockaddr_in address = At(server, kPort);
    OVERLAPPED overlapped{};
    DWORD sent = 0;
    const BOOL result = connect_ex(s, Raw(address), sizeof address, nullptr, 0, &sent, &overlapped);
    *error = WSAGetLastError();
    return result;
  }
  std::string PeerOf(SOCKET s) {
    sockaddr_in peer = {};
    int size = sizeof peer;
    return getpeername(s, Raw(peer), &size) == 0 ? inet_ntoa(peer.sin_addr) : "nobody";
  }

 private:
  std::unique_ptr<test::LogCapture> log_;
};

SCENARIO_F(Extensions, AConnectExLookedUpOnceServesAllConnections) {
  const SOCKET first = Tcp();
  const LPFN_CONNECTEX connect_ex = Query(first, WSAID_CONNECTEX).function;
  EXPECT_EQ(connect_ex, &WSPConnectEx);
  closesocket(first);
  std::vector<SOCKET> all;
  for (int i = 0; i < 10; ++i) {
    const SOCKET s = Tcp();
    int error = 0;
    EXPECT_EQ(ConnectsWith(connect_ex, s, kServer, &error), FALSE);
    EXPECT_EQ(error, 0);
    EXPECT_EQ(PeerOf(s), kServer);
    all.push_back(s);
  }
  for (const SOCKET s : all) EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(calls.size(), all.size());
  for (const Call& call : calls) EXPECT_EQ(call.from, "A");
  for (const SOCKET s : all) closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(Extensions, UnrelayedConnectionsAreDirectThroughTheSamePointer) {
  const SOCKET s = Tcp();
  int error = 0;
  EXPECT_EQ(ConnectsWith(Query(s, WSAID_CONNECTEX).function, s, kUnlisted, &error), FALSE);
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_EQ(LastCall().from, "game");
  EXPECT_EQ(PeerOf(s), kUnlisted);
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(Extensions, APendingConnectExReturnsTrue) {
  const SOCKET s = Tcp();
  port::FailCall("ConnectEx", 1, WSA_IO_PENDING);
  int error = 0;
  EXPECT_EQ(ConnectsWith(Query(s, WSAID_CONNECTEX).function, s, kServer, &error), TRUE);
  EXPECT_EQ(error, WSA_IO_PENDING);
  closesocket(s);
  ExpectServesAgain();
}

// The session that was asked for waits for ever, which does no harm.
SCENARIO_F(Extensions, AMissingConnectExFailsWithoutOtherEffects) {
  const SOCKET s = Tcp();
  const LPFN_CONNECTEX connect_ex = Query(s, WSAID_CONNECTEX).function;
  port::FailCall("WSPIoctl", 1, WSAEOPNOTSUPP);
  int error = 0;
  EXPECT_EQ(ConnectsWith(connect_ex, s, kServer, &error), -1);
  EXPECT_TRUE(Logged(test::kConnectRelayed + "127.0.0.1:"));
  EXPECT_TRUE(Logged(test::kNoConnectEx + "socket="));
  closesocket(s);
  ExpectServesAgain();
}

// Kept: the pointer is ours whatever the next provider answers; its result is passed on.
SCENARIO_F(Extensions, TheFailureOfTheNextProviderIsHandedOnWithOurPointer) {
  ReadAlong();
  const SOCKET s = Tcp();
  port::FailCall("WSPIoctl", 1, WSAEFAULT);
  const Answer answer = Query(s, WSAID_CONNECTEX);
  EXPECT_EQ(answer.result, SOCKET_ERROR);
  EXPECT_EQ(answer.error, WSAEFAULT);
  EXPECT_EQ(answer.function, &WSPConnectEx);
  EXPECT_TRUE(Said("WSPIoctl:ret=-1, err=10014, io_control_code=0xc8000006, inbuffer=0x"));
  EXPECT_TRUE(Said("inbuffer_bytes=16, outbuffer=0x"));
  EXPECT_TRUE(Said(std::string(kRecognised) + "ConnectEx\n"));
}

SCENARIO_F(Extensions, AnUnknownFunctionComesFromTheNextProvider) {
  ReadAlong();
  const Answer answer = Query(Tcp(), GUID{1, 2, 3, {4}});
  EXPECT_EQ(answer.result, SOCKET_ERROR);
  EXPECT_EQ(answer.error, WSAEINVAL);
  EXPECT_EQ(answer.function, nullptr);
  EXPECT_TRUE(Said(std::string(kRecognised) + "unknown\n"));
}

SCENARIO_F(Extensions, AGuidOfAnotherLengthIsIgnored) {
  ReadAlong();
  const SOCKET s = Tcp();
  EXPECT_EQ(Query(s, WSAID_CONNECTEX, 12).function, nullptr);
  EXPECT_FALSE(SaidWhatItIs());
  EXPECT_NE(Query(s, WSAID_CONNECTEX, 17).function, &WSPConnectEx) << "the next provider's own";
  EXPECT_FALSE(SaidWhatItIs());
}

// A caller may use one buffer for both; by the time that it is looked at, the answer is in it.
SCENARIO_F(Extensions, OneBufferForInputAndOutputKeepsTheRealFunction) {
  const SOCKET s = Tcp();
  GUID buffer = WSAID_CONNECTEX;
  DWORD bytes = 0;
  INT error = 0;
  EXPECT_EQ(WSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &buffer, sizeof buffer, &buffer,
                     sizeof buffer, &bytes, nullptr, nullptr, nullptr, &error),
            0);
  LPFN_CONNECTEX function = nullptr;
  std::memcpy(&function, &buffer, sizeof function);
  EXPECT_NE(function, nullptr);
  EXPECT_NE(function, &WSPConnectEx);
}

SCENARIO_F(Extensions, NullBuffersGetThePlatformsError) {
  const SOCKET s = Tcp();
  GUID id = WSAID_CONNECTEX;
  DWORD bytes = 0;
  INT error = 0;
  EXPECT_EQ(WSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, nullptr, sizeof id, nullptr, 0, &bytes,
                     nullptr, nullptr, nullptr, &error),
            SOCKET_ERROR);
  EXPECT_EQ(WSPIoctl(s, SIO_GET_EXTENSION_FUNCTION_POINTER, &id, sizeof id, nullptr, 0, nullptr,
                     nullptr, nullptr, nullptr, nullptr),
            SOCKET_ERROR);
  ExpectServesAgain();
}

SCENARIO_F(Extensions, EveryOtherCodeIsPassedOnWithoutALogLine) {
  ReadAlong();
  const SOCKET s = Tcp();
  NonBlocking(s);
  u_long pending = 7;
  EXPECT_EQ(ioctlsocket(s, static_cast<long>(FIONREAD), &pending), 0);
  EXPECT_EQ(pending, 0u);
  EXPECT_FALSE(Said("WSPIoctl"));
}

// --- who gets the platform's own ----------------------------------------------------------------

// What the worker is given, at a call in the next provider that it makes itself.
Answer* worker_answer = nullptr;
SOCKET WSPAPI AcceptAndAsk(SOCKET s, sockaddr* name, LPINT size, LPCONDITIONPROC condition,
                           DWORD_PTR data, LPINT error) {
  if (GetCurrentThreadId() == GetRelayMgr().GetWorkerThreadId())
    *worker_answer = Query(s, WSAID_CONNECTEX);
  return port::BaseProviderTable().lpWSPAccept(s, name, size, condition, data, error);
}

SCENARIO_F(Extensions, TheRelaysWorkerGetsThePlatformsFunction) {
  const SOCKET first = Tcp();
  Answer answer;
  worker_answer = &answer;
  common::GetProcessInfo().tcp_proc_table.lpWSPAccept = AcceptAndAsk;
  ReadAlong();
  const SOCKET s = Joins();
  EXPECT_EQ(Talks(s, "hello"), "hello");
  EXPECT_NE(answer.function, nullptr) << "the worker was there";
  EXPECT_NE(answer.function, &WSPConnectEx);
  EXPECT_FALSE(SaidWhatItIs());
  EXPECT_EQ(Query(first, WSAID_CONNECTEX).function, &WSPConnectEx);
}

// The relay starts with the first call that could use it, whichever that is.
class FirstCall : public sim::ScenarioTest {
 protected:
  // A game's process in which the provider has been started and nothing else done.
  void Start(common::u32 net_mode) {
    game.ListAsGame(0, "C:\\logs\\", net_mode);
    ASSERT_EQ(game.Start(IPPROTO_TCP), 0);
    log = std::make_unique<test::LogCapture>(0);
    INT error = 0;
    s = game.table.lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error);
  }

  test::GameProcess game;
  std::unique_ptr<test::LogCapture> log;
  SOCKET s = INVALID_SOCKET;
};

SCENARIO_F(FirstCall, OfASocketMayBeAnIoctlWhichStartsTheRelay) {
  Start(0x18);
  EXPECT_EQ(GetRelayMgr().GetWorkerThreadId(), 0u);
  INT error = 0;
  DWORD on = 1, bytes = 0;
  EXPECT_EQ(game.table.lpWSPIoctl(s, static_cast<DWORD>(FIONBIO), &on, sizeof on, nullptr, 0,
                                  &bytes, nullptr, nullptr, nullptr, &error),
            0);
  EXPECT_NE(GetRelayMgr().GetWorkerThreadId(), 0u);
  EXPECT_EQ(Query(s, WSAID_CONNECTEX).function, &WSPConnectEx);
}

SCENARIO_F(FirstCall, WithoutRelayedStreamsGetsThePlatformsFunction) {
  Start(0x10);
  const Answer answer = Query(s, WSAID_CONNECTEX);
  EXPECT_EQ(answer.result, 0);
  EXPECT_NE(answer.function, nullptr);
  EXPECT_NE(answer.function, &WSPConnectEx);
  EXPECT_FALSE(log->Contains(kRecognised));
}

SCENARIO_F(FirstCall, WithoutARelayAlwaysGetsThePlatformsFunction) {
  Start(0x18);
  world.FailThreadStart(1);
  EXPECT_NE(Query(s, WSAID_CONNECTEX).function, &WSPConnectEx);
  EXPECT_TRUE(log->Contains(test::kAdmissionFailed));
  EXPECT_NE(Query(s, WSAID_CONNECTEX).function, &WSPConnectEx);
  INT error = 0;
  const SOCKET other =
      game.table.lpWSPSocket(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0, &error);
  EXPECT_EQ(Query(other, WSAID_CONNECTEX).function, &WSPConnectEx) << "another may try again";
}

}  // namespace
