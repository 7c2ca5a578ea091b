// How a game's datagram socket gets its relay, or does not. At stake: a socket asks once, each
// destination is decided once, and whatever goes wrong, the game's datagram still leaves.
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "udp/relay_messages.h"
#include "udp/udp_package_queue.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using Texts = std::vector<std::string>;

constexpr const char* kUnlistedOnes[] = {"198.51.100.14", "198.51.100.15", "198.51.100.16",
                                         "198.51.100.17", "198.51.100.18", "198.51.100.19",
                                         "198.51.100.30", "198.51.100.31", "198.51.100.32",
                                         "198.51.100.33", "198.51.100.34", "198.51.100.35"};

class UdpAsking : public UdpSpiedWorld {
 protected:
  static std::string Control(const ProtoRelayOpen& message) {
    return {reinterpret_cast<const char*>(&message), sizeof message};
  }
};

SCENARIO_F(UdpAsking, OnceForASocketAndOnceForADestination) {
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "one"), "one from 198.51.100.10:27015");
  EXPECT_EQ(GameSent(), (Texts{"open", "relay:one"}));
  const SentDatagram open = sent[0];
  ASSERT_EQ(open.text.size(), sizeof(ProtoRelayOpen));
  ProtoRelayOpen message;
  std::memcpy(static_cast<void*>(&message), open.text.data(), sizeof message);
  EXPECT_EQ(u32{message.magic}, kProtoRelayMagic);
  EXPECT_EQ(message.type, kProtoRelayTypeOpen);
  EXPECT_EQ(u32{message.token}, RecordOf(s).token);
  EXPECT_EQ(std::string(inet_ntoa(message.address().sin_addr)), kServer);
  EXPECT_EQ(message.address().sin_port, htons(kPort));
  EXPECT_EQ(static_cast<int>(message.send_size_or_queue), IntOption(s, SO_SNDBUF));
  EXPECT_EQ(static_cast<int>(message.recv_size_or_queue), IntOption(s, SO_RCVBUF));

  EXPECT_EQ(Talks(s, "two"), "two from 198.51.100.10:27015");
  EXPECT_EQ(Talks(s, "three", kServer, kSecondPort), "three from 198.51.100.10:27016");
  EXPECT_EQ(GameSent(), (Texts{"open", "relay:one", "relay:two", "relay:three"}));
  const std::string log = log_text();
  const std::string saved = "IsAllowUdpRelayed SaveRelayRecord, addr=198.51.100.10:";
  EXPECT_NE(log.find(saved), std::string::npos);
  EXPECT_EQ(log.find(saved), log.rfind(saved)) << "another port of the host is not asked about";
  EXPECT_TRUE(
      Logged("[UDP] IsAllowUdpRelayed GetRelayRecord, addr=198.51.100.10:27016, "
             "relay=true, socket="));
}

SCENARIO_F(UdpAsking, ARelayedSocketSendsOtherDatagramsDirectly) {
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "relayed"), "relayed from 198.51.100.10:27015");
  EXPECT_EQ(Talks(s, "plain", kUnlisted), "plain from 198.51.100.14:27015");
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "none");
  EXPECT_EQ(Talks(s, "relayed too"), "relayed too from 198.51.100.10:27015");
  EXPECT_EQ(GameSent(),
            (Texts{"open", "relay:relayed", "198.51.100.14:27015:plain", "relay:relayed too"}));
  EXPECT_EQ(Heard("game"), Texts{"plain"});
}

SCENARIO_F(UdpAsking, ADirectSocketSendsNoRequest) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "plain", kUnlisted), "plain from 198.51.100.14:27015");
  closesocket(s);
  RunFor(100ms);
  EXPECT_EQ(GameSent(), (Texts{"198.51.100.14:27015:plain"}));
  EXPECT_TRUE(RelaySent().empty());
}

// --- what can go wrong ------------------------------------------------------------------------

