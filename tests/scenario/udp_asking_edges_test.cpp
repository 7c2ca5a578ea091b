// Edge cases of a datagram socket that asks for its relay: what is logged about it, datagrams in
// pieces, and sockets that are closed before the answer. At stake: no socket pays for another.
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "udp/relay_messages.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using Texts = std::vector<std::string>;

class UdpAskingEdges : public UdpSpiedWorld {
 protected:
  static std::string Tail(SOCKET s) {
    return "socket=" + std::to_string(s) + ", token=" + std::to_string(RecordOf(s).token) + "\n";
  }
  void ExpectLine(const std::string& line) { EXPECT_TRUE(Logged(line)) << line << log_text(); }

  // A datagram in two pieces; 0 or the error.
  static int SendsInTwo(SOCKET s, std::string first, std::string second) {
    WSABUF pieces[2] = {{static_cast<ULONG>(first.size()), first.data()},
                        {static_cast<ULONG>(second.size()), second.data()}};
    const sockaddr_in to = At(kServer, kPort);
    DWORD bytes = 0;
    INT error = 0;
    const int result =
        WSPSendTo(s, pieces, 2, &bytes, 0, Raw(to), sizeof to, nullptr, nullptr, nullptr, &error);
    return result == 0 ? 0 : error;
  }
  static bool IsOpen(const SentDatagram& one) { return one.text.size() == sizeof(ProtoRelayOpen); }
};

// --- what is logged ---------------------------------------------------------------------------

SCENARIO_F(UdpAskingEdges, RequestsAreLoggedAtTheLevelsOfTheirEvents) {
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "one"), 0);
  EXPECT_EQ(Sends(s, "two"), 0);
  const std::string tail = Tail(s);
  ExpectLine("[4][lsp]IsAllowUdpRelayed SaveRelayRecord, addr=198.51.100.10:27015, relay=true, " +
             tail);
  ExpectLine("[5][lsp][UDP] RequestUdpRelay begin, " + tail);
  ExpectLine("[0][lsp][UDP] RequestUdpRelay: sendto(" + ControlAddress() +
             ") success, bytes=" + std::to_string(sizeof(ProtoRelayOpen)) + ", " + tail);
  ExpectLine("[5][lsp]RequestUdpRelay success: relay_addr(127.0.0.1:" +
             std::to_string(ntohs(RecordOf(s).relay_addr.sin_port)) + "), wait_result=0, socket=" +
             std::to_string(s) + ",token=" + std::to_string(RecordOf(s).token) + "\n");
  ExpectLine(
      "[0][lsp][UDP] IsAllowUdpRelayed GetRelayRecord, addr=198.51.100.10:27015, relay=true, " +
      tail);
  for (int last = 14; last <= 19; ++last)
    EXPECT_EQ(Sends(s, "x", ("198.51.100." + std::to_string(last)).c_str()), 0);
  for (int last = 30; last <= 33; ++last)
    EXPECT_EQ(Sends(s, "x", ("198.51.100." + std::to_string(last)).c_str()), 0);
  ExpectLine("[4][lsp]IsAllowUdpRelayed SaveRelayRecord, addr=198.51.100.32:27015, relay=false, " +
             tail);
  ExpectLine("[0][lsp]IsAllowUdpRelayed, Out of space, addr=198.51.100.33:27015, " + tail);
}

