// A flow through all its states, with something unusual in each: unknown senders, full buffers,
// errors, lengths at the limits, nodes that misbehave. At stake: a datagram is lost only where the
// rules say so, and the flow goes on.
#include "tests/scenario/udp_spied_world.h"
#include "tests/support/log_texts.h"
//
#include "engine/relay_mgr.h"
#include "port/shared/faults.h"
#include "udp/relay_messages.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using node::Behaviour;
using Texts = std::vector<std::string>;

constexpr size_t kHeaderSize = 20;

class UdpStates : public UdpSpiedWorld {
 protected:
  void IsQuiet() {
    server->answer = [](const std::string&) { return std::string(); };
  }
  static u16 RelayPort(SOCKET s) { return ntohs(RecordOf(s).relay_addr.sin_port); }

  // One datagram to the flow's own port, from a machine to which nothing was sent.
  void AStrangerSends(const std::string& text, SOCKET s) {
    const u16 port = RelayPort(s);
    world.SpawnOn(stranger, "stranger", [text, port] {
      const SOCKET own = Udp();
      EXPECT_EQ(BindTo(own, "198.51.100.66", 6666), 0);
      EXPECT_EQ(ErrorOf(SendTextTo(own, text, kGame, port)), 0);
    });
    RunFor(100ms);
  }

  // Has the relay's sends fail, all or those that the test picks.
  void RelaySendsFailWith(int error) {
    fails = [error](const SentDatagram& one) { return one.by_relay ? error : 0; };
  }
  // How often the relay has tried to send a wrapped datagram of the game's, other than a probe.
  size_t DataTries() const {
    const Texts texts = RelaySent();
    return static_cast<size_t>(std::count_if(texts.begin(), texts.end(), [](const auto& text) {
      return text.size() >= kHeaderSize && text[1] == kHeaderSize && text[2] == 0;
    }));
  }
  void NothingFails() {
    fails = [](const SentDatagram&) { return 0; };
  }

  sim::Host& stranger = world.AddHost("stranger", {"198.51.100.66"});
};

// --- unknown senders
// --------------------------------------------------------------------------------

SCENARIO_F(UdpStates, BeforeTheFirstDatagramNothingIsDelivered) {
  Starts();
  const SOCKET s = Udp();
  fails = [](const SentDatagram& one) {
    return one.text.size() == sizeof(ProtoRelayOpen) ? 0 : WSAENOBUFS;
  };
  EXPECT_EQ(Sends(s, "never sent"), WSAENOBUFS);
  NothingFails();
  ASSERT_EQ(RecordOf(s).relay_state, kRelayRunning);
  AStrangerSends("from nowhere", s);
  EXPECT_EQ(Receives(s, 0).from, "");
  EXPECT_TRUE(RelaySent().empty()) << "and nothing is sent";
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
}

SCENARIO_F(UdpStates, DuringANegotiationOnlyItsNodeIsAccepted) {
  a.AnswersAfter(1000);
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "hello"), 0);
  AStrangerSends("from nowhere", s);
  EXPECT_FALSE(Logged(test::kNegotiationFailed)) << "no answer that could be a bad one";
  EXPECT_EQ(Receives(s, 2000).from, "198.51.100.10:27015");
}

SCENARIO_F(UdpStates, ThroughANodeOnlyItsDataPortIsAccepted) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  AStrangerSends("from nowhere", s);
  EXPECT_EQ(Receives(s, 0).from, "");
  EXPECT_EQ(Talks(s, "again"), "again from 198.51.100.10:27015");
}

// Without a node: datagrams from anyone who knows the port arrive, with their own address.
SCENARIO_F(UdpStates, AnUnknownSenderOfADirectFlowKeepsItsAddress) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello", kDirect), "hello from 198.51.100.11:27015");
  AStrangerSends("good day", s);
  const Datagram came = Receives(s, 0);
  EXPECT_EQ(came.text, "good day");
  EXPECT_EQ(came.from, "198.51.100.66:6666");
}

// --- a socket that stays blocking ---------------------------------------------------------------