// Each case is a fault and its log line. The datagram goes directly, the socket never asks again,
// and its end is not announced to a relay that it does not have.
struct AskingFailure {
  const char* name;
  std::function<void(UdpWorld*)> prepare;
  std::function<int(const SentDatagram&)> fails;
  std::function<size_t(const SentDatagram&)> says;
  Texts sent_by_game;
  std::string words;
};

bool IsOpen(const SentDatagram& one) { return one.text.size() == sizeof(ProtoRelayOpen); }

std::vector<AskingFailure> AskingFailures() {
  const auto nothing = [](UdpWorld*) {};
  const auto no_error = [](const SentDatagram&) { return 0; };
  const auto all = [](const SentDatagram& one) { return one.text.size(); };
  const Texts both = {"198.51.100.10:27015:one", "198.51.100.10:27015:two"};
  const Texts asked = {"open", "198.51.100.10:27015:one", "198.51.100.10:27015:two"};
  return {
      {"no event", [](UdpWorld*) { port::FailCall("CreateEventA", 1, ERROR_NOT_ENOUGH_MEMORY); },
       no_error, all, both, "[UDP] RequestUdpRelay failed: CreateEvent, error=8, socket="},
      {"the message is refused", nothing,
       [](const SentDatagram& one) { return IsOpen(one) ? WSAENOBUFS : 0; }, all, asked,
       "[UDP] RequestUdpRelay failed: sendto, error=10055, socket="},
      {"the message would block", nothing,
       [](const SentDatagram& one) { return IsOpen(one) ? WSAEWOULDBLOCK : 0; }, all, asked,
       "[UDP] RequestUdpRelay failed: sendto, error=10035, socket="},
      {"the message is cut", nothing, no_error,
       [](const SentDatagram& one) { return IsOpen(one) ? 40 : one.text.size(); }, asked,
       "[UDP] RequestUdpRelay failed: sendto(127.0.0.1:"},
      {"the relay has no socket", [](UdpWorld*) { port::FailCall("WSPSocket", 1, WSAENOBUFS); },
       no_error, all, asked, "RequestUdpRelay failed: resp ret is failed, socket="},
      {"the relay's socket has no port", [](UdpWorld*) { port::FailCall("WSPBind", 1, WSAEACCES); },
       no_error, all, asked, "RequestUdpRelay failed: resp ret is failed, socket="},
      {"the relay's socket finds every port taken",
       [](UdpWorld*) {
         for (unsigned n = 1; n <= 200; ++n) port::FailCall("WSPBind", n, WSAEADDRINUSE);
       },
       no_error, all, asked, "RequestUdpRelay failed: resp ret is failed, socket="},
      {"the relay is asleep",
       [](UdpWorld*) { sim::TheWorld().Stall(GetRelayMgr().GetWorkerThreadId(), 600ms); }, no_error,
       all, asked, test::kNoRelayAnswer},
  };
}

class UdpAskingFailure : public UdpAsking {
 protected:
  void Check(const AskingFailure& failure) {
    SCOPED_TRACE(failure.name);
    const SOCKET s = Udp();
    sent.clear();
    heard.clear();
    fails = failure.fails;
    says = failure.says;
    failure.prepare(this);
    const auto begin = world.now();
    EXPECT_EQ(Talks(s, "one"), "one from 198.51.100.10:27015");
    EXPECT_LE(world.now() - begin, 520ms) << "half a second is the most that the game may wait";
    port::ClearFaults();
    EXPECT_EQ(Talks(s, "two"), "two from 198.51.100.10:27015");
    EXPECT_EQ(GameSent(), failure.sent_by_game);
    EXPECT_EQ(Heard("game"), (Texts{"one", "two"})) << AllHeard();
    EXPECT_TRUE(Logged(failure.words)) << log_text();
    EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused);
    sent.clear();
    closesocket(s);
    EXPECT_TRUE(GameSent().empty()) << "its end concerns nobody";
    RunFor(700ms);
  }
};

