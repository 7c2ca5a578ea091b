// A game's raw pings in a process where this provider is installed, to the millisecond. At stake:
// the game shows its player the delay of its route, no ping that we answer may leave the machine,
// and none that we do not answer may be lost.
#include <algorithm>
#include <cstring>
#include <vector>

#include "hooks/hook_entries.h"
#include "tests/scenario/tcp_world.h"
#include "tests/support/log_texts.h"

namespace {
using namespace tcp_test;  // NOLINT: the verbs of these tests
using moru_vyr::lsp::RouteTableImage;

constexpr int kForgedTtl = 54, kRealTtl = 64;
constexpr int kReal = 20;  // there and back, where a ping really goes out

// An echo request of that size under that number.
std::string EchoRequest(int sequence, size_t size = 64) {
  std::string message(size, '\0');
  message[0] = 8;
  for (size_t i = 8; i < size; ++i) message[i] = static_cast<char>('a' + i % 26);
  message[7] = static_cast<char>(sequence);
  unsigned sum = 0;
  for (size_t i = 0; i < size; ++i) {
    const unsigned byte = static_cast<unsigned char>(message[i]);
    sum += i % 2 == 0 ? byte << 8 : byte;
  }
  sum = (sum >> 16) + (sum & 0xffff);
  sum += sum >> 16;
  message[2] = static_cast<char>(~sum >> 8 & 0xff);
  message[3] = static_cast<char>(~sum & 0xff);
  return message;
}

int Ttl(const std::string& reply) { return reply.size() > 28 ? reply[8] : 0; }
int Sequence(const std::string& reply) { return reply.size() > 28 ? reply[27] : -1; }

class Pings : public TcpWorld {
 protected:
  Pings() {
    sim::LinkOptions link;
    link.delay = std::chrono::milliseconds(kReal / 2);
    world.SetLink(world.home().host, server_host, link);
  }

