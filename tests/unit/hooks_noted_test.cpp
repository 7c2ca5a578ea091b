// What the replaced entries note about a socket, and what a call leaves for the next one, over a
// scripted next provider. At stake: a socket that is left direct, waits or is given a name must be
// so for every later call, and a call that has nothing to do must change nothing.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "common/process_info.h"
#include "engine/relay_mgr.h"
#include "hooks/connect_target.h"
#include "hooks/connected_datagram.h"
#include "hooks/downcall_table.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/pending_receives.h"
#include "hooks/postponed_target.h"
#include "hooks/raw_ping.h"
#include "hooks/relayed_names.h"
#include "sockets/socket_map.h"
#include "tests/support/end_worker.h"
#include "tests/support/log_capture.h"
#include "tests/support/mended.h"
#include "tests/unit/scripted_provider.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

const sockaddr_in kNotedServer = test::Address("198.51.100.20", 8080);
const sockaddr_in kNotedRelay = test::Address("127.0.0.1", 4001);
const sockaddr_in kOwnAddress = test::Address("198.51.100.7", 0);
constexpr DWORD kAsksRoute = 0xc8000014u;  // SIO_ROUTING_INTERFACE_QUERY

int peer_answer = 0;
int WSPAPI PeerBelow(SOCKET, sockaddr*, LPINT, LPINT) { return peer_answer; }

// Fills as much of the place as there is.
int WSPAPI RelaysName(SOCKET, sockaddr* name, LPINT size, LPINT) {
  std::memcpy(name, &kNotedRelay, static_cast<std::size_t>(*size));
  return 0;
}

int route_answer = 0;
DWORD asked_control = 0;
int WSPAPI KnowsTheRoute(SOCKET, DWORD code, LPVOID, DWORD, LPVOID out, DWORD out_size, LPDWORD,
                         LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE, LPWSATHREADID,
                         LPINT) {
  asked_control = code;
  if (out != nullptr && out_size >= sizeof kOwnAddress)
    std::memcpy(out, &kOwnAddress, sizeof kOwnAddress);
  return route_answer;
}

BOOL WSPAPI ReceiveIsOver(SOCKET, LPWSAOVERLAPPED, LPDWORD, BOOL, LPDWORD, LPINT) { return TRUE; }

void CALLBACK NotCalled(DWORD, DWORD, LPWSAOVERLAPPED, DWORD) { ADD_FAILURE(); }

struct Noted : testing::Test {
  explicit Noted(u32 bits, int type = kSocketTypeStream) : mended(bits) {
    peer_answer = route_answer = 0;
    asked_control = 0;
    Make(type);
  }
  ~Noted() override {
    test::EndWorker();  // a call may have started it
    ForgetAllReceives();
    GetSocketMap().Remove(next.socket);
  }
  void Make(int type) {
    EXPECT_EQ(WSPSocket(AF_INET, type, type == kSocketTypeStream ? 6 : 17, nullptr, 0, 1, &error),
              next.socket);
    next.calls.clear();
  }
  SocketRecord Record() const { return GetSocketMap().Get(next.socket); }

  struct WithoutWorker {
    WithoutWorker() { test::EndWorker(); }
  } const alone;
  const test::Mended mended;
  test::ScriptedProvider next;
  WSPPROC_TABLE& tcp = common::GetProcessInfo().tcp_proc_table;
  WSPPROC_TABLE& udp = common::GetProcessInfo().udp_proc_table;
  INT error = 0;
};

// --- tables ------------------------------------------------------------------------------------

struct MendedTable : Noted {
  MendedTable() : Noted(kMendNames | kMendOverlappedDatagram | kMendRefusal) {}
};

TEST_F(MendedTable, HasTheEntriesOfAllThatIsMended) {
  WSPPROC_TABLE table = test::ScriptedProvider::Table();
  const WSPPROC_TABLE below = table;
  ASSERT_TRUE(HookWSPAPI(&table));
  EXPECT_NE(table.lpWSPGetSockName, below.lpWSPGetSockName);
  EXPECT_NE(table.lpWSPGetOverlappedResult, below.lpWSPGetOverlappedResult);
  EXPECT_NE(table.lpWSPEventSelect, below.lpWSPEventSelect);
  EXPECT_NE(table.lpWSPAsyncSelect, below.lpWSPAsyncSelect);
}