SCENARIO_F(UdpAskingFailure, CostsTheGameNothingButTheRelay) {
  Starts();
  for (const AskingFailure& failure : AskingFailures()) Check(failure);
  fails = [](const SentDatagram&) { return 0; };
  says = [](const SentDatagram& one) { return one.text.size(); };
  heard.clear();
  EXPECT_EQ(Talks(Udp(), "relayed"), "relayed from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), Texts{"relayed"}) << "for another socket all is well";
}

SCENARIO_F(UdpAsking, ANextProviderThatLacksACallCannotBeUsedForARequest) {
  Starts();
  const auto relayed_without = [&](auto WSPPROC_TABLE::*entry) {
    const auto kept = NextProvider().*entry;
    NextProvider().*entry = nullptr;
    const SOCKET s = Udp();
    sent.clear();
    Sends(s, "one");
    NextProvider().*entry = kept;
    return GameSent() != Texts{"198.51.100.10:27015:one"};
  };
  EXPECT_FALSE(relayed_without(&WSPPROC_TABLE::lpWSPSelect));
  EXPECT_FALSE(relayed_without(&WSPPROC_TABLE::lpWSPRecvFrom));
}

// The wait ends after half a second in any case; the answer counts, not the event.
SCENARIO_F(UdpAsking, AnAnswerCountsAlsoWhereItsEventWasNotSeen) {
  Starts();
  const SOCKET s = Udp();
  world.LoseSetEvent(1);
  const auto begin = world.now();
  EXPECT_EQ(Sends(s, "hello"), 0);
  EXPECT_GE(world.now() - begin, 500ms);
  EXPECT_EQ(Receives(s).from, "198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), Texts{"hello"});
  EXPECT_TRUE(Logged("wait_result=258, socket=")) << log_text();
}

SCENARIO_F(UdpAsking, ALateAnswerIsNotTaken) {
  Starts();
  const SOCKET s = Udp();
  const u32 token = RecordOf(s).token;
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 600ms);
  EXPECT_EQ(Sends(s, "hello"), 0);
  RunFor(1s);
  EXPECT_TRUE(Logged(test::kUdpRelayAnswerInvalid)) << "the event was gone";
  ProtoRelayOpen late;
  ASSERT_TRUE(GetRelayMgr().GetCreateResult(token, &late));
  EXPECT_TRUE(late.opened());
  EXPECT_EQ(Receives(s).text, "hello");
  EXPECT_EQ(Talks(s, "again"), "again from 198.51.100.10:27015");
  EXPECT_EQ(Heard("game"), (Texts{"hello", "again"}));
}

// The handle that the request names may be another event's by the time it is set.
SCENARIO_F(UdpAsking, ALateAnswerCanWakeAnotherWaiter) {
  Starts();
  const SOCKET s = Udp();
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 600ms);
  EXPECT_EQ(Sends(s, "hello"), 0);
  Texts opened;
  std::vector<HANDLE> strangers;
  for (int i = 0; i < 64; ++i) strangers.push_back(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  RunFor(1s);
  EXPECT_TRUE(Logged(test::kUdpRelayAnswered));
  for (const HANDLE one : strangers) CloseHandle(one);
  EXPECT_EQ(Heard("game"), Texts{"hello"});
  EXPECT_EQ(Talks(Udp(), "next"), "next from 198.51.100.10:27015");
}

// The relay accepts only the loopback address, and this socket sends from another.
SCENARIO_F(UdpAsking, ASocketBoundToTheNetworkIsDirectAfterAWait) {
  Starts();
  const SOCKET s = Udp();
  ASSERT_EQ(BindTo(s, kGame, 5000), 0);
  const auto begin = world.now();
  EXPECT_EQ(Sends(s, "hello"), 0);
  EXPECT_EQ(world.now() - begin, 500ms);
  EXPECT_EQ(Receives(s).text, "hello");
  EXPECT_EQ(Talks(s, "again"), "again from 198.51.100.10:27015");
  EXPECT_EQ(Heard("game"), (Texts{"hello", "again"})) << AllHeard();
  EXPECT_TRUE(Logged(test::kNoRelayAnswer));
}

// Another thread closes the socket while it waits for its relay.
SCENARIO_F(UdpAsking, ASocketThatWasClosedMeanwhileIsNotRelayed) {
  Starts();
  const SOCKET s = Udp();
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 300ms);
  int error = 0;
  GameThread([&] { error = Sends(s, "hello"); });
  GameThread([&] {
    Sleep(100);
    closesocket(s);
  });
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(error, WSAENOTSOCK);
  EXPECT_TRUE(Logged("[UDP] WSPSendTo: SetRelayAddr failed, socket=")) << log_text();
  EXPECT_TRUE(heard.empty());
}