SCENARIO_F(UdpAskingEdges, EveryRefusalIsLoggedAsAFailure) {
  Starts();
  const auto refused = [this](const std::string& words) {
    const SOCKET s = Udp();
    EXPECT_EQ(Sends(s, "one"), 0);
    EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused) << words;
    ExpectLine("[5][lsp]" + words + Tail(s));
    port::ClearFaults();
    fails = [](const SentDatagram&) { return 0; };
    says = [](const SentDatagram& one) { return one.text.size(); };
  };
  port::FailCall("CreateEventA", 1, ERROR_NOT_ENOUGH_MEMORY);
  refused("[UDP] RequestUdpRelay failed: CreateEvent, error=8, ");
  fails = [](const SentDatagram& one) { return IsOpen(one) ? WSAENOBUFS : 0; };
  refused("[UDP] RequestUdpRelay failed: sendto, error=10055, ");
  says = [](const SentDatagram& one) { return IsOpen(one) ? 40 : one.text.size(); };
  refused("[UDP] RequestUdpRelay failed: sendto(" + ControlAddress() +
          "), bytes(40)!=" + std::to_string(sizeof(ProtoRelayOpen)) + ", ");
  port::FailCall("WSPSocket", 2, WSAENOBUFS);  // the first is the game's own
  refused("RequestUdpRelay failed: resp ret is failed, ");
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 600ms);
  refused("RequestUdpRelay failed: resp not found, ");
}

SCENARIO_F(UdpAskingEdges, ASocketThatWasClosedMeanwhileIsLoggedAsAFailure) {
  Starts();
  for (const bool connects : {false, true}) {
    const SOCKET s = Udp();
    const std::string tail = Tail(s);
    world.Stall(GetRelayMgr().GetWorkerThreadId(), 300ms);
    GameThread([&] { connects ? ConnectTo(s, kServer, kPort) : Sends(s, "hello"); });
    GameThread([&] {
      Sleep(100);
      closesocket(s);
    });
    ASSERT_TRUE(RunToTheEnd());
    ExpectLine(std::string("[5][lsp][UDP] ") + (connects ? "HandleUdpConnect:" : "WSPSendTo: ") +
               "SetRelayAddr failed, " + tail);
  }
}

// --- datagrams in pieces ----------------------------------------------------------------------

// All pieces together are what was queued, and what is taken back.
SCENARIO_F(UdpAskingEdges, ADatagramInSeveralBuffersIsTakenBack) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 100ms);
  EXPECT_EQ(Sends(s, "waits"), 0);
  fails = [](const SentDatagram& one) { return one.by_relay ? 0 : WSAENOBUFS; };
  EXPECT_EQ(SendsInTwo(s, "abc", "defg"), WSAENOBUFS);
  fails = [](const SentDatagram&) { return 0; };
  EXPECT_EQ(Receives(s).text, "waits");
  EXPECT_EQ(TakeLoneEntry(s, RecordOf(s).send_queue), "none");
  EXPECT_EQ(SendsInTwo(s, "abc", "defg"), 0);
  EXPECT_EQ(Receives(s).text, "abcdefg");
  EXPECT_EQ(Heard("A"), (Texts{"first", "waits", "abcdefg"}));
}

SCENARIO_F(UdpAskingEdges, ADatagramReceivedInSeveralBuffersHasItsSource) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "abcX"), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  EXPECT_EQ(Received(s), "abcX") << "whose source nobody asked for, and so it stays queued";
  EXPECT_EQ(Sends(s, "abcY", kSecond), 0);
  ASSERT_TRUE(ReadableWithin(s, 1000));
  char bytes[4] = {};
  WSABUF pieces[2] = {{3, bytes}, {1, bytes + 3}};
  sockaddr_in from = {};
  INT size = sizeof from, error = 0;
  DWORD received = 0, flags = 0;
  EXPECT_EQ(WSPRecvFrom(s, pieces, 2, &received, &flags, Raw(from), &size, nullptr, nullptr,
                        nullptr, &error),
            0);
  EXPECT_EQ(std::string(bytes, 4), "abcY");
  EXPECT_STREQ(inet_ntoa(from.sin_addr), kSecond);
}

// --- a refusal --------------------------------------------------------------------------------