TEST_F(MendedTable, WithoutAnyProviderEventsAreAFailure) {
  WSPPROC_TABLE table{};
  HookBlockingModes(&table);
  common::ProcessInfo& process = common::GetProcessInfo();
  process.tcp_proc_table = process.udp_proc_table = process.raw_proc_table = {};
  EXPECT_EQ(table.lpWSPEventSelect(0x999, nullptr, 0x21, &error), SOCKET_ERROR);
  EXPECT_EQ(error, WSAENETDOWN);
}

// A control that says nothing of the mode leaves it.
TEST_F(MendedTable, OtherControlsLeaveASocketNonBlocking) {
  tcp.lpWSPIoctl = KnowsTheRoute;
  WSPPROC_TABLE table{};
  HookBlockingModes(&table);
  u32 on = 1;
  DWORD bytes = 0;
  for (const DWORD code : {static_cast<DWORD>(FIONBIO), DWORD{0x1234}}) {
    EXPECT_EQ(table.lpWSPIoctl(next.socket, code, &on, sizeof on, nullptr, 0, &bytes, nullptr,
                               nullptr, nullptr, &error),
              0);
    EXPECT_TRUE(Record().non_blocking) << code;
  }
}

// --- names -------------------------------------------------------------------------------------

struct OwnNames : Noted {
  OwnNames() : Noted(kMendNames) {
    tcp.lpWSPIoctl = KnowsTheRoute;
    tcp.lpWSPGetSockName = RelaysName;
    GetSocketMap().SetHandledAddr(next.socket, test::Generic(kNotedServer), sizeof kNotedServer);
    HookRelayedNames(&table);
  }
  void AsksInto(sockaddr_in* name, INT size) {
    EXPECT_EQ(table.lpWSPGetSockName(next.socket, reinterpret_cast<sockaddr*>(name), &size, &error),
              0);
  }
  WSPPROC_TABLE table{};
};

// The route to the server says which of this machine's addresses the socket would have.
TEST_F(OwnNames, AreThoseOfTheRouteToTheServer) {
  sockaddr_in name{};
  AsksInto(&name, sizeof name);
  EXPECT_EQ(asked_control, kAsksRoute);
  EXPECT_EQ(name.sin_addr.s_addr, kOwnAddress.sin_addr.s_addr);
  EXPECT_EQ(name.sin_port, kNotedRelay.sin_port) << "the port is the socket's own";
}

// The caller's place ends where it says, whatever lies behind it.
TEST_F(OwnNames, AreNotWrittenBeyondThePlaceForThem) {
  sockaddr_in name = kNotedRelay;
  AsksInto(&name, 8);
  EXPECT_EQ(std::memcmp(&name, &kNotedRelay, sizeof name), 0);
}

#ifndef _WIN32
TEST_F(OwnNames, AreNotReplacedWhereNobodyKnowsAnother) {
  route_answer = SOCKET_ERROR;
  port::FailCall("socket", 0, WSAENOBUFS);
  const test::LogCapture log(4);
  sockaddr_in name{};
  AsksInto(&name, sizeof name);
  port::ClearFaults();
  EXPECT_EQ(name.sin_addr.s_addr, kNotedRelay.sin_addr.s_addr);
  EXPECT_FALSE(log.Contains("WSPGetSockName: own=")) << log.Text();
}
#endif

// --- datagram sockets that are connected -------------------------------------------------------

struct ConnectedPeer : Noted {
  ConnectedPeer() : Noted(kMendConnectedDatagram, kSocketTypeDatagram) {
    udp.lpWSPGetPeerName = tcp.lpWSPGetPeerName = PeerBelow;
  }
};