// The worker would wait in it, and with it every other flow and connection.
SCENARIO_F(UdpStates, ASocketThatStaysBlockingHoldsUpNoOtherFlow) {
  Starts();
  const SOCKET other = Udp();
  EXPECT_EQ(Talks(other, "before"), "before from 198.51.100.10:27015");
  const SOCKET s = Udp();
  port::FailCall("WSPIoctl", 1, WSAENOBUFS);
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::Init ioctlsocket , error=10055"));
  EXPECT_EQ(Talks(other, "after"), "after from 198.51.100.10:27015");
  EXPECT_EQ(Talks(s, "again"), "again from 198.51.100.10:27015");
  EXPECT_EQ(closesocket(s), 0);
  EXPECT_EQ(Talks(other, "at the end"), "at the end from 198.51.100.10:27015");
}

// --- lengths ----------------------------------------------------------------------------------

SCENARIO_F(UdpStates, AnEmptyDatagramWaitsLikeAnyOther) {
  IsQuiet();
  a.AnswersAfter(300);
  Starts(0);
  const SOCKET s = Udp();
  for (const char* text : {"one", "", "three"}) EXPECT_EQ(Sends(s, text), 0);
  RunFor(1s);
  EXPECT_EQ(Heard("A"), (Texts{"one", "", "three"})) << AllHeard();
  RelaySendsFailWith(WSAEWOULDBLOCK);
  EXPECT_EQ(Sends(s, ""), 0);
  RunFor(50ms);
  NothingFails();
  EXPECT_EQ(Sends(s, "last"), 0);
  RunFor(500ms);
  EXPECT_EQ(Heard("A"), (Texts{"one", "", "three", "last"})) << "nothing asks for room again";
}

SCENARIO_F(UdpStates, AnEmptyDatagramAlsoWaitsForTheDirectFlow) {
  IsQuiet();
  a.AnswersWith(9);
  b.AnswersWith(9);
  Starts();
  const SOCKET s = Udp();
  for (const char* text : {"one", "", "three"}) EXPECT_EQ(Sends(s, text), 0);
  RunFor(1s);
  EXPECT_EQ(Heard("game"), (Texts{"one", "", "three"})) << AllHeard();
}

// The game's next receive must not be given the wrong source by what could not be received.
SCENARIO_F(UdpStates, DatagramsThatAreTooLongForTheRelayAreLostAlone) {
  IsQuiet();
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  RunFor(500ms);
  Texts expected = {"first"};
  for (const size_t size : {2049u, 4096u, 65507u}) {
    EXPECT_EQ(Sends(s, Pattern(size)), 0);
    EXPECT_EQ(Sends(s, "behind " + std::to_string(size)), 0);
    expected.push_back("behind " + std::to_string(size));
    RunFor(100ms);
  }
  EXPECT_EQ(Difference(expected, Heard("A")), "") << AllHeard();
  EXPECT_TRUE(Logged("recvfrom failed, error=10040,socket="));
  EXPECT_EQ(Sends(s, Pattern(65508)), WSAEMSGSIZE) << "as without a relay";
}

SCENARIO_F(UdpStates, AnswersComeBackUpToWhatANodeCanWrap) {
  server->answer = [](const std::string& text) {
    const size_t size = std::strtoul(text.c_str(), nullptr, 10);
    return size != 0 ? Pattern(size) : kNoBytes;
  };
  Starts();
  const SOCKET s = Udp();
  for (const size_t size : {1u, 2027u, 2028u}) {
    const std::string answer = Talks(s, std::to_string(size));
    EXPECT_EQ(answer, Pattern(size) + " from 198.51.100.10:27015") << size;
  }
  const SOCKET direct = Udp();
  for (const size_t size : {1u, 2047u, 2048u}) {
    const std::string answer = Talks(direct, std::to_string(size), kDirect);
    EXPECT_EQ(answer, Pattern(size) + " from 198.51.100.11:27015") << size;
  }
  for (const SOCKET one : {s, direct}) {
    const char* const ip = one == s ? kServer : kDirect;
    EXPECT_EQ(Talks(one, "2049", ip), "nothing") << "longer than the relay's buffer";
    EXPECT_EQ(Talks(one, "0", ip), "nothing") << "kept: no source can be told for no bytes";
    EXPECT_EQ(Talks(one, "5", ip), Pattern(5) + " from " + ip + ":27015");
  }
}

// --- full buffers and errors ------------------------------------------------------------------

