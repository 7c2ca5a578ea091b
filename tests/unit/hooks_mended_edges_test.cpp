// Edges of what is mended, over a scripted next provider: providers that lack an entry or know no
// name, sockets that are not what the caller thinks, and completions that nobody waits for. At
// stake: the library falls back to what the next provider said, and calls nothing that is not
// there.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/process_info.h"
#include "hooks/connect_target.h"
#include "hooks/connected_datagram.h"
#include "hooks/hook_entries.h"
#include "hooks/overlapped_receive.h"
#include "hooks/pending_receives.h"
#include "hooks/postponed_target.h"
#include "hooks/relayed_names.h"
#include "hooks/udp_relay.h"
#include "sockets/socket_map.h"
#include "tests/support/log_capture.h"
#include "tests/support/mended.h"
#include "tests/unit/scripted_provider.h"

#ifndef _WIN32
#include "port/shared/faults.h"
#endif

namespace moru_vyr::lsp {
namespace {

const sockaddr_in kEdgeServer = test::Address("198.51.100.20", 8080);
const sockaddr_in kEdgeRelay = test::Address("127.0.0.1", 4001);

int name_result = 0;
sockaddr_in name_below{};
int WSPAPI NameBelow(SOCKET, sockaddr* name, LPINT, LPINT) {
  std::memcpy(name, &name_below, sizeof name_below);
  return name_result;
}

int selected_below = 0;   // how many sockets the next provider calls failed
template <class Timeout>  // which is not everywhere a pointer to const
int WSPAPI SelectBelow(int, fd_set*, fd_set*, fd_set*, Timeout, LPINT) {
  return selected_below;
}

// A socket that is connected to the relay in place of kEdgeServer.
struct MendedEdges : testing::Test {
  MendedEdges() {
    name_result = 0;
    name_below = kEdgeRelay;
    selected_below = 0;
    udp.lpWSPGetSockName = tcp.lpWSPGetSockName = NameBelow;
    udp.lpWSPGetPeerName = tcp.lpWSPGetPeerName = NameBelow;
    udp.lpWSPSelect = tcp.lpWSPSelect = SelectBelow;
  }
  void Make(int type) {
    const bool is_stream = type == kSocketTypeStream;
    EXPECT_EQ(WSPSocket(AF_INET, type, is_stream ? 6 : 17, nullptr, 0, 1, &error), next.socket);
    GetSocketMap().SetHandledAddr(next.socket, test::Generic(kEdgeServer), sizeof kEdgeServer);
    next.calls.clear();
  }
  SocketRecord Record() const { return GetSocketMap().Get(next.socket); }
  sockaddr_in OwnName() {
    WSPPROC_TABLE table{};
    HookRelayedNames(&table);
    sockaddr_in name{};
    INT size = sizeof name;
    EXPECT_EQ(
        table.lpWSPGetSockName(next.socket, reinterpret_cast<sockaddr*>(&name), &size, &error),
        name_result);
    return name;
  }
  sockaddr_in PeerName(SOCKET s) {
    WSPPROC_TABLE table{};
    HookRelayedNames(&table);
    sockaddr_in name{};
    INT size = sizeof name;
    peer_result = table.lpWSPGetPeerName(s, reinterpret_cast<sockaddr*>(&name), &size, &error);
    return name;
  }
  static bool Same(const sockaddr_in& a, const sockaddr_in& b) {
    return a.sin_addr.s_addr == b.sin_addr.s_addr && a.sin_port == b.sin_port;
  }