TEST_F(ConnectedPeer, IsLeftOnlyWhereThereIsOne) {
  peer_answer = SOCKET_ERROR;
  LeavePeer(Record());
  EXPECT_TRUE(next.calls.empty()) << "it is not connected";
  peer_answer = 0;
  LeavePeer(Record());
  ASSERT_EQ(next.calls.size(), 1u);
  EXPECT_EQ(next.Last().name, "WSPConnect");
}

TEST_F(ConnectedPeer, IsNotedForADatagramSocketThatIsRelayed) {
  NotePeer(Record(), test::Generic(kNotedServer), sizeof kNotedServer, false);
  EXPECT_FALSE(Record().handled);
  NotePeer(Record(), test::Generic(kNotedServer), sizeof kNotedServer, true);
  EXPECT_TRUE(Record().handled);
  EXPECT_EQ(Record().handled_addr.sin_port, kNotedServer.sin_port);
  NotePeer(Record(), test::Generic(kNotedServer), sizeof kNotedServer, false);
  EXPECT_FALSE(Record().handled) << "its next peer is reached directly";
  SocketRecord stream = Record();
  stream.type = kSocketTypeStream;
  NotePeer(stream, test::Generic(kNotedServer), sizeof kNotedServer, true);
  EXPECT_FALSE(Record().handled) << "a stream's is noted where it is redirected";
}

// --- late receives -----------------------------------------------------------------------------

struct LateReceive : Noted {
  LateReceive() : Noted(kMendOverlappedDatagram, kSocketTypeDatagram), token(Record().token) {
    overlapped.hEvent = reinterpret_cast<HANDLE>(0x40);
  }
  void Begins() {
    SocketRecord record = Record();
    const OverlappedReceive receive(&record, true, reinterpret_cast<sockaddr*>(&from), &size,
                                    &overlapped, nullptr);
    EXPECT_TRUE(IsPending());
  }
  bool IsPending() const { return GetPendingReceives().Find(token, &overlapped) != 0; }

  const u32 token;
  WSAOVERLAPPED overlapped{};
  sockaddr_in from = kNotedRelay;
  INT size = sizeof from;
  char data[4] = {};
  WSABUF buffer{sizeof data, data};
  DWORD bytes = 0, flags = 0;
};

// Whichever call uses the structure again, the receive's own source can no longer be named.
TEST_F(LateReceive, ThatIsNotAskedForLeavesTheSocketDirectInEveryCall) {
  const sockaddr* const to = test::Generic(kNotedServer);
  for (int call = 0; call < 3; ++call) {
    GetSocketMap().SetRelayDisabled(next.socket, false);
    Begins();
    if (call == 0)
      WSPSend(next.socket, &buffer, 1, &bytes, 0, &overlapped, nullptr, nullptr, &error);
    if (call == 1)
      WSPSendTo(next.socket, &buffer, 1, &bytes, 0, to, sizeof kNotedServer, &overlapped, nullptr,
                nullptr, &error);
    if (call == 2)
      WSPRecv(next.socket, &buffer, 1, &bytes, &flags, &overlapped, nullptr, nullptr, &error);
    EXPECT_FALSE(IsPending()) << call;
    EXPECT_TRUE(Record().relay_disabled) << call;
  }
}

TEST_F(LateReceive, IsForgottenWithItsSocket) {
  Begins();
  WSPCloseSocket(next.socket, &error);
  EXPECT_FALSE(IsPending());
}

TEST_F(LateReceive, IsForgottenAtTheEndOfWinsock) {
  Begins();
  WSPCleanup(&error);
  EXPECT_FALSE(IsPending());
}

TEST_F(LateReceive, ThatIsOverIsToldSo) {
  udp.lpWSPGetOverlappedResult = ReceiveIsOver;
  WSPPROC_TABLE table{};
  HookOverlappedResult(&table);
  Begins();
  EXPECT_TRUE(
      table.lpWSPGetOverlappedResult(next.socket, &overlapped, &bytes, FALSE, &flags, &error));
  EXPECT_FALSE(IsPending());
}