SCENARIO_F(UdpStates, WhatIsBlockedLeavesInOrderAndAsksForRoomOnlyOnce) {
  IsQuiet();
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  RunFor(500ms);
  RelaySendsFailWith(WSAEWOULDBLOCK);
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(Sends(s, text), 0);
  RunFor(2s);
  EXPECT_EQ(Heard("A"), Texts{"first"});
  const size_t tries = DataTries();
  RunFor(10s);
  EXPECT_EQ(DataTries(), tries) << "a full buffer is not hammered at";
  // The next blocked one asks again; then one of the four finds room, and no more.
  int room = 0;
  fails = [&room](const SentDatagram& one) {
    return !one.by_relay                                           ? 0
           : one.text.substr(kHeaderSize) == "four" || room-- <= 0 ? WSAEWOULDBLOCK
                                                                   : 0;
  };
  room = 1;
  EXPECT_EQ(Sends(s, "four"), 0);
  RunFor(1s);
  EXPECT_EQ(Heard("A"), (Texts{"first", "one"}));
  EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::" + test::Flushed(4, 3)));
  // A datagram that finds room at once overtakes those that wait.
  NothingFails();
  EXPECT_EQ(Sends(s, "five"), 0);
  RunFor(1s);
  EXPECT_EQ(Heard("A"), (Texts{"first", "one", "five"}));
  bool blocked_once = false;
  fails = [&blocked_once](const SentDatagram& one) {
    if (!one.by_relay || blocked_once) return 0;
    blocked_once = true;
    return WSAEWOULDBLOCK;
  };
  EXPECT_EQ(Sends(s, "six"), 0);
  RunFor(1s);
  EXPECT_EQ(Heard("A"), (Texts{"first", "one", "five", "two", "three", "four", "six"}));
  EXPECT_TRUE(Logged(test::Flushed(4, 0)));
}

SCENARIO_F(UdpStates, AnErrorWhileFlushingKeepsTheDatagramInFront) {
  IsQuiet();
  Starts(0);
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  RunFor(500ms);
  int calls = 0;
  fails = [&calls](const SentDatagram& one) {
    if (!one.by_relay) return 0;
    return ++calls == 1 ? WSAEWOULDBLOCK : calls == 2 ? WSAENETUNREACH : 0;
  };
  EXPECT_EQ(Sends(s, "blocked"), 0);
  RunFor(500ms);
  EXPECT_EQ(Heard("A"), Texts{"first"});
  EXPECT_TRUE(Logged(test::Flushed(1, 1)));
  calls = 0;
  fails = [&calls](const SentDatagram& one) {
    return one.by_relay && ++calls == 1 ? WSAEWOULDBLOCK : 0;
  };
  EXPECT_EQ(Sends(s, "next"), 0);
  RunFor(500ms);
  EXPECT_EQ(Heard("A"), (Texts{"first", "blocked", "next"}));
}

// Any other error than a full buffer loses that datagram, and nothing else.
SCENARIO_F(UdpStates, ASendErrorLosesOneDatagram) {
  IsQuiet();
  Starts();
  for (const char* ip : {kServer, kDirect}) {
    heard.clear();
    const SOCKET s = Udp();
    EXPECT_EQ(Sends(s, "first", ip), 0);
    RunFor(500ms);
    for (const int error : {WSAENOBUFS, WSAENETUNREACH, WSAEHOSTUNREACH, WSAECONNRESET}) {
      RelaySendsFailWith(error);
      EXPECT_EQ(Sends(s, "lost", ip), 0) << "the game cannot be told";
      RunFor(50ms);
      NothingFails();
      EXPECT_EQ(Sends(s, "behind " + std::to_string(error), ip), 0);
      RunFor(50ms);
      EXPECT_TRUE(Logged("[UDP] UdpRemoteSession::SendTo, error=" + std::to_string(error)));
    }
    EXPECT_EQ(Difference({"first", "behind 10055", "behind 10051", "behind 10065", "behind 10054"},
                         Heard()),
              "")
        << AllHeard();
  }
}

// The relay's own way to the game can be full as well; both ways share the flush.
SCENARIO_F(UdpStates, AnAnswerForWhichTheGameHasNoRoomWaits) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  bool blocked_once = false;
  fails = [&blocked_once](const SentDatagram& one) {
    if (!one.by_relay || blocked_once || one.to.rfind("127.", 0) != 0) return 0;
    blocked_once = true;
    return WSAEWOULDBLOCK;
  };
  EXPECT_EQ(Talks(s, "second"), "second from 198.51.100.10:27015");
  EXPECT_TRUE(blocked_once);
}

SCENARIO_F(UdpStates, AnUnreachablePortEndsNothing) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello", kDirect), "hello from 198.51.100.11:27015");
  EXPECT_EQ(Sends(s, "knock", kDirect, 9), 0);
  RunFor(100ms);
  EXPECT_TRUE(Logged("UdpRemoteSession::ReadPackage recvfrom failed, error=10054,socket="));
  EXPECT_EQ(Talks(s, "again", kDirect), "again from 198.51.100.11:27015");
}

