// TCP on the simulated network: what a program on Windows may rely on, and how connections may
// fail.
#include "tests/scenario/sim_sockets.h"

namespace {
using namespace sim_test;  // NOLINT: the verbs of these tests

using SimTcp = TwoHosts;

SCENARIO_F(SimTcp, CarriesBytesInBothDirectionsAndThenEnds) {
  std::string at_server, at_client;
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        at_server = ReceivedAll(s);
        SendText(s, "answer");
        closesocket(s);
      },
      [&] {
        const SOCKET s = Tcp();
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        SendText(s, "question");
        ASSERT_EQ(shutdown(s, SD_SEND), 0);
        at_client = ReceivedAll(s);
        EXPECT_EQ(send(s, "x", 1, 0), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAESHUTDOWN);
        closesocket(s);
      }));
  EXPECT_EQ(at_server, "question");
  EXPECT_EQ(at_client, "answer");
}

// One and a half round trips for the handshake to end on both sides.
SCENARIO_F(SimTcp, AConnectTakesOneRoundTrip) {
  sim::Duration connected{}, accepted{};
  ASSERT_TRUE(Run(
      [&] {
        AcceptFrom(ListenAt(80));
        accepted = world.now();
      },
      [&] {
        Sleep(5);
        ASSERT_EQ(ConnectTo(Tcp(), kServer, 80), 0);
        connected = world.now();
      }));
  EXPECT_EQ(connected, 25ms);
  EXPECT_EQ(accepted, 35ms);
}

SCENARIO_F(SimTcp, ARefusedConnectIs10061) {
  ASSERT_TRUE(Run([] {}, [] { EXPECT_EQ(ConnectTo(Tcp(), kServer, 81), WSAECONNREFUSED); }));
}

SCENARIO_F(SimTcp, ABlackHoleTimesOutAfterTwentyOneSeconds) {
  world.Partition(client, server);
  ASSERT_TRUE(Run([] {},
                  [] {
                    const DWORD before = GetTickCount();
                    EXPECT_EQ(ConnectTo(Tcp(), kServer, 80), WSAETIMEDOUT);
                    EXPECT_EQ(GetTickCount() - before, 21'000u);
                  }));
}

SCENARIO_F(SimTcp, AnUnknownAddressIsABlackHole) {
  ASSERT_TRUE(Run([] {}, [] { EXPECT_EQ(ConnectTo(Tcp(), "198.51.100.99", 80), WSAETIMEDOUT); }));
}

SCENARIO_F(SimTcp, ANonBlockingConnectGoesThroughItsStates) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        Received(s);
      },
      [] {
        Sleep(1);
        const SOCKET s = Tcp();
        NonBlocking(s);
        EXPECT_EQ(Readiness(s), "");
        EXPECT_EQ(ConnectTo(s, kServer, 80), WSAEWOULDBLOCK);
        EXPECT_EQ(ConnectTo(s, kServer, 80), WSAEALREADY);
        EXPECT_EQ(SendText(s, "early"), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAENOTCONN);
        EXPECT_EQ(Readiness(s), "");
        EXPECT_EQ(Readiness(s, 100), "w");
        EXPECT_EQ(IntOption(s, SO_ERROR), 0);
        EXPECT_EQ(ConnectTo(s, kServer, 80), WSAEISCONN);
        EXPECT_EQ(Received(s), "error 10035");
        closesocket(s);
      }));
}

SCENARIO_F(SimTcp, ARefusedNonBlockingConnectShowsInTheExceptionSetOnly) {
  ASSERT_TRUE(Run([] {},
                  [] {
                    const SOCKET s = Tcp();
                    NonBlocking(s);
                    EXPECT_EQ(ConnectTo(s, kServer, 81), WSAEWOULDBLOCK);
                    EXPECT_EQ(Readiness(s, 100), "e");
                    EXPECT_EQ(IntOption(s, SO_ERROR), WSAECONNREFUSED);
                    EXPECT_EQ(IntOption(s, SO_ERROR), 0);
                    // It may try again, and then the old failure is forgotten.
                    EXPECT_EQ(ConnectTo(s, kServer, 81), WSAEWOULDBLOCK);
                    EXPECT_EQ(Readiness(s), "");
                  }));
}

