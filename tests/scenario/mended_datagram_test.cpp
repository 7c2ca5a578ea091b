// Datagram sockets of a game whose client asks for mending: no datagram gets another one's address,
// and nothing is kept for one that was lost, or that the game reads without asking where it is
// from.
#include "tests/scenario/udp_spied_world.h"
//
#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "engine/relay_mgr.h"
#include "hooks/hook_entries.h"
#include "port/shared/faults.h"
#include "port/sim/sockets.h"
#include "udp/peer_ports.h"

namespace {

using namespace udp_test;       // NOLINT
using namespace moru_vyr::lsp;  // NOLINT
using Texts = std::vector<std::string>;

class MendedDatagram : public UdpSpiedWorld {
 protected:
  MendedDatagram() : UdpSpiedWorld(kMendAll) {}

  // "text at 198.51.100.10:27015", sorted.
  Texts HeardWhere() const {
    Texts all;
    for (const Datagram& one : heard) all.push_back(one.text + " at " + one.to);
    std::sort(all.begin(), all.end());
    return all;
  }
  static std::string On(const char* ip, int port = kPort) {
    return std::string(ip) + ":" + std::to_string(port);
  }
  // How many addresses have a port, by the log.
  int PortsMade() const {
    const std::string text = log_text();
    int count = 0;
    for (size_t at = 0; (at = text.find("PeerSockets::Make, ", at)) != std::string::npos; ++at)
      ++count;
    return count;
  }
};

SCENARIO_F(MendedDatagram, EachServerAnswersUnderItsOwnName) {
  Starts();
  const SOCKET s = Udp();
  for (int round = 0; round < 3; ++round) {
    for (const char* ip : {kServer, kDirect, kSecond}) {
      for (const int port : {kPort, kSecondPort}) {
        EXPECT_EQ(Talks(s, "hello", ip, port), "hello from " + On(ip, port));
      }
    }
  }
  EXPECT_EQ(PortsMade(), 6);
  EXPECT_EQ(RecordOf(s).send_queue, nullptr);
  closesocket(s);
  RunFor(100ms);
  EXPECT_TRUE(NodesAreFree());
}

// The queue would give the datagrams to B those of A that were lost, for ever.
SCENARIO_F(MendedDatagram, EqualDatagramsReachTheirOwnServersAfterALoss) {
  Starts();
  const SOCKET s = Udp();
  SetIntOption(s, SO_RCVBUF, 2'000);  // the relay's sockets follow
  EXPECT_EQ(Talks(s, "ping", kServer), "ping from " + On(kServer));
  EXPECT_EQ(Talks(s, "ping", kDirect), "ping from " + On(kDirect));
  heard.clear();
  // The worker stands still, and the loopback interface has room for some only.
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 500ms);
  for (int i = 0; i < 1'000; ++i) Sends(s, "ping", kServer);
  RunFor(3s);
  EXPECT_LT(heard.size(), 1'000u) << "nothing was lost";
  EXPECT_TRUE(std::all_of(heard.begin(), heard.end(),
                          [](const Datagram& one) { return one.to == On(kServer); }));
  while (!Receives(s, 100).from.empty()) continue;
  heard.clear();
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Talks(s, "ping", kDirect), "ping from " + On(kDirect));
  EXPECT_EQ(HeardWhere(), Texts(5, "ping at " + On(kDirect)));
}

// What finds no room towards the game waits until there is some, and all behind it.
SCENARIO_F(MendedDatagram, WhatFindsNoRoomTowardsTheGameWaits) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  int blocked = 0;
  fails = [&blocked](const SentDatagram& one) {
    const bool to_game = one.by_relay && one.to.rfind("127.", 0) == 0;
    return to_game && ++blocked == 1 ? WSAEWOULDBLOCK : 0;
  };
  for (const char* text : {"one", "two", "three"}) EXPECT_EQ(Sends(s, text), 0);
  for (const char* text : {"one", "two", "three"}) {
    const Datagram came = Receives(s, 500);
    EXPECT_EQ(came.text, text);
    EXPECT_EQ(came.from, On(kServer));
  }
  EXPECT_EQ(blocked, 4);
}

// A socket may be called writable and take nothing: the timer asks again.
SCENARIO_F(MendedDatagram, WhatFindsNoRoomTwiceIsTriedAgainByItself) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  for (const bool to_game : {false, true}) {
    SCOPED_TRACE(to_game);
    int blocked = 0;
    fails = [&blocked, to_game](const SentDatagram& one) {
      const bool meant = one.by_relay && (one.to.rfind("127.", 0) == 0) == to_game;
      return meant && ++blocked <= 20 ? WSAEWOULDBLOCK : 0;
    };
    const auto start = world.now();
    EXPECT_EQ(Sends(s, "second"), 0);
    EXPECT_EQ(Receives(s, 5000).text, "second");
    EXPECT_GE(world.now() - start, 500ms) << "the worker must not be kept busy";
    EXPECT_EQ(blocked, 21);
  }
}