// A socket without a record has no receive of ours, and its result is asked for as usual.
TEST_F(LateReceive, OfAnUnknownSocketIsTheNextProviders) {
  tcp.lpWSPGetOverlappedResult = ReceiveIsOver;
  WSPPROC_TABLE table{};
  HookOverlappedResult(&table);
  EXPECT_TRUE(table.lpWSPGetOverlappedResult(0x999, &overlapped, &bytes, FALSE, &flags, &error));
}

// On a socket that was left direct each source is the true one.
TEST_F(LateReceive, OfADirectSocketIsNotWatched) {
  SocketRecord record = Record();
  record.relay_disabled = true;
  OverlappedReceive receive(&record, true, reinterpret_cast<sockaddr*>(&from), &size, &overlapped,
                            NotCalled);
  EXPECT_EQ(receive.routine(), NotCalled);
  EXPECT_TRUE(receive.End(0, &error)) << "the source is settled";
  EXPECT_FALSE(IsPending());
}

TEST_F(LateReceive, ThatNobodyCanSeeTheEndOfLeavesTheSocketDirect) {
  overlapped.hEvent = nullptr;
  SocketRecord record = Record();
  OverlappedReceive receive(&record, true, reinterpret_cast<sockaddr*>(&from), &size, &overlapped,
                            nullptr);
  EXPECT_TRUE(record.relay_disabled);
  EXPECT_TRUE(receive.End(0, &error)) << "the source is settled";
}

// --- connects that wait ------------------------------------------------------------------------

struct WaitingConnect : Noted {
  WaitingConnect() : Noted(kMendRefusal) {}
  std::shared_ptr<PostponedConnect> Waits() {
    Postpone(Record(), &target);
    EXPECT_NE(target.postponed, nullptr);
    EXPECT_EQ(Record().connect_stage, ConnectStage::kWaiting);
    return target.postponed;
  }
  ConnectTarget target{test::Generic(kNotedServer), sizeof kNotedServer, true};
};

TEST_F(WaitingConnect, EndsWithItsSocket) {
  const auto postponed = Waits();
  WSPCloseSocket(next.socket, &error);
  EXPECT_EQ(postponed->error, WSAEINTR);
}

TEST_F(WaitingConnect, ThatTheRelayDoesNotTakeIsDecided) {
  const auto postponed = Waits();
  EndPostponed(Record(), &target);
  EXPECT_EQ(postponed->error, WSAEINTR);
  EXPECT_EQ(target.postponed, nullptr);
}

TEST_F(WaitingConnect, IsCarriedOutOnceTheServerIsReached) {
  const auto postponed = Waits();
  GetRelayMgr().postponed_connects().Decide(postponed.get(), 0);
  EXPECT_TRUE(MayConnectNow(Record(), target, &error));
  EXPECT_EQ(Record().connect_stage, ConnectStage::kIssued);
}

// ConnectEx does not wait, so it is not told to.
TEST_F(WaitingConnect, IsNothingToACallThatDoesNotWait) {
  SocketRecord record = Record();
  record.connect_stage = ConnectStage::kWaiting;
  target.may_wait = false;
  RedirectStream(record, &target);
  EXPECT_EQ(target.answer, 0);
}

// A socket that the relay does not serve may be connected again: its provider knows what to say.
TEST_F(WaitingConnect, OfADirectSocketIsNotUnderWay) {
  tcp.lpWSPGetPeerName = PeerBelow;
  EXPECT_FALSE(IsConnectUnderWay(Record(), &target));
  GetSocketMap().SetHandledAddr(next.socket, test::Generic(kNotedServer), sizeof kNotedServer);
  EXPECT_TRUE(IsConnectUnderWay(Record(), &target));
}

// --- kinds -------------------------------------------------------------------------------------

TEST(RawPings, ComeFromRawSocketsOfTheirProtocolOnly) {
  SocketRecord record;
  record.type = kSocketTypeRaw;
  record.protocol = kProtocolIcmp;
  EXPECT_TRUE(IsRawPing(record));
  record.type = kSocketTypeDatagram;
  EXPECT_FALSE(IsRawPing(record));
  record.type = kSocketTypeRaw;
  record.protocol = 17;
  EXPECT_FALSE(IsRawPing(record));
}

}  // namespace
}  // namespace moru_vyr::lsp