// And its handle comes back at once, as another socket's: that one must not get the relay.
SCENARIO_F(UdpAsking, ANewSocketWithTheSameHandleIsNotGivenTheOldOnesRelay) {
  world.ReuseSocketHandles(true);
  Starts();
  const SOCKET s = Udp();
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 300ms);
  GameThread([&] { Sends(s, "hello"); });
  SOCKET other = INVALID_SOCKET;
  GameThread([&] {
    Sleep(100);
    closesocket(s);
    other = Udp();
  });
  ASSERT_TRUE(RunToTheEnd());
  ASSERT_EQ(other, s);
  EXPECT_EQ(RecordOf(other).relay_state, kRelayNotAsked);
  EXPECT_EQ(Receives(other).text, "hello") << "the game itself has sent it from there";
  heard.clear();
  EXPECT_EQ(Talks(other, "mine"), "mine from 198.51.100.10:27015") << log_text();
  EXPECT_EQ(Heard("A"), Texts{"mine"}) << AllHeard();
}

// Two threads may ask for one socket at once; one is refused, and its result may be stored last.
// Their datagrams arrive in either case.
SCENARIO_F_SEEDS(UdpAsking, TwoThreadsCanRequestARelayForOneSocketAtOnce, 20) {
  Starts();
  const SOCKET s = Udp();
  for (const char* text : {"one", "two"}) {
    GameThread([&, text] { EXPECT_EQ(Sends(s, text), 0); });
  }
  ASSERT_TRUE(RunToTheEnd());
  RunFor(1s);
  Texts arrived = Heard();
  std::sort(arrived.begin(), arrived.end());
  EXPECT_EQ(Difference({"one", "two"}, arrived), "") << AllHeard() << log_text();
}

// --- the ten destinations ---------------------------------------------------------------------

SCENARIO_F(UdpAsking, TheEleventhDestinationOfARefusedSocketGoesDirectly) {
  Starts(0);
  const SOCKET s = Udp();
  port::FailCall("CreateEventA", 1, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(Sends(s, "first"), 0);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(Sends(s, "plain", kUnlistedOnes[i]), 0);
  RunFor(1s);
  sent.clear();
  EXPECT_EQ(Sends(s, "eleventh", kUnlistedOnes[9]), 0);
  EXPECT_EQ(Sends(s, "twelfth", kSecond), 0);
  EXPECT_EQ(GameSent(), (Texts{"198.51.100.33:27015:eleventh", "198.51.100.13:27015:twelfth"}));
  EXPECT_TRUE(Logged("IsAllowUdpRelayed, Out of space, addr=198.51.100.33:27015, socket="));
}

// Destinations that the tables do not know share one flow in the relay.
SCENARIO_F(UdpAsking, DestinationsBeyondTheTenthShareAFlowUnlessTheyAreKnown) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  for (int i = 0; i < 9; ++i)
    EXPECT_EQ(Talks(s, "plain", kUnlistedOnes[i]),
              "plain from " + std::string(kUnlistedOnes[i]) + ":27015");
  heard.clear();
  EXPECT_EQ(Talks(s, "eleventh", kUnlistedOnes[9]), "eleventh from 198.51.100.33:27015");
  EXPECT_EQ(Talks(s, "twelfth", kUnlistedOnes[10]), "twelfth from 198.51.100.34:27015");
  EXPECT_EQ(Talks(s, "thirteenth", kSecond), "thirteenth from 198.51.100.13:27015");
  EXPECT_EQ(Talks(s, "fourteenth", kUnlistedOnes[11]), "fourteenth from 198.51.100.35:27015");
  ASSERT_EQ(heard.size(), 4u) << AllHeard();
  EXPECT_EQ(heard[0].from_full, heard[1].from_full);
  EXPECT_EQ(heard[0].from_full, heard[3].from_full);
  EXPECT_EQ(heard[2].from, "A");
}