// Room for datagrams without peers' ports, where both ways share a socket.
class MendedRoom : public UdpSpiedWorld {
 protected:
  MendedRoom() : UdpSpiedWorld(kMendStart) {}

  // The relay's sends to that address fail so often with that error.
  void Fails(int times, int error, const std::string& to) {
    fails = [left = times, error, to](const SentDatagram& one) mutable {
      return one.by_relay && one.to.rfind(to, 0) == 0 && left-- > 0 ? error : 0;
    };
  }
};

SCENARIO_F(MendedRoom, WhatFindsNoRoomTwiceIsTriedAgainByItself) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  for (const char* to : {kNodeA, "127."}) {
    SCOPED_TRACE(to);
    Fails(20, WSAEWOULDBLOCK, to);
    EXPECT_EQ(Sends(s, "second"), 0);
    EXPECT_EQ(Receives(s, 5000).text, "second");
  }
}

// What can never be sent holds up nothing behind it.
SCENARIO_F(MendedRoom, ADatagramThatCannotBeSentAfterAllIsLostAlone) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  heard.clear();
  int calls = 0;
  fails = [&calls](const SentDatagram& one) {
    if (!one.by_relay) return 0;
    return ++calls <= 2 ? WSAEWOULDBLOCK : calls == 3 ? WSAEHOSTUNREACH : 0;
  };
  EXPECT_EQ(Sends(s, "lost"), 0);
  EXPECT_EQ(Sends(s, "next"), 0);
  RunFor(500ms);
  EXPECT_EQ(Heard("A"), Texts{"next"}) << AllHeard();
}

// A session that closes waits for what it owes, and must not wait for ever.
SCENARIO_F(MendedRoom, ASessionThatClosesEndsOnceThereIsRoom) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from 198.51.100.10:27015");
  Fails(50, WSAEWOULDBLOCK, kNodeA);
  EXPECT_EQ(Sends(s, "last"), 0);
  RunFor(100ms);
  closesocket(s);
  RunFor(5s);
  EXPECT_EQ(Heard("A"), (Texts{"first", "last"}));
  EXPECT_TRUE(Logged("[UDP] session closed, token="));
  EXPECT_TRUE(NodesAreFree());
}

// The message that a socket has closed overtakes its datagrams on their way to the relay.
SCENARIO_F(MendedDatagram, WhatAGameSendsRightBeforeItClosesArrives) {
  Starts();
  for (const char* ip : {kServer, kDirect}) {
    const SOCKET s = Udp();
    EXPECT_EQ(Talks(s, "first", ip), "first from " + On(ip));
    heard.clear();
    EXPECT_EQ(Sends(s, "one", ip), 0);
    EXPECT_EQ(Sends(s, "two", ip), 0);
    closesocket(s);
    RunFor(500ms);
    EXPECT_EQ(HeardWhere(), (Texts{"one at " + On(ip), "two at " + On(ip)}));
  }
  EXPECT_TRUE(NodesAreFree());
}