  static SOCKET Pinger(const char* server = kServer) {
    const SOCKET s = Ping();
    NonBlocking(s);
    EXPECT_EQ(ConnectTo(s, server, 0), 0);
    return s;
  }
  static void Sends(SOCKET s, int sequence, size_t size = 64) {
    EXPECT_EQ(SendText(s, EchoRequest(sequence, size)), static_cast<int>(size));
  }
  // The delay to kServer that the route through the nodes promises.
  void PromiseDelay(common::u32 ms) {
    auto image = std::make_unique<RouteTableImage>(routes.Live().image);
    image->route_sets[0].routes[0].ref_default.section2_delay = ms;
    routes.Publish(*image);
  }
  // Polls every millisecond, as games do, and returns when a reply came.
  int MsUntilReply(SOCKET s, std::string* reply, int most = 200) {
    for (int ms = 0; ms <= most; ++ms, RunFor(1ms)) {
      *reply = Received(s);
      if (reply->rfind("error", 0) != 0) return ms;
      EXPECT_EQ(*reply, "error 10035");
    }
    return -1;
  }
  int MsUntilReply(SOCKET s) {
    std::string ignored;
    return MsUntilReply(s, &ignored);
  }
};

SCENARIO_F(Pings, AreAnsweredFiveMillisecondsBeforeTheDelayOfTheRoute) {
  const SOCKET s = Pinger();
  for (const auto& [promised, taken] : {std::pair{22u, 17}, {300u, 295}, {6u, 1}, {5u, 0}}) {
    SCOPED_TRACE(promised);
    PromiseDelay(promised);
    Sends(s, 1);
    std::string reply;
    EXPECT_EQ(MsUntilReply(s, &reply, 400), taken);
    EXPECT_EQ(reply.size(), 84u);
    EXPECT_EQ(Ttl(reply), kForgedTtl);
  }
}

// Less than the five milliseconds by which replies come early.
SCENARIO_F(Pings, AreAnsweredAtOnceOnAVeryShortRoute) {
  const SOCKET s = Pinger();
  for (const unsigned promised : {4u, 3u, 1u}) {
    PromiseDelay(promised);
    Sends(s, 1);
    EXPECT_EQ(MsUntilReply(s), 0) << promised;
  }
}

SCENARIO_F(Pings, OfARouteWithoutADelayUseTheDefault) {
  const SOCKET s = Pinger();
  Sends(s, 1);
  EXPECT_EQ(MsUntilReply(s), 20 - 5);
}

// Kept: pings of an address that is in no table are answered as well.
SCENARIO_F(Pings, OfAnUnknownServerAreAnsweredAfterADefaultDelay) {
  const SOCKET s = Pinger(kUnlisted);
  Sends(s, 1);
  std::string reply;
  EXPECT_EQ(MsUntilReply(s, &reply), 50 - 5);
  EXPECT_EQ(Ttl(reply), kForgedTtl);
}

SCENARIO_F(Pings, OfAServerThatIsNotAcceleratedReallyGoOut) {
  const SOCKET s = Pinger(kDirect);
  Sends(s, 1);
  std::string reply;
  EXPECT_EQ(MsUntilReply(s, &reply), kReal);
  EXPECT_EQ(Ttl(reply), kRealTtl);
  world.Partition(world.home().host, server_host);
  Sends(s, 2);
  EXPECT_EQ(MsUntilReply(s), -1) << "there is nobody to answer";
}

SCENARIO_F(Pings, OfARelayedServerNeverLeaveTheMachine) {
  world.Partition(world.home().host, server_host);
  const SOCKET s = Pinger();
  Sends(s, 1);
  EXPECT_EQ(MsUntilReply(s), 15);
}

SCENARIO_F(Pings, ThatAreNotCompleteEchoRequestsAreReallySent) {
  const SOCKET s = Pinger();
  Sends(s, 1, 257);
  std::string reply;
  EXPECT_EQ(MsUntilReply(s, &reply), kReal);
  EXPECT_EQ(Ttl(reply), kRealTtl);
  EXPECT_EQ(reply.size(), 277u);
  std::string wrong_sum = EchoRequest(2);
  wrong_sum[2] = static_cast<char>(wrong_sum[2] + 1);
  SendText(s, wrong_sum);
  RunFor(1s);
  // Whatever the network makes of it, it is not held here.
  EXPECT_NE(Ttl(Received(s)), kForgedTtl);
  Sends(s, 3, 256);
  EXPECT_EQ(MsUntilReply(s, &reply), 15);
  EXPECT_EQ(reply.size(), 276u);
}

SCENARIO_F(Pings, OfUnconnectedSocketsReallyGoOut) {
  const SOCKET s = Ping();
  NonBlocking(s);
  EXPECT_EQ(SendTextTo(s, EchoRequest(1), kServer, 0), 64);
  std::string reply;
  EXPECT_EQ(MsUntilReply(s, &reply), kReal);
  EXPECT_EQ(Ttl(reply), kRealTtl);
}

// Kept: a later request waits behind an earlier one, however short its own delay is.
SCENARIO_F(Pings, AreAnsweredInTheOrderOfTheirRequests) {
  const SOCKET s = Pinger();
  PromiseDelay(100);
  Sends(s, 1);
  PromiseDelay(10);
  Sends(s, 2);
  std::string reply;
  EXPECT_EQ(MsUntilReply(s, &reply), 95);
  EXPECT_EQ(Sequence(reply), 1);
  EXPECT_EQ(MsUntilReply(s, &reply), 0);
  EXPECT_EQ(Sequence(reply), 2);
}

// Kept: a raw socket that is connected again goes on by its first server.
SCENARIO_F(Pings, GoByTheFirstServerThatTheirSocketWasConnectedTo) {
  const SOCKET s = Pinger(kUnlisted);
  EXPECT_EQ(ConnectTo(s, kServer, 0), 0);
  Sends(s, 1);
  std::string reply;
  EXPECT_EQ(MsUntilReply(s, &reply), 45);
  in_addr from = {};
  if (reply.size() > 16) std::memcpy(&from, reply.data() + 12, sizeof from);
  EXPECT_STREQ(inet_ntoa(from), kUnlisted);
}

// Kept: select cannot see the reply.
SCENARIO_F(Pings, ShowInNoSelect) {
  const SOCKET s = Pinger();
  Sends(s, 1);
  EXPECT_EQ(Readiness(s, 500), "w");
  EXPECT_FALSE(ReadableWithin(s, 500));
  EXPECT_EQ(MsUntilReply(s), 0);
}

// Kept: a receive that waits in the platform waits there for ever; it must not block anything else.
SCENARIO_F(Pings, OfABlockingSocketDoNotEndItsReceive) {
  const SOCKET s = Ping();
  ASSERT_EQ(ConnectTo(s, kServer, 0), 0);
  Sends(s, 1);
  std::string received = "nothing";
  GameThread([&] { received = Received(s); });
  RunFor(5s);
  EXPECT_EQ(received, "nothing");
  Sends(s, 2);
  EXPECT_EQ(Ttl(Received(s)), kForgedTtl) << "another thread gets the reply that is due";
  closesocket(s);
  EXPECT_TRUE(RunToTheEnd());
  EXPECT_EQ(received.rfind("error", 0), 0u) << received;
}

SCENARIO_F(Pings, GoOnWhileStreamsAreRelayed) {
  const SOCKET stream = Joins();
  const SOCKET s = Pinger();
  for (int i = 1; i <= 20; ++i) {
    Sends(s, i);
    EXPECT_EQ(Talks(stream, "hello"), "hello");
    std::string reply;
    EXPECT_GE(MsUntilReply(s, &reply), 0);
    EXPECT_EQ(Sequence(reply), i);
  }
  closesocket(stream);
  closesocket(s);
  ExpectServesAgain();
}

SCENARIO_F(Pings, OfAClosedSocketAreLostAndItsSuccessorBeginsAnew) {
  world.ReuseSocketHandles(true);
  SOCKET s = Pinger();
  Sends(s, 1);
  closesocket(s);
  const SOCKET again = Ping();
  EXPECT_EQ(again, s);
  NonBlocking(again);
  RunFor(1s);
  EXPECT_EQ(Received(again), "error 10022") << "the platform's own: it is not bound";
  EXPECT_EQ(ConnectTo(again, kUnlisted, 0), 0);
  Sends(again, 2);
  std::string reply;
  EXPECT_EQ(MsUntilReply(again, &reply), 45);
  EXPECT_EQ(Sequence(reply), 2);
}

// A game may clean Winsock up while a thread of its own still pings.
SCENARIO_F(Pings, SurviveTheEndOfTheLibrary) {
  const SOCKET s = Pinger();
  for (int i = 1; i <= 3; ++i) Sends(s, i);
  const test::LogCapture log(0);
  INT error = 0;
  moru_vyr::lsp::WSPCleanup(&error);
  for (int i = 4; i <= 6; ++i) Sends(s, i);
  for (int i = 1; i <= 6; ++i) {
    std::string reply;
    EXPECT_GE(MsUntilReply(s, &reply), 0) << i;
    EXPECT_EQ(Sequence(reply), i);
  }
  EXPECT_TRUE(log.Contains(test::PingsStored(509)));
  EXPECT_FALSE(log.Contains(test::PingsStored(508))) << "two blocks";
  moru_vyr::lsp::WSPCleanup(&error);
  closesocket(s);
}

SCENARIO_F_SEEDS(Pings, OfThirtyTwoThreadsAreAllAnswered, 10) {
  int answered = 0;
  for (int thread = 0; thread < 32; ++thread) {
    GameThread([&answered, thread] {
      const SOCKET s = Pinger(thread % 2 == 0 ? kServer : kUnlisted);
      for (int i = 0; i < 20; ++i) Sends(s, i);
      int next = 0;
      while (next < 20) {
        const std::string reply = Received(s);
        if (reply.rfind("error", 0) == 0) {
          Sleep(1);
          continue;
        }
        EXPECT_EQ(Sequence(reply), next);
        ++next;
        ++answered;
      }
      closesocket(s);
    });
  }
  EXPECT_TRUE(RunToTheEnd());
  EXPECT_EQ(answered, 32 * 20);
}

// --- around the wrap of the tick counter --------------------------------------------------------

sim::Options TicksBeginAt(uint32_t ticks) {
  sim::Options options;
  options.tick_start = ticks;
  return options;
}
constexpr uint32_t kBeforeWrapMs = 5000;

class PingsAtTheWrap : public Pings {
 protected:
  // The moment at which the counter stands so many milliseconds before its wrap.
  void AdvanceToBeforeTheWrap(uint32_t ms) {
    const uint32_t ticks = GetTickCount();
    ASSERT_GT(ticks, 0xFFFFFFFFu - kBeforeWrapMs) << "the start took too long";
    RunFor(std::chrono::milliseconds(0u - ms - ticks));
    ASSERT_EQ(GetTickCount(), 0u - ms);
  }
};

// Kept: a reply whose time lies behind the wrap counts as due at once.
SCENARIO_WITH_(PingsAtTheWrap, ThatAreDueBehindItAreAnsweredAtOnce, PingsAtTheWrap, 1,
               TicksBeginAt(0u - kBeforeWrapMs)) {
  const SOCKET s = Pinger();
  AdvanceToBeforeTheWrap(10);
  Sends(s, 1);
  EXPECT_EQ(MsUntilReply(s), 0);
}

// Kept: one that was due just before it, and not fetched in time, waits for the next wrap, and with
// it all that is asked for on this socket. Other sockets are not concerned.
SCENARIO_WITH_(PingsAtTheWrap, ThatWereDueBeforeItAndNotFetchedStay, PingsAtTheWrap, 1,
               TicksBeginAt(0u - kBeforeWrapMs)) {
  const SOCKET s = Pinger();
  AdvanceToBeforeTheWrap(30);
  Sends(s, 1);
  RunFor(40ms);
  EXPECT_EQ(MsUntilReply(s), -1);
  Sends(s, 2);
  EXPECT_EQ(MsUntilReply(s), -1);
  const SOCKET other = Pinger();
  Sends(other, 1);
  EXPECT_EQ(MsUntilReply(other), 15);
}

}  // namespace