SCENARIO_F(SimTcp, AnAcceptedSocketInheritsNonBlockingMode) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET listener = ListenAt(80);
        NonBlocking(listener);
        EXPECT_EQ(AcceptFrom(listener), INVALID_SOCKET);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        ASSERT_TRUE(ReadableWithin(listener, 1000));
        const SOCKET s = AcceptFrom(listener);
        EXPECT_EQ(Received(s), "error 10035");
      },
      [] {
        Sleep(1);
        EXPECT_EQ(ConnectTo(Tcp(), kServer, 80), 0);
      }));
}

SCENARIO_F(SimTcp, AResetDiscardsUnreadBytes) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        SendText(s, "lost");
        Sleep(50);
        ResetOnClose(s);
        closesocket(s);
      },
      [] {
        const SOCKET s = Tcp();
        Sleep(1);
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        Sleep(200);
        EXPECT_EQ(Readiness(s), "rw");
        EXPECT_EQ(Received(s), "error 10054");
        EXPECT_EQ(SendText(s, "x"), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAECONNRESET);
      }));
}

SCENARIO_F(SimTcp, ClosingWithUnreadBytesResets) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        EXPECT_TRUE(ReadableWithin(s, 1000));
        closesocket(s);
      },
      [] {
        Sleep(1);
        const SOCKET s = Tcp();
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        SendText(s, "never read");
        EXPECT_EQ(Received(s), "error 10054");
      }));
}