// The other way round: the game does not read for a while, and its own buffer overflows.
SCENARIO_F(MendedDatagram, EqualAnswersKeepTheirSourcesAfterALoss) {
  Starts();
  const SOCKET s = Udp();
  SetIntOption(s, SO_RCVBUF, 2'000);
  server->answer = [](const std::string&) { return "pong"; };
  for (int i = 0; i < 1'000; ++i) {
    Sends(s, "ping", kServer);
    if (i % 100 == 0) RunFor(20ms);
  }
  RunFor(1s);
  size_t read = 0;
  for (Datagram one = Receives(s, 100); !one.from.empty(); one = Receives(s, 100), ++read)
    EXPECT_EQ(one.from, On(kServer));
  EXPECT_LT(read, 1'000u) << "nothing was lost";
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Talks(s, "ping", kSecond), "pong from " + On(kSecond));
}

// Without a place for the source, without even a look at it, with a look at the datagram before,
// and with too small a buffer: what is read next has its own source.
SCENARIO_F(MendedDatagram, HoweverADatagramIsReadTheNextOneKeepsItsSource) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(Sends(s, "same", i % 2 == 0 ? kDirect : kServer), 0);
    ASSERT_TRUE(ReadableWithin(s, 1000));
    char bytes[8];
    switch (i % 4) {
      case 0:
        EXPECT_EQ(recv(s, bytes, sizeof bytes, 0), 4);
        break;
      case 1:
        EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, 0, nullptr, nullptr), 4);
        break;
      case 2: {
        sockaddr_in from = {};
        int size = sizeof from;
        EXPECT_EQ(recvfrom(s, bytes, sizeof bytes, MSG_PEEK, Raw(from), &size), 4);
        EXPECT_EQ(from.sin_addr.s_addr, At(kDirect, kPort).sin_addr.s_addr);
        EXPECT_EQ(Receives(s).from, On(kDirect));
        break;
      }
      default: {
        sockaddr_in from = {};
        int size = sizeof from;
        EXPECT_EQ(ErrorOf(recvfrom(s, bytes, 2, 0, Raw(from), &size)), WSAEMSGSIZE);
        EXPECT_EQ(from.sin_addr.s_addr, At(kServer, kPort).sin_addr.s_addr);
      }
    }
  }
  EXPECT_EQ(Talks(s, "same", kSecond), "same from " + On(kSecond));
}

SCENARIO_F(MendedDatagram, AnEmptyDatagramComesToo) {
  Starts();
  server->answer = [](const std::string&) { return kNoBytes; };
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "x", kServer), " from " + On(kServer));
}

// A thread that waits for the first datagram since before there was a relay.
SCENARIO_F(MendedDatagram, AThreadThatHasWaitedLongerThanTheRelayLearnsTheSource) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(BindTo(s, "0.0.0.0", 5000), 0);
  Datagram got;
  GameThread([&] {
    std::string bytes(100, '\0');
    sockaddr_in from = {};
    int size = sizeof from;
    recvfrom(s, bytes.data(), 100, 0, Raw(from), &size);
    got.from = inet_ntoa(from.sin_addr);
  });
  RunFor(100ms);
  EXPECT_EQ(Sends(s, "hello"), 0);
  ASSERT_TRUE(RunToTheEnd());
  EXPECT_EQ(got.from, kServer);
}

// Two threads whose first datagrams go to different servers at the same moment.
SCENARIO_F_SEEDS(MendedDatagram, ThreadsThatAskAtOnceGetEachItsOwnServer, 20) {
  Starts();
  const SOCKET s = Udp();
  for (const char* ip : {kServer, kDirect, kSecond, kForced}) {
    GameThread([=, this] {
      for (int i = 0; i < 3; ++i) EXPECT_EQ(Sends(s, ip, ip), 0);
    });
  }
  ASSERT_TRUE(RunToTheEnd());
  RunFor(2s);
  EXPECT_EQ(heard.size(), 12u) << AllHeard();
  for (const Datagram& one : heard) EXPECT_EQ(one.to, one.text + ":27015");
}