SCENARIO_F(UdpStates, AfterAReceiveErrorTheRestIsReadTheNextTime) {
  IsQuiet();
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "first"), 0);
  RunFor(500ms);
  port::FailCall("WSPRecvFrom", 1, WSAENOBUFS);
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(Sends(s, text), 0);
  RunFor(500ms);
  EXPECT_EQ(Difference({"first", "one", "two", "three"}, Heard("A")), "") << AllHeard();
}

// A destination that cannot have a socket loses its datagrams until it can.
SCENARIO_F(UdpStates, ASecondDestinationTriesAgainForItsSocket) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  port::FailCall("WSPSocket", 1, WSAENOBUFS);
  EXPECT_EQ(Talks(s, "lost", kSecond), "nothing");
  EXPECT_EQ(Talks(s, "found", kSecond), "found from 198.51.100.13:27015");
  EXPECT_EQ(Talks(s, "meanwhile"), "meanwhile from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), (Texts{"first", "found", "meanwhile"}));
}

// --- the negotiation --------------------------------------------------------------------------

// One other node is tried, however many there are.
SCENARIO_F(UdpStates, AThirdNodeIsNotTried) {
  auto image = std::make_unique<RouteTableImage>();
  for (u32 idc = 1; idc <= 3; ++idc) {
    ProxyRecord& proxy = test::AddProxy(*image, idc, idc == 1 ? kNodeA : kNodeB);
    proxy.surport_isps = 1;
  }
  RouteEntry& entry = test::AddRoute(image->route_sets[0], 11, test::Ref(1, DECISION_ACCE, 1));
  for (u32 i = 0; i < 3; ++i) entry.top_refs[i] = test::Ref(i + 1, DECISION_ACCE, 1);
  routes.Publish(*image);
  a.AnswersWith(9);
  b.AnswersWith(8);
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015") << log_text();
  EXPECT_EQ(Heard("game"), Texts{"hello"});
  EXPECT_EQ(a.Count("request") + b.Count("request"), 2u);
  EXPECT_TRUE(Logged(test::kDirectBegins));
}

// A late answer comes during another negotiation, and is ignored.
SCENARIO_F(UdpStates, AnAnswerAfterTheLimitIsIgnored) {
  a.AnswersAfter(5500);
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "hello"), 0);
  RunFor(10s);
  EXPECT_EQ(a.Count("answered"), 1u);
  EXPECT_EQ(Heard(), Texts{"hello"});
  EXPECT_EQ(Heard("B"), Texts{"hello"});
}

SCENARIO_F(UdpStates, ADuplicateAnswerOfANodeIsIgnored) {
  a.behaviour().answers = 2;
  Starts();
  const SOCKET s = Udp();
  for (const char* text : {"one", "two"})
    EXPECT_EQ(Talks(s, text), std::string(text) + " from 198.51.100.10:27015");
  EXPECT_EQ(Receives(s, 500).from, "");
  EXPECT_EQ(Difference({"one", "two"}, Heard("A")), "");
}