// It applies to every way of asking.
SCENARIO_F(UdpAskingEdges, AConnectedRefusedSocketSendsNoFurtherRequest) {
  Starts();
  const SOCKET s = Udp();
  port::FailCall("CreateEventA", 1, ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_EQ(Sends(s, "one"), 0);
  ASSERT_EQ(RecordOf(s).relay_state, kRelayRefused);
  sent.clear();
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_TRUE(GameSent().empty());
  EXPECT_EQ(RecordOf(s).relay_state, kRelayRefused);
  EXPECT_FALSE(RecordOf(s).udp_connect_mode);
  EXPECT_EQ(SendText(s, "two"), 3);
  RunFor(100ms);
  EXPECT_EQ(Heard("game"), (Texts{"one", "two"})) << "it is connected to its server";
}

// The socket that was refused is gone, and its handle is another's: that one may still ask.
SCENARIO_F(UdpAskingEdges, ANewSocketWithTheSameHandleIsNotRefusedForTheOldOne) {
  world.ReuseSocketHandles(true);
  Starts();
  for (const bool connects : {false, true}) {
    const SOCKET s = Udp();
    world.Stall(GetRelayMgr().GetWorkerThreadId(), 700ms);
    GameThread([&] { connects ? ConnectTo(s, kServer, kPort) : Sends(s, "hello"); });
    SOCKET other = INVALID_SOCKET;
    GameThread([&] {
      Sleep(100);
      closesocket(s);
      other = Udp();
    });
    ASSERT_TRUE(RunToTheEnd());
    ASSERT_EQ(other, s);
    EXPECT_TRUE(Logged(test::kNoRelayAnswer));
    EXPECT_EQ(RecordOf(other).relay_state, kRelayNotAsked) << connects;
    closesocket(other);
    RunFor(1s);
  }
}

// --- the policy's kind of socket --------------------------------------------------------------

// The ports that are kept out are those of streams.
SCENARIO_F(UdpAskingEdges, ExcludedPortsDoNotApplyToDatagrams) {
  Configures([](AccConfigRecord* config) {
    config->excluded_port_count = 1;
    config->excluded_ports[0] = kPort;
  });
  Starts();
  EXPECT_EQ(Talks(Udp(), "hello"), "hello from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), Texts{"hello"});
}

// --- whose thread it is -----------------------------------------------------------------------

LPWSPSENDTO spied_send_to = nullptr;
WSATHREADID open_thread = {};
int WSPAPI SeeThread(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD bytes, DWORD flags,
                     const struct sockaddr* to, int size, LPWSAOVERLAPPED overlapped,
                     LPWSAOVERLAPPED_COMPLETION_ROUTINE completion, LPWSATHREADID thread,
                     LPINT error) {
  if (count == 1 && buffers[0].len == sizeof(ProtoRelayOpen) && thread != nullptr)
    open_thread = *thread;
  return spied_send_to(s, buffers, count, bytes, flags, to, size, overlapped, completion, thread,
                       error);
}

// A layer below may use a socket of its own while it serves the worker, and that call comes through
// the library again. If it asked for a relay, the worker would wait for itself.
SCENARIO_F(UdpAskingEdges, ACallOnTheWorkersThreadGoesDirectAtOnce) {
  Starts();
  const SOCKET s = Udp(), layers = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  bool has_sent = false;
  fails = [&](const SentDatagram& one) {
    if (!one.by_relay || has_sent) return 0;
    has_sent = true;
    const auto begin = world.now();
    EXPECT_EQ(Sends(layers, "note"), 0);
    EXPECT_EQ(world.now(), begin);
    return 0;
  };
  EXPECT_EQ(Talks(s, "again"), "again from 198.51.100.10:27015");
  EXPECT_TRUE(has_sent);
  EXPECT_EQ(Heard("game"), Texts{"note"}) << AllHeard();
  EXPECT_EQ(RecordOf(layers).relay_state, kRelayNotAsked);
}

// A connect passes no thread identifier.
SCENARIO_F(UdpAskingEdges, AConnectUsesTheCallingThread) {
  Starts();
  spied_send_to = NextProvider().lpWSPSendTo;
  NextProvider().lpWSPSendTo = SeeThread;
  open_thread.Reserved = 7;
  EXPECT_EQ(ConnectTo(Udp(), kServer, kPort), 0);
  EXPECT_EQ(open_thread.ThreadHandle, GetCurrentThread());
  EXPECT_EQ(open_thread.Reserved, 0u);
}

}  // namespace