// A game that looks for servers: those for which there is no port are reached directly, each in one
// way only.
SCENARIO_F(MendedDatagram, MoreServersThanPortsAreReachedDirectly) {
  Starts();
  const SOCKET s = Udp();
  for (int round = 0; round < 2; ++round) {
    for (int port = 1; port <= 40; ++port) EXPECT_EQ(Sends(s, "x", kServer, port), 0);
    for (const char* ip : {kServer, kDirect}) Sends(s, "found", ip);
    RunFor(500ms);
  }
  EXPECT_EQ(PortsMade(), static_cast<int>(PeerPorts::kPlaces));
  EXPECT_EQ(Heard("game").size(), 4u) << AllHeard();
  EXPECT_EQ(Heard().size(), 4u);
}

// The relay can poll 128 sockets. Half of them may stand for addresses.
SCENARIO_F(MendedDatagram, ManySocketsLeaveRoomForOthers) {
  Starts();
  std::vector<SOCKET> sockets;
  for (int i = 0; i < 5; ++i) {
    sockets.push_back(Udp());
    for (int port = 1; port <= 20; ++port) Sends(sockets.back(), "x", kServer, port);
  }
  EXPECT_EQ(PortsMade(), 64);
  Receives(sockets.back(), 100);  // that nobody is at some of these ports
  EXPECT_EQ(Talks(sockets.back(), "direct"), "direct from " + On(kServer));
  EXPECT_EQ(Heard("game"), Texts{"direct"});
  for (const SOCKET s : sockets) closesocket(s);
  RunFor(1s);
  EXPECT_EQ(Talks(Udp(), "relayed"), "relayed from " + On(kServer));
  EXPECT_EQ(Heard("A").back(), "relayed");
}

// A question that is not answered costs its own server the relay, and no other.
SCENARIO_F(MendedDatagram, AnAddressForWhichThereIsNoAnswerIsReachedDirectlyFromThenOn) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  world.Stall(GetRelayMgr().GetWorkerThreadId(), 700ms);
  EXPECT_EQ(Talks(s, "second", kSecond), "second from " + On(kSecond));
  RunFor(1s);
  EXPECT_EQ(Talks(s, "third", kSecond), "third from " + On(kSecond));
  EXPECT_EQ(Heard("game"), (Texts{"second", "third"})) << AllHeard();
  EXPECT_EQ(Talks(s, "fourth"), "fourth from " + On(kServer));
  EXPECT_EQ(Heard("A"), (Texts{"first", "fourth"})) << AllHeard();
}

// A thread of the game may give the address up in the very moment in which its port is made.
LPWSPBIND next_bind = nullptr;
std::shared_ptr<PeerPorts> ports_at_bind;

SCENARIO_F(MendedDatagram, AnAddressThatWasGivenUpMeanwhileStaysDirectAndLeavesNoSocket) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  ports_at_bind = GetRelayMgr().UsePeerPorts(RecordOf(s).token);
  ASSERT_NE(ports_at_bind, nullptr);
  const size_t sockets = world.sockets().CountOf(world.home());
  next_bind = NextProvider().lpWSPBind;
  NextProvider().lpWSPBind = [](SOCKET one, const struct sockaddr* name, int size, LPINT error) {
    if (ports_at_bind != nullptr) ports_at_bind->Add(At(kSecond, kPort), 0);
    ports_at_bind.reset();
    return next_bind(one, name, size, error);
  };
  EXPECT_EQ(Talks(s, "second", kSecond), "second from " + On(kSecond));
  EXPECT_EQ(ports_at_bind, nullptr) << "it was the port's";
  EXPECT_EQ(Heard("game"), Texts{"second"});
  EXPECT_EQ(world.sockets().CountOf(world.home()), sockets);
  EXPECT_EQ(Talks(s, "third"), "third from " + On(kServer));
  NextProvider().lpWSPBind = next_bind;
}