// Kept: on the direct way datagrams of every sender arrive, even of a node.
SCENARIO_F(UdpStates, ALateAnswerOfANodeReachesTheGameOfADirectFlow) {
  a.AnswersAfter(11'000);
  b.StopsAnswering();
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Sends(s, "hello"), 0);
  EXPECT_EQ(Receives(s, 12'000).from, "198.51.100.10:27015");
  const Datagram late = Receives(s, 2000);
  EXPECT_EQ(late.from, "198.51.100.20:7001");
  EXPECT_EQ(late.text.size(), 41u);
}

// A refusal that comes twice must not count against the second node.
SCENARIO_F(UdpStates, ANodeThatRefusesTwiceIsReplacedOnce) {
  a.behaviour().answers = 2;
  a.AnswersWith(9);
  b.AnswersAfter(200);
  Starts();
  EXPECT_EQ(Talks(Udp(), "hello"), "hello from 198.51.100.10:27015");
  EXPECT_EQ(Heard("B"), Texts{"hello"});
}

SCENARIO_F(UdpStates, ARequestThatCannotBeSentTimesOut) {
  Starts();
  const SOCKET s = Udp();
  int left = 1;
  fails = [&left](const SentDatagram& one) {
    return one.by_relay && left-- > 0 ? WSAENETUNREACH : 0;
  };
  EXPECT_EQ(Sends(s, "hello"), 0);
  RunFor(4900ms);
  EXPECT_EQ(a.Count("request") + b.Count("request"), 0u);
  RunFor(1s);
  EXPECT_EQ(Heard("B"), Texts{"hello"});
}

SCENARIO_F(UdpStates, ABlockedRequestIsSentWhenThereIsRoom) {
  Starts();
  const SOCKET s = Udp();
  int left = 1;
  fails = [&left](const SentDatagram& one) {
    return one.by_relay && left-- > 0 ? WSAEWOULDBLOCK : 0;
  };
  EXPECT_EQ(Talks(s, "hello"), "hello from 198.51.100.10:27015");
  EXPECT_EQ(Heard("A"), Texts{"hello"});
}

// --- nodes that corrupt data ------------------------------------------------------------------

struct BadCarrier {
  const char* name;
  std::function<void(Behaviour*)> make;
  bool comes;  // the answer comes all the same
};

SCENARIO_F(UdpStates, CorruptDatagramsOfANodeDoNotReachTheGame) {
  const BadCarrier carriers[] = {
      {"a longer header", [](Behaviour* it) { it->head_len = 60; }, true},
      {"another version", [](Behaviour* it) { it->header = Behaviour::kVersion; }, true},
      {"another flow's token", [](Behaviour* it) { it->data_token = 4711; }, true},
      {"another port", [](Behaviour* it) { it->data_from = Behaviour::kOther; }, false},
      {"a header too short", [](Behaviour* it) { it->header = Behaviour::kShortHeader; }, false},
      {"a header past the end", [](Behaviour* it) { it->header = Behaviour::kPastEnd; }, false},
      {"a datagram cut short", [](Behaviour* it) { it->header = Behaviour::kCut; }, false},
      {"an empty datagram", [](Behaviour* it) { it->header = Behaviour::kEmpty; }, false},
  };
  Starts();
  for (const BadCarrier& carrier : carriers) {
    SCOPED_TRACE(carrier.name);
    const SOCKET s = Udp();
    EXPECT_EQ(Talks(s, "well"), "well from 198.51.100.10:27015");
    Behaviour bad;
    carrier.make(&bad);
    a.Behaves(bad);
    RunFor(50ms);
    const std::string came = Talks(s, "badly");
    EXPECT_EQ(came, carrier.comes ? "badly from 198.51.100.10:27015" : "nothing");
    a.Behaves();
    RunFor(50ms);
    EXPECT_EQ(Talks(s, "well again"), "well again from 198.51.100.10:27015");
    closesocket(s);
  }
}

// --- the game and its clock -------------------------------------------------------------------

SCENARIO_F(UdpStates, AGameThatDoesNotReadAffectsOnlyItself) {
  Starts();
  const SOCKET deaf = Udp();
  const SOCKET other = Udp();
  EXPECT_EQ(Talks(other, "first"), "first from 198.51.100.10:27015");
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(Sends(deaf, Pattern(1000)), 0);
    if (i % 20 == 0) RunFor(20ms);
  }
  RunFor(1s);
  EXPECT_EQ(Talks(other, "second"), "second from 198.51.100.10:27015");
  // A datagram that fitted into its buffer still has its true source.
  int read = 0;
  for (Datagram came = Receives(deaf, 0); !came.from.empty(); came = Receives(deaf, 0), ++read)
    EXPECT_EQ(came.from, "198.51.100.10:27015");
  EXPECT_GT(read, 20);
  EXPECT_LT(read, 300);
}

sim::Options AboutToWrap() {
  sim::Options options;
  options.tick_start = 0u - 3000;
  return options;
}

SCENARIO_WITH_(UdpStates, AFlowContinuesOverTheWrapOfTheTickCount, UdpStates, 4, AboutToWrap()) {
  Starts();
  const SOCKET s = Udp();
  for (int i = 0; i < 60; ++i) {
    const std::string text = "tick " + std::to_string(i);
    EXPECT_EQ(Talks(s, text), text + " from 198.51.100.10:27015");
    RunFor(100ms);
  }
  EXPECT_EQ(Talks(Udp(), "a new flow"), "a new flow from 198.51.100.10:27015");
  closesocket(s);
  RunFor(100ms);
  EXPECT_TRUE(Logged(test::kUdpSessionClosed));
}

}  // namespace