  test::ScriptedProvider next;
  WSPPROC_TABLE& tcp = common::GetProcessInfo().tcp_proc_table;
  WSPPROC_TABLE& udp = common::GetProcessInfo().udp_proc_table;
  INT error = 0;
  int peer_result = 0;
};

// --- names -----------------------------------------------------------------------------------

// The scripted provider answers every control with success, and stores no address.
TEST_F(MendedEdges, ARouteThatNamesNoAddressIsNoAnswer) {
  const test::Mended mended(kMendNames);
  Make(kSocketTypeStream);
  EXPECT_TRUE(Same(OwnName(), kEdgeRelay)) << "what the next provider said stays";
  ASSERT_EQ(next.calls.size(), 1u);
  EXPECT_EQ(next.calls[0].name, "WSPIoctl");
}

TEST_F(MendedEdges, AProviderWithoutControlsIsNotAskedForARoute) {
  const test::Mended mended(kMendNames);
  Make(kSocketTypeStream);
  tcp.lpWSPIoctl = nullptr;
  EXPECT_TRUE(Same(OwnName(), kEdgeRelay));
  EXPECT_TRUE(next.calls.empty());
}

#ifndef _WIN32
TEST_F(MendedEdges, WithoutASocketToAskWithTheNameStays) {
  const test::Mended mended(kMendNames);
  Make(kSocketTypeStream);
  port::FailCall("socket", 0, WSAENOBUFS);
  const sockaddr_in name = OwnName();
  port::ClearFaults();
  EXPECT_TRUE(Same(name, kEdgeRelay));
}
#endif

// Which names are shown depends on the kind of the socket.
TEST_F(MendedEdges, EachKindOfSocketShowsItsNamesOnRequest) {
  {
    const test::Mended mended(kMendNames);
    Make(kSocketTypeDatagram);
    EXPECT_TRUE(Same(OwnName(), kEdgeRelay));
    EXPECT_TRUE(next.calls.empty()) << "no route is asked for";
    EXPECT_TRUE(Same(PeerName(next.socket), kEdgeServer)) << "as without any mending";
  }
  const test::Mended mended(kMendConnectedDatagram);
  name_result = SOCKET_ERROR;
  PeerName(next.socket);
  EXPECT_EQ(peer_result, SOCKET_ERROR) << "the next provider says whether there is a connection";
}

TEST_F(MendedEdges, TheNamesAreReplacedForEitherKind) {
  WSPPROC_TABLE table{};
  HookRelayedNames(&table);
  EXPECT_EQ(table.lpWSPGetSockName, nullptr);
  for (const u32 bit : {kMendNames, kMendConnectedDatagram}) {
    const test::Mended mended(bit);
    table = {};
    HookRelayedNames(&table);
    EXPECT_NE(table.lpWSPGetSockName, nullptr) << bit;
    EXPECT_NE(table.lpWSPGetPeerName, nullptr) << bit;
  }
}

TEST_F(MendedEdges, ThePeerOfAnUnknownSocketIsAFailure) {
  const test::Mended mended(kMendNames);
  WSASetLastError(0);
  PeerName(0x999);
  EXPECT_EQ(peer_result, SOCKET_ERROR);
  EXPECT_EQ(error, WSAENETDOWN);
}

// --- connected datagram sockets --------------------------------------------------------------

TEST_F(MendedEdges, WithoutAConnectBelowAConnectedSocketKeepsWhatItBelieves) {
  const test::Mended mended(kMendConnectedDatagram);
  Make(kSocketTypeDatagram);
  udp.lpWSPGetPeerName = nullptr;
  udp.lpWSPConnect = nullptr;
  ConnectDirectly(Record());
  EXPECT_TRUE(next.calls.empty());
  EXPECT_TRUE(Record().handled) << "it is connected to where it was";
}

// A socket that has no peer to leave is connected all the same.
TEST_F(MendedEdges, ASocketWhosePeerCannotBeAskedForIsConnectedDirectly) {
  const test::Mended mended(kMendConnectedDatagram);
  Make(kSocketTypeDatagram);
  udp.lpWSPGetPeerName = nullptr;
  ConnectDirectly(Record());
  ASSERT_EQ(next.calls.size(), 1u) << "nothing is left first";
  EXPECT_EQ(next.calls[0].name, "WSPConnect");
  EXPECT_FALSE(Record().handled);
}

// --- late receives ---------------------------------------------------------------------------

int routine_calls = 0;
DWORD routine_bytes = 0;
void CALLBACK CountedRoutine(DWORD, DWORD bytes, LPWSAOVERLAPPED, DWORD) {
  ++routine_calls;
  routine_bytes = bytes;
}

struct LateEdges : MendedEdges {
  LateEdges() {
    routine_calls = 0;
    Make(kSocketTypeDatagram);
  }
  ~LateEdges() override { ForgetAllReceives(); }
  bool IsTaken(SocketRecord record, bool allowed, sockaddr* to, INT* room) {
    OverlappedReceive receive(&record, allowed, to, room, &overlapped, CountedRoutine);
    const bool ours = receive.routine() != CountedRoutine;
    if (ours) late = receive.routine();
    EXPECT_FALSE(record.relay_disabled);
    EXPECT_EQ(receive.End(SOCKET_ERROR, &pending), ours) << "whether the source is settled";
    return ours;
  }
  bool IsForgotten() { return GetPendingReceives().Find(Record().token, &overlapped) == 0; }
  sockaddr* Place() { return reinterpret_cast<sockaddr*>(&from); }