// A socket that disappears with nobody told: its session ends by itself.
SCENARIO_F(MendedDatagram, ASessionWhoseSocketIsGoneEnds) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  const u32 token = RecordOf(s).token;
  GetSocketMap().Remove(s);
  EXPECT_NE(GetRelayMgr().UsePeerPorts(token), nullptr);
  RunFor(6s);
  EXPECT_EQ(GetRelayMgr().UsePeerPorts(token), nullptr);
  EXPECT_TRUE(NodesAreFree());
}

// Any program of the machine can send to the port that stands for a server.
SCENARIO_F(MendedDatagram, OnlyTheGamesOwnSocketReachesAServerThroughItsPort) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "first"), "first from " + On(kServer));
  const auto ports = GetRelayMgr().UsePeerPorts(RecordOf(s).token);
  ASSERT_NE(ports, nullptr);
  u16 port = 0;
  ASSERT_TRUE(ports->FindPort(At(kServer, kPort), &port));
  SendTextTo(Udp(), "forged", "127.0.0.1", ntohs(port));
  RunFor(100ms);
  EXPECT_EQ(Talks(s, "second"), "second from " + On(kServer));
  EXPECT_EQ(Heard(), (Texts{"first", "second"}));
}

// --- connected sockets ---

class MendedConnected : public MendedDatagram {
 protected:
  static std::string TextOf(int result, const sockaddr_in& name) {
    if (result != 0) return "error " + std::to_string(WSAGetLastError());
    return std::string(inet_ntoa(name.sin_addr)) + ":" + std::to_string(ntohs(name.sin_port));
  }
  static std::string PeerOf(SOCKET s, int size = sizeof(sockaddr_in)) {
    sockaddr_in name = {};
    const int result = getpeername(s, Raw(name), &size);
    return TextOf(result, name);
  }
  static std::string OwnOf(SOCKET s) {
    sockaddr_in name = {};
    int size = sizeof name;
    const int result = getsockname(s, Raw(name), &size);
    return TextOf(result, name);
  }
  // By send and recv.
  static std::string Asks(SOCKET s, const std::string& text) {
    if (const int error = ErrorOf(SendText(s, text))) return "error " + std::to_string(error);
    return ReadableWithin(s, 1000) ? Received(s) : "nothing";
  }
};

SCENARIO_F(MendedConnected, AConnectedSocketTalksToItsPeerAndNamesIt) {
  Starts();
  for (const char* ip : {kServer, kDirect, kUnlisted}) {
    SCOPED_TRACE(ip);
    const SOCKET s = Udp();
    EXPECT_EQ(PeerOf(s), "error 10057");
    EXPECT_EQ(BindTo(s, "0.0.0.0", 6000), 0);
    EXPECT_EQ(ConnectTo(s, ip, kPort), 0);
    EXPECT_EQ(PeerOf(s), On(ip));
    EXPECT_EQ(PeerOf(s, 8), "error 10014");
    EXPECT_EQ(OwnOf(s), On(kGame, 6000));
    EXPECT_EQ(Readiness(s), "w");
    for (int i = 0; i < 5; ++i) EXPECT_EQ(Asks(s, "hello"), "hello");
    SendText(s, "named");
    EXPECT_EQ(Receives(s).from, On(ip)) << "recvfrom, too";
    EXPECT_EQ(sendto(s, "none", 4, 0, nullptr, 0), 4) << "where no destination is named";
    EXPECT_EQ(Receives(s).text, "none");
    closesocket(s);
    RunFor(100ms);
  }
  EXPECT_EQ(Heard("A").size(), 7u) << AllHeard();
  EXPECT_TRUE(NodesAreFree());
}