SCENARIO_F(SimTcp, AnOrderlyCloseStillDeliversWhatWasSent) {
  std::string received;
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        Sleep(500);
        received = ReceivedAll(s);
        closesocket(s);
      },
      [&] {
        Sleep(1);
        const SOCKET s = Tcp();
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        SendText(s, Pattern(50'000));
        closesocket(s);
      }));
  EXPECT_EQ(received, Pattern(50'000));
}

// The sender's buffer and the reader's window are all that fits while nobody reads.
SCENARIO_F(SimTcp, AFullSendBufferAcceptsAPartAndThenNothing) {
  std::string received;
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET listener = ListenAt(80);
        SetIntOption(listener, SO_RCVBUF, 4000);
        const SOCKET s = AcceptFrom(listener);
        Sleep(1000);
        received = ReceivedAll(s);
      },
      [&] {
        Sleep(1);
        const SOCKET s = Tcp();
        SetIntOption(s, SO_SNDBUF, 3000);
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        NonBlocking(s);
        EXPECT_EQ(SendText(s, Pattern(10'000)), 3000);
        EXPECT_EQ(SendText(s, "x"), SOCKET_ERROR);
        EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
        EXPECT_EQ(Readiness(s), "");
        EXPECT_EQ(Readiness(s, 100), "w");  // the first bytes are acknowledged
        Sleep(200);
        EXPECT_EQ(SendText(s, Pattern(10'000).substr(3000)), 3000);
        Sleep(200);
        // 4000 wait for the reader, 2000 of 3000 places are taken.
        EXPECT_EQ(SendText(s, Pattern(10'000).substr(6000)), 1000);
        Sleep(200);
        EXPECT_EQ(Readiness(s), "");
        EXPECT_EQ(Readiness(s, 2000), "w");  // the reader has come
        closesocket(s);
      }));
  EXPECT_EQ(received, Pattern(7000));
}

SCENARIO_F(SimTcp, ABlockingSendWaitsForTheReader) {
  std::string received;
  sim::Duration sent{};
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        Sleep(1000);
        received = ReceivedAll(s);
      },
      [&] {
        const SOCKET s = Tcp();
        Sleep(1);
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        EXPECT_EQ(SendText(s, Pattern(300'000)), 300'000);
        sent = world.now();
        closesocket(s);
      }));
  EXPECT_GT(sent, 1s);
  EXPECT_EQ(received, Pattern(300'000));
}

SCENARIO_F(SimTcp, ARateLimitTakesItsTime) {
  sim::LinkOptions slow = link();
  slow.bytes_per_second = 100'000;
  Link(slow);
  std::string received;
  ASSERT_TRUE(Run([&] { received = ReceivedAll(AcceptFrom(ListenAt(80))); },
                  [&] {
                    Sleep(1);
                    const SOCKET s = Tcp();
                    ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
                    SendText(s, Pattern(200'000));
                    closesocket(s);
                  }));
  EXPECT_EQ(received, Pattern(200'000));
  EXPECT_GT(world.now(), 2s);
  EXPECT_LT(world.now(), 3s);
}

SCENARIO_F_SEEDS(SimTcp, KeepsEveryByteInOrderOnABadLink, 30) {
  sim::LinkOptions bad = link();
  bad.loss = 0.05;
  bad.jitter = 5ms;
  bad.duplicate = 0.05;
  bad.reorder = 0.05;
  Link(bad);
  std::string up, down;
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        up = ReceivedAll(s);
        SendText(s, Pattern(80'000));
        closesocket(s);
      },
      [&] {
        Sleep(1);
        const SOCKET s = Tcp();
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        SendText(s, Pattern(120'000));
        shutdown(s, SD_SEND);
        down = ReceivedAll(s);
        closesocket(s);
      }));
  EXPECT_TRUE(up == Pattern(120'000)) << up.size();
  EXPECT_TRUE(down == Pattern(80'000)) << down.size();
}

// A cable that is pulled for two seconds costs time, not bytes.
SCENARIO_F(SimTcp, AShortPartitionOnlyDelays) {
  std::string received;
  world.After(500ms, [&] { world.Partition(client, server); });
  world.After(2500ms, [&] { world.Partition(client, server, false); });
  ASSERT_TRUE(Run([&] { received = ReceivedAll(AcceptFrom(ListenAt(80))); },
                  [&] {
                    Sleep(1);
                    const SOCKET s = Tcp();
                    ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
                    for (int i = 0; i < 10; ++i) {
                      SendText(s, Pattern(1000).substr(static_cast<size_t>(i) * 100, 100));
                      Sleep(100);
                    }
                    closesocket(s);
                  }));
  EXPECT_EQ(received, Pattern(1000));
  EXPECT_GT(world.now(), 2500ms);
}

// A whole window that is lost is filled hole by hole, each at the cost of a round trip: not of
// a time-out each, which would take many seconds.
SCENARIO_F(SimTcp, ALostWindowIsRepairedInRoundTrips) {
  std::string received;
  world.After(25ms, [&] { world.Partition(client, server); });
  world.After(100ms, [&] { world.Partition(client, server, false); });
  ASSERT_TRUE(Run([&] { received = ReceivedAll(AcceptFrom(ListenAt(80))); },
                  [&] {
                    Sleep(6);
                    const SOCKET s = Tcp();
                    ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
                    SendText(s, Pattern(60'000));
                    closesocket(s);
                  }));
  EXPECT_EQ(received, Pattern(60'000));
  EXPECT_LT(world.now(), 3s);
}

SCENARIO_F(SimTcp, ALongPartitionEndsTheConnectionWith10060) {
  ASSERT_TRUE(Run([&] { AcceptFrom(ListenAt(80)); },
                  [&] {
                    Sleep(1);
                    const SOCKET s = Tcp();
                    ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
                    world.Partition(client, server);
                    EXPECT_EQ(SendText(s, "into the void"), 13);
                    EXPECT_EQ(Received(s), "error 10060");
                    EXPECT_GT(world.now(), 15s);
                    EXPECT_LT(world.now(), 30s);
                  }));
}

SCENARIO_F(SimTcp, AFullBacklogRefuses) {
  ASSERT_TRUE(Run([] { ListenAt(80, 2); },
                  [] {
                    Sleep(1);
                    EXPECT_EQ(ConnectTo(Tcp(), kServer, 80), 0);
                    EXPECT_EQ(ConnectTo(Tcp(), kServer, 80), 0);
                    EXPECT_EQ(ConnectTo(Tcp(), kServer, 80), WSAECONNREFUSED);
                  }));
}

SCENARIO_F(SimTcp, PeekLeavesTheBytes) {
  ASSERT_TRUE(Run(
      [] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        EXPECT_EQ(Received(s, 3, MSG_PEEK), "abc");
        u_long waiting = 0;
        EXPECT_EQ(ioctlsocket(s, static_cast<long>(FIONREAD), &waiting), 0);
        EXPECT_EQ(waiting, 6u);
        EXPECT_EQ(Received(s), "abcdef");
      },
      [] {
        Sleep(1);
        const SOCKET s = Tcp();
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        SendText(s, "abcdef");
        Sleep(1000);
      }));
}

SCENARIO_F(SimTcp, NamesAreAvailableWhenTheyAreOnWindows) {
  ASSERT_TRUE(Run(
      [] {
        sockaddr_in from = {};
        int size = sizeof from;
        const SOCKET s = accept(ListenAt(80), Raw(from), &size);
        EXPECT_STREQ(inet_ntoa(from.sin_addr), kClient);
        EXPECT_EQ(getsockname(s, Raw(from), &size), 0);
        EXPECT_EQ(ntohs(from.sin_port), 80);
      },
      [] {
        Sleep(1);
        const SOCKET s = Tcp();
        sockaddr_in name = {};
        int size = sizeof name;
        EXPECT_EQ(ErrorOf(getsockname(s, Raw(name), &size)), WSAEINVAL);
        EXPECT_EQ(ErrorOf(getpeername(s, Raw(name), &size)), WSAENOTCONN);
        ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
        ASSERT_EQ(getsockname(s, Raw(name), &size), 0);
        EXPECT_STREQ(inet_ntoa(name.sin_addr), kClient);
        EXPECT_GE(ntohs(name.sin_port), 49152);
        ASSERT_EQ(getpeername(s, Raw(name), &size), 0);
        EXPECT_STREQ(inet_ntoa(name.sin_addr), kServer);
      }));
}

SCENARIO_F(SimTcp, BindConflictsFollowWindows) {
  struct Case {
    const char* first;
    int first_option;
    const char* second;
    int second_option;
    int expected;
  };
  constexpr int kExclusive = static_cast<int>(~SO_REUSEADDR);
  const Case cases[] = {
      {"0.0.0.0", 0, "0.0.0.0", 0, WSAEADDRINUSE},
      {"0.0.0.0", 0, "127.0.0.1", 0, 0},
      {"127.0.0.1", 0, "0.0.0.0", 0, 0},
      {"127.0.0.1", 0, "127.0.0.1", 0, WSAEADDRINUSE},
      {"127.0.0.1", 0, "127.0.0.1", SO_REUSEADDR, 0},
      {"127.0.0.1", kExclusive, "127.0.0.1", SO_REUSEADDR, WSAEADDRINUSE},
      {"0.0.0.0", 0, "127.0.0.1", kExclusive, WSAEADDRINUSE},
      {"0.0.0.0", kExclusive, "127.0.0.1", 0, WSAEADDRINUSE},
      {"127.0.0.1", kExclusive, "0.0.0.0", 0, 0},
      {"192.0.2.1", 0, "127.0.0.1", 0, 0},
  };
  int port = 1000;
  for (const Case& one : cases) {
    SCOPED_TRACE(port);
    const SOCKET first = Tcp(), second = Tcp();
    if (one.first_option) SetIntOption(first, one.first_option, 1);
    if (one.second_option) SetIntOption(second, one.second_option, 1);
    EXPECT_EQ(BindTo(first, one.first, port), 0);
    EXPECT_EQ(BindTo(second, one.second, port), one.expected);
    closesocket(first);
    closesocket(second);
    const SOCKET again = Tcp();
    EXPECT_EQ(BindTo(again, one.first, port++), 0);  // a closed socket's port is free at once
  }
  EXPECT_EQ(BindTo(Tcp(), "198.51.100.77", 1), WSAEADDRNOTAVAIL);
}

SCENARIO_F(SimTcp, LoopbackIsSeparateForEachHost) {
  std::string received;
  ASSERT_TRUE(Run([&] { received = ReceivedAll(AcceptFrom(ListenAt(80))); },
                  [&] {
                    Sleep(1);
                    EXPECT_EQ(ConnectTo(Tcp(), "127.0.0.1", 80), WSAECONNREFUSED);
                    const SOCKET here = ListenAt(81);
                    const SOCKET s = Tcp();
                    EXPECT_EQ(ConnectTo(s, "127.0.0.1", 81), 0);
                    const SOCKET accepted = AcceptFrom(here);
                    SendText(s, "near");
                    EXPECT_EQ(Received(accepted), "near");
                    const SOCKET far = Tcp();
                    EXPECT_EQ(ConnectTo(far, kServer, 80), 0);
                    SendText(far, "far");
                    closesocket(far);
                  }));
  EXPECT_EQ(received, "far");
}

SCENARIO_F(SimTcp, ClosingUnderABlockedReceiveEndsIt) {
  ASSERT_TRUE(Run(
      [&] {
        const SOCKET s = AcceptFrom(ListenAt(80));
        world.Spawn(*server_process, "closer", [s] {
          Sleep(100);
          EXPECT_EQ(closesocket(s), 0);
        });
        EXPECT_EQ(Received(s), "error 10004");
        EXPECT_EQ(Received(s), "error 10038");
      },
      [] {
        Sleep(1);
        ConnectTo(Tcp(), kServer, 80);
      }));
}

SCENARIO_F(SimTcp, ASocketOfAnotherProcessIsInvalid) {
  const SOCKET mine = Tcp();
  ASSERT_TRUE(Run([] {}, [mine] { EXPECT_EQ(ErrorOf(closesocket(mine)), WSAENOTSOCK); }));
  EXPECT_EQ(closesocket(mine), 0);
}

// --- small pieces -------------------------------------------------------------------------------

// The client sends two small messages a millisecond apart; the server reads them, or answers each.
sim::Options SavingSegments() {
  sim::Options options;
  options.tcp_saves_segments = true;
  return options;
}

class SimNagle : public TwoHosts {
 protected:
  void Talk(bool no_delay, bool answers) {
    ASSERT_TRUE(Run(
        [&] {
          const SOCKET s = AcceptFrom(ListenAt(80));
          for (int i = 0; i < 2; ++i) {
            Received(s, 1);
            heard.push_back(world.now() - said);
            if (answers) SendText(s, "!");
          }
          closesocket(s);
        },
        [&] {
          Sleep(1);
          const SOCKET s = Tcp();
          ASSERT_EQ(ConnectTo(s, kServer, 80), 0);
          const int on = no_delay;
          ASSERT_EQ(setsockopt(s, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                               sizeof on),
                    0);
          said = world.now();
          SendText(s, "a");
          Sleep(1);
          SendText(s, "b");
          ReceivedAll(s);
          closesocket(s);
        }));
  }
  sim::Duration said{};
  std::vector<sim::Duration> heard;
};

SCENARIO_WITH_(SimNagle, ASecondPieceWaitsForTheDelayedAcknowledgementOfTheFirst, SimNagle, 1,
               SavingSegments()) {
  Talk(false, false);
  EXPECT_EQ(heard, (std::vector<sim::Duration>{10ms, 230ms}));
}

SCENARIO_WITH_(SimNagle, AnAnswerAcknowledgesAtOnce, SimNagle, 1, SavingSegments()) {
  Talk(false, true);
  EXPECT_EQ(heard, (std::vector<sim::Duration>{10ms, 30ms}));
}

SCENARIO_WITH_(SimNagle, NothingWaitsWithTheOption, SimNagle, 1, SavingSegments()) {
  Talk(true, false);
  EXPECT_EQ(heard, (std::vector<sim::Duration>{10ms, 11ms}));
}

// Of unread segments, two are acknowledged at once, and a single one after a while.
SCENARIO_WITH_(SimNagle, SegmentsAreConfirmedByTwos, SimNagle, 1, SavingSegments()) {
  for (const size_t segments : {1u, 2u, 3u, 4u}) {
    SCOPED_TRACE(segments);
    const int port = static_cast<int>(80 + segments);
    sim::Duration heard_all{};
    ASSERT_TRUE(Run(
        [&] {
          const SOCKET s = AcceptFrom(ListenAt(port));
          u_long waiting = 0;
          while (waiting <= segments * 1460) {
            Sleep(1);
            ioctlsocket(s, static_cast<long>(FIONREAD), &waiting);
          }
          heard_all = world.now() - said;
        },
        [&] {
          Sleep(1);
          const SOCKET s = Tcp();
          ASSERT_EQ(ConnectTo(s, kServer, port), 0);
          said = world.now();
          SendText(s, std::string(segments * 1460, 'x'));
          SendText(s, "y");  // waits until all of it is confirmed
          Sleep(1000);
        }));
    EXPECT_GE(heard_all, segments % 2 == 0 ? 30ms : 230ms);
    EXPECT_LE(heard_all, segments % 2 == 0 ? 32ms : 232ms);
  }
}

// --- the option is the listener's, too ----------------------------------------------------------

SCENARIO_WITH_(SimNagle, AcceptedSocketsInheritTheOption, SimNagle, 1, SavingSegments()) {
  for (const bool no_delay : {false, true}) {
    std::vector<sim::Duration> times;
    ASSERT_TRUE(Run(
        [&] {
          const SOCKET listener = ListenAt(no_delay ? 81 : 80);
          const int on = no_delay;
          setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char*>(&on),
                     sizeof on);
          const SOCKET s = AcceptFrom(listener);
          Sleep(100);
          said = world.now();
          SendText(s, "a");
          Sleep(1);
          SendText(s, "b");
          ReceivedAll(s);
        },
        [&] {
          Sleep(1);
          const SOCKET s = Tcp();
          ASSERT_EQ(ConnectTo(s, kServer, no_delay ? 81 : 80), 0);
          for (int i = 0; i < 2; ++i) {
            Received(s, 1);
            times.push_back(world.now() - said);
          }
          closesocket(s);
        }));
    EXPECT_EQ(times, (std::vector<sim::Duration>{10ms, no_delay ? 11ms : 230ms}));
  }
}

}  // namespace