// A port may make every address known; only that port counts.
SCENARIO_F(UdpAsking, AnAddressIsLookedUpWithItsPort) {
  Configures([](AccConfigRecord* config) {
    config->port_idc_count = 1;
    config->port_idc_records[0] = {kSecondPort, 11};
  });
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  for (const char* ip : {kUnlistedOnes[0], kUnlistedOnes[1]}) {
    // The socket remembers that the address is for the relay, even if the datagram is lost.
    fails = [](const SentDatagram& one) { return one.by_relay ? 0 : WSAENOBUFS; };
    EXPECT_EQ(Sends(s, "never sent", ip, kSecondPort), WSAENOBUFS);
    fails = [](const SentDatagram&) { return 0; };
    EXPECT_EQ(Talks(s, "unknown", ip), "unknown from " + std::string(ip) + ":27015");
  }
  ASSERT_EQ(heard.size(), 3u) << AllHeard();
  EXPECT_EQ(heard[1].from, "game") << "no data centre is known for that port";
  EXPECT_EQ(heard[1].from_full, heard[2].from_full) << "and so they share a flow";
  EXPECT_EQ(Sends(s, "known", kUnlistedOnes[0], kSecondPort), 0);
  RunFor(100ms);
  EXPECT_EQ(a.Count("request"), 2u) << "through the other port it has one of its own";
  EXPECT_EQ(Talks(s, "now known", kUnlistedOnes[0]), "now known from 198.51.100.14:27015");
  EXPECT_EQ(heard.back().from, "A") << "which from now on serves all its ports";
}

// The flow with which the socket began is its first destination's, also where it is that of all
// unknown ones.
SCENARIO_F(UdpAsking, TheFirstDestinationStaysInItsFlowThroughAnyPort) {
  Configures([](AccConfigRecord* config) {
    config->port_idc_count = 1;
    config->port_idc_records[0] = {kSecondPort, 11};
  });
  Starts();
  const SOCKET s = Udp();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(Sends(s, "plain", kUnlistedOnes[i]), 0);
  EXPECT_EQ(Sends(s, "first", kUnlistedOnes[10]), 0);
  RunFor(100ms);
  ASSERT_EQ(RecordOf(s).relay_state, kRelayRunning);
  EXPECT_EQ(Sends(s, "known", kUnlistedOnes[10], kSecondPort), 0);
  RunFor(100ms);
  EXPECT_EQ(a.Count("request"), 0u);
}

// --- the queue beside the datagram ------------------------------------------------------------

SCENARIO_F(UdpAsking, ADatagramThatCannotBeSentIsTakenBack) {
  Starts(5);
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  for (const int error : {WSAEWOULDBLOCK, WSA_IO_PENDING, WSAENOBUFS, WSAEMSGSIZE}) {
    fails = [error](const SentDatagram& one) { return one.by_relay ? 0 : error; };
    EXPECT_EQ(Sends(s, "never sent"), error);
    EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "none") << error;
  }
  fails = [](const SentDatagram&) { return 0; };
  EXPECT_EQ(Talks(s, "sent"), "sent from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), (Texts{"first", "sent"}));
}