SCENARIO_F(MendedConnected, OnlyThePeerIsHeard) {
  Starts();
  const SOCKET s = Udp();
  EXPECT_EQ(Talks(s, "to another", kSecond), "to another from " + On(kSecond));
  EXPECT_EQ(Sends(s, "late", kSecond), 0);
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(Asks(s, "to the peer"), "to the peer");
  RunFor(1s);
  EXPECT_EQ(Receives(s, 100).from, "") << "late";
  EXPECT_EQ(Heard().size(), 3u) << AllHeard();
}

SCENARIO_F(MendedConnected, ASocketMayBeConnectedAgainAndToNobody) {
  Starts();
  const SOCKET s = Udp();
  for (const char* ip : {kServer, kSecond, kUnlisted, kDirect, kUnlisted, kServer}) {
    SCOPED_TRACE(ip);
    EXPECT_EQ(ConnectTo(s, ip, kPort), 0);
    EXPECT_EQ(PeerOf(s), On(ip));
    EXPECT_EQ(OwnOf(s).substr(0, 10), std::string(kGame) + ":");
    EXPECT_EQ(Asks(s, ip), ip);
    EXPECT_EQ(heard.back().to, On(ip));
  }
  EXPECT_EQ(Heard("game").size(), 3u) << "the unlisted one, and the one without a node";
  const sockaddr_in nobody = {};
  EXPECT_EQ(connect(s, Raw(nobody), sizeof nobody), 0);
  EXPECT_EQ(PeerOf(s), "error 10057");
  EXPECT_EQ(ErrorOf(SendText(s, "x")), WSAENOTCONN);
  EXPECT_EQ(Talks(s, "free", kSecond), "free from " + On(kSecond));
  EXPECT_EQ(Talks(s, "free", kUnlisted), "free from " + On(kUnlisted));
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(PeerOf(s), On(kServer));
  EXPECT_EQ(connect(s, Raw(At("0.0.0.0", 0)), sizeof nobody), 0) << "said in the other way";
  EXPECT_EQ(PeerOf(s), "error 10057");
}

SCENARIO_F(MendedConnected, WhereTheRelayIsNotThereASocketIsConnectedDirectly) {
  Starts();
  const SOCKET s = Udp();
  port::FailCall("WSPSocket", 1, WSAENOBUFS);
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(PeerOf(s), On(kServer));
  EXPECT_EQ(Asks(s, "plain"), "plain");
  EXPECT_EQ(Heard("game"), Texts{"plain"});
}

SCENARIO_F(MendedConnected, AConnectThatFailsNamesNobody) {
  Starts();
  const SOCKET s = Udp();
  port::FailCall("WSPConnect", 1, WSAENETUNREACH);
  EXPECT_EQ(ConnectTo(s, kServer, kPort), WSAENETUNREACH);
  EXPECT_EQ(PeerOf(s), "error 10057");
  EXPECT_EQ(ConnectTo(s, kServer, kPort), 0);
  EXPECT_EQ(Asks(s, "hello"), "hello");
}

// Everything at once: identical texts, many servers, stalls and losses.
SCENARIO_F_SEEDS(MendedDatagram, WhateverIsLostNothingIsMistaken, 5) {
  Starts(9);
  server->answer = [](const std::string& text) { return text; };
  const SOCKET s = Udp();
  const std::vector<const char*> servers = {kServer, kDirect, kSecond, kForced};
  for (int round = 0; round < 5; ++round) {
    if (round % 5 == 4) world.Stall(GetRelayMgr().GetWorkerThreadId(), 100ms);
    for (int i = 0; i < 60; ++i) {
      const char* const ip = servers[static_cast<size_t>(i) % servers.size()];
      Sends(s, ip, ip);
    }
    for (Datagram one = Receives(s, 20); !one.from.empty(); one = Receives(s, 20))
      EXPECT_EQ(one.from, one.text + ":27015");
  }
  for (const Datagram& one : heard) EXPECT_EQ(one.to, one.text + ":27015");
  EXPECT_GT(heard.size(), 100u);
}

}  // namespace