  const test::Mended mended{kMendOverlappedDatagram};
  WSAOVERLAPPED overlapped{};
  sockaddr_in from = kEdgeRelay;
  INT size = sizeof from;
  INT pending = WSA_IO_PENDING;
  LPWSAOVERLAPPED_COMPLETION_ROUTINE late = nullptr;
};

TEST_F(LateEdges, OnlyADatagramThatMayBeRelayedAndHasAPlaceForItsSourceIsWatched) {
  SocketRecord record = Record();
  EXPECT_FALSE(IsTaken(record, false, Place(), &size));
  EXPECT_FALSE(IsTaken(record, true, nullptr, &size));
  EXPECT_FALSE(IsTaken(record, true, Place(), nullptr));
  record.type = kSocketTypeStream;
  EXPECT_FALSE(IsTaken(record, true, Place(), &size));
  EXPECT_TRUE(IsForgotten());
  EXPECT_TRUE(IsTaken(Record(), true, Place(), &size));
  late(0, 5, &overlapped, 0);
  EXPECT_TRUE(IsForgotten());
}

// A session may be gone when the datagram comes: the game hears of it, and its source stays.
TEST_F(LateEdges, ACompletionWithoutASessionReachesTheGameUnnamed) {
  ASSERT_TRUE(IsTaken(Record(), true, Place(), &size));
  late(0, 5, &overlapped, 0);
  EXPECT_EQ(routine_calls, 1);
  EXPECT_EQ(routine_bytes, 5u);
  EXPECT_EQ(from.sin_port, kEdgeRelay.sin_port);
  EXPECT_EQ(from.sin_addr.s_addr, kEdgeRelay.sin_addr.s_addr);
}

TEST_F(LateEdges, ACompletionThatNobodyWaitsForIsDropped) {
  ASSERT_TRUE(IsTaken(Record(), true, Place(), &size));
  late(0, 5, &overlapped, 0);
  late(0, 6, &overlapped, 0);
  EXPECT_EQ(routine_calls, 1) << "the routine of a receive runs once";
}

// A datagram that was cut, and is there at once, is settled at once.
TEST_F(LateEdges, ADatagramThatIsCutAtOnceIsSettled) {
  SocketRecord record = Record();
  overlapped.hEvent = reinterpret_cast<HANDLE>(0x40);
  OverlappedReceive receive(&record, true, Place(), &size, &overlapped, nullptr);
  INT cut = WSAEMSGSIZE;
  EXPECT_TRUE(receive.End(SOCKET_ERROR, &cut));
  EXPECT_TRUE(IsForgotten());
}

// Without a place for the error nobody can say that the receive is over.
TEST_F(LateEdges, AReceiveWhoseErrorIsUnknownStaysPending) {
  SocketRecord record = Record();
  overlapped.hEvent = reinterpret_cast<HANDLE>(0x40);
  OverlappedReceive receive(&record, true, Place(), &size, &overlapped, nullptr);
  EXPECT_TRUE(receive.End(SOCKET_ERROR, nullptr));
  EXPECT_FALSE(IsForgotten());
}

// Its result was not asked for before the structure is used again: the library could not have named
// its source, so the socket is left direct, once.
TEST_F(LateEdges, AReceiveThatIsNotAskedForLeavesTheSocketDirectOnce) {
  const test::LogCapture log(5);
  overlapped.hEvent = reinterpret_cast<HANDLE>(0x40);
  for (int i = 0; i < 2; ++i) {
    SocketRecord record = Record();
    record.relay_disabled = false;
    { const OverlappedReceive receive(&record, true, Place(), &size, &overlapped, nullptr); }
    record.relay_disabled = i == 1;
    NoteOverlappedUse(&record, &overlapped);
    EXPECT_TRUE(record.relay_disabled);
    EXPECT_TRUE(IsForgotten());
  }
  const std::string text = log.Text(), line = "the result of a receive was not asked for";
  EXPECT_NE(text.find(line), text.npos) << text;
  EXPECT_EQ(text.find(line), text.rfind(line)) << text;
}

// The message to the relay cannot be sent: its session is noted as ended, and the socket goes
// direct.
TEST_F(LateEdges, ARelayedSocketIsLeftDirectEvenIfItsRelayCannotBeTold) {
  GetSocketMap().SetRelayAddr(next.socket, &kEdgeRelay, nullptr, nullptr);
  overlapped.hEvent = reinterpret_cast<HANDLE>(0x40);
  SocketRecord record = Record();
  { const OverlappedReceive receive(&record, true, Place(), &size, &overlapped, nullptr); }
  next.result = SOCKET_ERROR;
  next.error = WSAENOBUFS;
  NoteOverlappedUse(&record, &overlapped);
  EXPECT_EQ(record.relay_state, kRelayRefused);
  EXPECT_EQ(Record().relay_state, kRelayRefused);
  EXPECT_TRUE(Record().relay_disabled);
  ASSERT_FALSE(next.calls.empty());
  EXPECT_EQ(next.Last().name, "WSPConnect") << "to where it believes it is connected";
}

TEST_F(LateEdges, WithoutAnyProviderTheResultIsAFailure) {
  WSPPROC_TABLE table{};
  HookOverlappedResult(&table);
  common::ProcessInfo& process = common::GetProcessInfo();
  process.tcp_proc_table = process.udp_proc_table = process.raw_proc_table = {};
  DWORD bytes = 0, flags = 0;
  EXPECT_FALSE(table.lpWSPGetOverlappedResult(0x999, &overlapped, &bytes, FALSE, &flags, &error));
  EXPECT_EQ(error, WSAENETDOWN);
  EXPECT_EQ(WSAGetLastError(), WSAENETDOWN);
}

// --- connects that wait ------------------------------------------------------------------------

struct PostponedEdges : MendedEdges {
  PostponedEdges() { Make(kSocketTypeStream); }
  SocketRecord At(ConnectStage stage) {
    SocketRecord record = Record();
    record.connect_stage = stage;
    return record;
  }
  bool IsUnderWay(const SocketRecord& record) {
    target = {test::Generic(kEdgeServer), sizeof kEdgeServer};
    return IsConnectUnderWay(record, &target);
  }