// From the moment on that a send is pending its buffers may be gone, and with them the bytes to
// look for. What is taken back is its own entry, whatever equal ones there are.
SCENARIO_F(UdpAsking, ASendThatIsPendingIsTakenBackWithoutALookAtItsBuffers) {
  struct Operation {
    char data[4] = {'s', 'a', 'm', 'e'};
    WSABUF buffer{sizeof data, data};
    sockaddr_in to = At(kServer, kPort);
    DWORD bytes = 0;
    WSAOVERLAPPED overlapped{};
  };
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  const auto queue = GetRelayMgr().UseQueue(RecordOf(s).send_queue, RecordOf(s).token);
  const sockaddr_in older = At(kServer, 1), younger = At(kServer, 2);
  ASSERT_TRUE(queue->Push("same", 4, &older));
  auto operation = std::make_unique<Operation>();
  fails = [&](const SentDatagram& one) -> int {
    if (one.by_relay) return 0;
    operation.reset();
    EXPECT_TRUE(queue->Push("same", 4, &younger));
    return WSA_IO_PENDING;
  };
  int error = 0;
  EXPECT_EQ(WSPSendTo(s, &operation->buffer, 1, &operation->bytes, 0, Raw(operation->to),
                      sizeof operation->to, &operation->overlapped, nullptr, nullptr, &error),
            SOCKET_ERROR);
  EXPECT_EQ(error, WSA_IO_PENDING);
  EXPECT_EQ(operation, nullptr);
  fails = [](const SentDatagram&) { return 0; };
  sockaddr_in found = {};
  for (const sockaddr_in& left : {older, younger}) {
    ASSERT_TRUE(queue->FindAddrThenRemove("same", 4, &found));
    EXPECT_EQ(ntohs(found.sin_port), ntohs(left.sin_port));
  }
  EXPECT_FALSE(queue->FindAddrThenRemove("same", 4, &found));
}

// Whatever waits in the queue then belongs to another datagram.
SCENARIO_F(UdpAsking, ADatagramThatWasNotQueuedTakesNothingBack) {
  Starts();
  const SOCKET s = Udp();
  fails = [this](const SentDatagram& one) {
    if (one.text == "first") world.Stall(GetRelayMgr().GetWorkerThreadId(), 100ms);
    return 0;
  };
  EXPECT_EQ(Sends(s, "first"), 0);
  fails = [](const SentDatagram& one) { return one.by_relay ? 0 : WSA_IO_PENDING; };
  EXPECT_EQ(Sends(s, std::string(3000, 'x')), WSA_IO_PENDING) << "too long for the queue";
  fails = [](const SentDatagram& one) { return one.by_relay ? 0 : WSAENOBUFS; };
  EXPECT_EQ(Sends(s, "first", kUnlisted), WSAENOBUFS) << "to a server that is reached directly";
  fails = [](const SentDatagram&) { return 0; };
  RunFor(1s);
  EXPECT_EQ(Heard("A"), Texts{"first"}) << log_text();
}

SCENARIO_F(UdpAsking, ASendWithoutBuffersHasNothingToTakeBack) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  const auto send_to = NextProvider().lpWSPSendTo;
  NextProvider().lpWSPSendTo = [](SOCKET, LPWSABUF, DWORD, LPDWORD, DWORD, const sockaddr*, int,
                                  LPWSAOVERLAPPED, LPWSAOVERLAPPED_COMPLETION_ROUTINE,
                                  LPWSATHREADID, LPINT error) {
    *error = WSAEFAULT;
    return SOCKET_ERROR;
  };
  const sockaddr_in to = At(kServer, kPort);
  DWORD bytes = 0;
  int error = 0;
  EXPECT_EQ(
      WSPSendTo(s, nullptr, 1, &bytes, 0, Raw(to), sizeof to, nullptr, nullptr, nullptr, &error),
      SOCKET_ERROR);
  NextProvider().lpWSPSendTo = send_to;
  EXPECT_EQ(error, WSAEFAULT);
  EXPECT_EQ(Talks(s, "second"), "second from 198.51.100.10:27015");
}

SCENARIO_F(UdpAsking, ADatagramWithoutADestinationIsNotQueued) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  sent.clear();
  EXPECT_EQ(ErrorOf(sendto(s, "x", 1, 0, nullptr, 0)), WSAENOTCONN);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].to, "") << "to wherever the socket is connected, which is nowhere";
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "none");
}

SCENARIO_F(UdpAsking, ADatagramWhoseSourceIsForgottenComesFromTheRelay) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  EXPECT_EQ(Sends(s, "second"), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).recv_queue), "198.51.100.10:27015");
  const Datagram second = Receives(s);
  EXPECT_EQ(second.text, "second");
  EXPECT_EQ(second.from.substr(0, 10), "127.0.0.1:");
}

// Anyone who knows the socket's port can send to it: a datagram that did not come from the relay
// keeps its own source, and does not change the source of the relay's datagram.
SCENARIO_F(UdpAsking, OnlyTheRelaysDatagramsGetAnotherSource) {
  sim::Host& stranger = world.AddHost("stranger", {"198.51.100.66"});
  server->answer = [](const std::string& text) {
    if (text == "slow") Sleep(200);
    return text;
  };
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  sockaddr_in own = {};
  int size = sizeof own;
  ASSERT_EQ(getsockname(s, Raw(own), &size), 0);
  const int port = ntohs(own.sin_port), relay_port = ntohs(RecordOf(s).relay_addr.sin_port);
  EXPECT_EQ(Sends(s, "slow"), 0);
  const SOCKET near = Udp();
  ASSERT_EQ(BindTo(near, "127.0.0.1", 5555), 0);
  EXPECT_EQ(ErrorOf(SendTextTo(near, "near", "127.0.0.1", port)), 0);
  world.SpawnOn(stranger, "stranger", [=] {
    const SOCKET far = Udp();
    EXPECT_EQ(BindTo(far, "198.51.100.66", relay_port), 0);
    EXPECT_EQ(ErrorOf(SendTextTo(far, "far", kGame, port)), 0);
  });
  RunFor(500ms);
  for (const auto& [text, from] : {std::pair("near", std::string("127.0.0.1:5555")),
                                   std::pair("far", "198.51.100.66:" + std::to_string(relay_port)),
                                   std::pair("slow", std::string("198.51.100.10:27015"))}) {
    const Datagram came = Receives(s, 0);
    EXPECT_EQ(came.text, text);
    EXPECT_EQ(came.from, from);
  }
}

// Kept: a call knows the socket as it was when it began, and this one began without a relay.
SCENARIO_F(UdpAsking, AReceiveThatBeganBeforeTheRelayNamesTheRelay) {
  Starts();
  const SOCKET s = Udp();
  ASSERT_EQ(BindTo(s, "0.0.0.0", 5000), 0);
  sockaddr_in from = {};
  GameThread([&] {
    char bytes[100];
    int size = sizeof from;
    EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, 0, Raw(from), &size), 5);
  });
  RunFor(50ms);
  EXPECT_EQ(Sends(s, "first"), 0);
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(from.sin_port, RecordOf(s).relay_addr.sin_port);
  EXPECT_EQ(from.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
  EXPECT_EQ(Talks(s, "second"), "second from 198.51.100.10:27015");
}

// The address that a call gives may be longer than an IPv4 address is; it must not be read beyond
// its end.
SCENARIO_F(UdpAsking, TheLengthOfTheAddressIsTheCallersOwn) {
  Starts();
  const SOCKET s = Udp();
  for (const int size : {16, 28, 128, 200}) {
    const sockaddr_in to[16] = {At(kServer, kPort)};
    const std::string text = "named with " + std::to_string(size);
    EXPECT_EQ(sendto(s, text.data(), static_cast<int>(text.size()), 0, Raw(to[0]), size),
              static_cast<int>(text.size()));
    EXPECT_EQ(Receives(s).text, text);
  }
  EXPECT_EQ(Heard("A").size(), 4u);
}

}  // namespace