  const test::Mended mended{kMendRefusal};
  ConnectTarget target{test::Generic(kEdgeServer), sizeof kEdgeServer};
};

// The relay has been asked: the next provider answers a second connect.
TEST_F(PostponedEdges, ASecondConnectWhileTheFirstIsOnItsWayIsPassedOn) {
  EXPECT_TRUE(IsUnderWay(At(ConnectStage::kIssued)));
  EXPECT_EQ(target.answer, 0);
  EXPECT_TRUE(IsUnderWay(At(ConnectStage::kWaiting)));
  EXPECT_EQ(target.answer, WSAEALREADY);
}

// The refusal that was arranged takes a moment to show; until then the connect is still under way.
TEST_F(PostponedEdges, ARefusedConnectIsUnderWayUntilItShows) {
  EXPECT_TRUE(IsUnderWay(At(ConnectStage::kRefused)));
  EXPECT_EQ(target.answer, WSAEALREADY);
  selected_below = 1;
  EXPECT_FALSE(IsUnderWay(At(ConnectStage::kRefused)));
  EXPECT_EQ(target.answer, 0);
  selected_below = 0;
  tcp.lpWSPSelect = nullptr;
  EXPECT_FALSE(IsUnderWay(At(ConnectStage::kRefused))) << "a provider that cannot be asked";
}

TEST_F(PostponedEdges, ASocketThatIsConnectedIsNotConnectedAgain) {
  EXPECT_TRUE(IsUnderWay(At(ConnectStage::kNone)));
  name_result = SOCKET_ERROR;
  EXPECT_FALSE(IsUnderWay(At(ConnectStage::kNone))) << "not connected";
  name_result = 0;
  tcp.lpWSPGetPeerName = nullptr;
  EXPECT_FALSE(IsUnderWay(At(ConnectStage::kNone))) << "a provider that cannot be asked";
}

TEST_F(PostponedEdges, ANonBlockingSocketThatWasRefusedConnectsAtOnceTheNextTime) {
  SocketRecord record = At(ConnectStage::kRefused);
  GetSocketMap().SetConnectStage(record.socket, ConnectStage::kRefused, record.token);
  record.non_blocking = true;
  Postpone(record, &target);
  EXPECT_EQ(target.postponed, nullptr);
  EXPECT_EQ(Record().connect_stage, ConnectStage::kNone);
}

TEST_F(PostponedEdges, ABlockingSocketThatWasRefusedWaitsAgain) {
  Postpone(At(ConnectStage::kRefused), &target);
  ASSERT_NE(target.postponed, nullptr);
  EXPECT_EQ(Record().connect_stage, ConnectStage::kWaiting);
  EndPostponed(Record(), &target);
  EXPECT_EQ(Record().connect_stage, ConnectStage::kNone);
}

#ifndef _WIN32
// Without an event nobody could wait: the connect is carried out as without this mending.
TEST_F(PostponedEdges, WithoutAnEventAConnectIsNotPostponed) {
  port::FailCall("CreateEventA", 1, ERROR_NOT_ENOUGH_MEMORY);
  Postpone(Record(), &target);
  port::ClearFaults();
  EXPECT_EQ(target.postponed, nullptr);
  EXPECT_EQ(Record().connect_stage, ConnectStage::kNone);
  EXPECT_TRUE(MayConnectNow(Record(), target, &error));
}
#endif

// --- entries that are not there ----------------------------------------------------------------

TEST_F(MendedEdges, AProviderThatCannotAcceptIsAFailure) {
  tcp.lpWSPAccept = nullptr;
  WSASetLastError(0);
  EXPECT_EQ(WSPAccept(0x99, nullptr, nullptr, nullptr, 0, &error), INVALID_SOCKET);
  EXPECT_EQ(error, WSAENETDOWN);
  EXPECT_EQ(WSAGetLastError(), WSAENETDOWN);
  EXPECT_TRUE(next.calls.empty());
}

// --- datagrams through queues ----------------------------------------------------------------

struct QueueEdges : MendedEdges {
  QueueEdges() {
    Make(kSocketTypeDatagram);
    GetSocketMap().SetRelayAddr(next.socket, &kEdgeRelay, nullptr, nullptr);
  }
  char data[4] = {'a', 'b', 'c', 'd'};
  WSABUF buffer{sizeof data, data};
};

TEST_F(QueueEdges, ASourceIsRestoredOnlyWhereThereIsOneAndItsQueueLives) {
  const SocketRecord record = Record();
  ASSERT_EQ(record.relay_state, kRelayRunning);
  const DWORD received = sizeof data;
  sockaddr_in from = kEdgeRelay;
  EXPECT_FALSE(RestoreUdpSource(record, &buffer, 1, nullptr, &received));
  EXPECT_FALSE(RestoreUdpSource(record, &buffer, 1, &from, nullptr)) << "nothing has come";
  EXPECT_FALSE(RestoreUdpSource(record, &buffer, 1, &from, &received)) << "the session is gone";
  EXPECT_TRUE(Same(from, kEdgeRelay));
  sockaddr_in stranger = kEdgeServer;
  EXPECT_FALSE(RestoreUdpSource(record, &buffer, 1, &stranger, &received));
  EXPECT_TRUE(Same(stranger, kEdgeServer)) << "it did not come through the relay";
}

TEST_F(QueueEdges, ASendWithoutBuffersHasNothingToTakeBack) {
  const test::LogCapture log(0);
  for (const bool pending : {false, true}) CancelUdpSend(next.socket, nullptr, 0, pending, 1);
  CancelUdpSend(next.socket, &buffer, 1, false, 0);
  EXPECT_EQ(log.Text(), "") << "no queue is looked into";
}

TEST_F(QueueEdges, AConnectWithoutAPlaceForTheAddressGoesDirect) {
  EXPECT_FALSE(HandleUdpConnect(Record(), &kEdgeServer, nullptr));
}

}  // namespace
}  // namespace moru_vyr::lsp
