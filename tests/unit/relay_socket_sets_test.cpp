// The sockets that the worker polls. At stake: an event must reach the delegate of its socket,
// once, in the order that the relay depends on.
#include "relay/socket_sets.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/loopback.h"
#include "tests/unit/out_of_memory.h"

namespace moru_vyr::lsp {
namespace {

// Records each event, and does what the test says for it.
struct Recorder : IRelaySocketDelegate {
  void OnReadable(SOCKET s) noexcept override { Note("read", s); }
  void OnWritable(SOCKET s) noexcept override { Note("write", s); }
  void OnException(SOCKET s) noexcept override { Note("exception", s); }
  void OnClose(SOCKET s) noexcept override { Note("close", s); }
  void Note(const std::string& what, SOCKET s) {
    events.push_back(what + " " + std::to_string(s));
    if (then) then(what, s);
  }
  std::vector<std::string> events;
  std::function<void(const std::string&, SOCKET)> then;
};

struct SocketSetsTest : testing::Test {
  // A datagram socket with something to read.
  SOCKET Ready() {
    sockaddr_in address;
    sockets.push_back(std::make_unique<test::OwnSocket>(test::BoundSocket(SOCK_DGRAM, &address)));
    const SOCKET s = *sockets.back();
    EXPECT_EQ(sendto(s, "x", 1, 0, test::Raw(&address), sizeof address), 1);
    EXPECT_TRUE(test::BecomesReadable(s));
    return s;
  }
  SOCKET Idle() {
    sockaddr_in address;
    sockets.push_back(std::make_unique<test::OwnSocket>(test::BoundSocket(SOCK_DGRAM, &address)));
    return *sockets.back();
  }
  int Poll() { return sets.Poll(timeval{0, 20000}, &error); }
  static std::string Event(const char* what, SOCKET s) {
    return std::string(what) + " " + std::to_string(s);
  }

  std::vector<std::unique_ptr<test::OwnSocket>> sockets;
  SocketSets sets;
  Recorder recorder;
  int error = 0;
};

using Events = std::vector<std::string>;

// Like one that finds no room, it is known to nobody, and may be added again.
TEST_F(SocketSetsTest, ASocketThatThereIsNoMemoryForIsNotPolled) {
  const SOCKET s = Ready();
  {
    const test::OutOfMemory none;
    EXPECT_NE(sets.Add(s, &recorder), 0u);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  Poll();
  EXPECT_TRUE(recorder.events.empty());
  sets.Add(s, &recorder);
  Poll();
  EXPECT_EQ(recorder.events, std::vector<std::string>{Event("read", s)});
}

TEST_F(SocketSetsTest, ReadsComeFirstInTheOrderOfAddingThenWrites) {
  const SOCKET b = Ready(), a = Ready(), idle = Idle();
  for (const SOCKET s : {a, idle, b}) EXPECT_EQ(sets.Add(s, &recorder), 0u);
  EXPECT_EQ(sets.EnableWrite(idle, true), 0u);
  EXPECT_EQ(sets.EnableWrite(a, true), 0u);
  EXPECT_EQ(Poll(), 4);
  EXPECT_EQ(recorder.events,
            (Events{Event("read", a), Event("read", b), Event("write", idle), Event("write", a)}));
}

TEST_F(SocketSetsTest, AWriteRequestCountsOnce) {
  const SOCKET s = Idle();
  EXPECT_EQ(sets.EnableWrite(s, true), 0u);  // not added yet: nothing
  sets.Add(s, &recorder);
  EXPECT_EQ(sets.EnableWrite(s, true), 0u);
  EXPECT_NE(sets.EnableWrite(s, true), 0u);
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(Poll(), 0);
  EXPECT_EQ(recorder.events, (Events{Event("write", s)}));
  EXPECT_EQ(sets.EnableWrite(s, true), 0u);
  EXPECT_EQ(sets.EnableWrite(s, false), 0u);
  EXPECT_EQ(Poll(), 0);
}

TEST_F(SocketSetsTest, AWriteRequestMadeDuringAWriteEventIsKept) {
  const SOCKET s = Idle();
  sets.Add(s, &recorder);
  sets.EnableWrite(s, true);
  recorder.then = [&](const std::string&, SOCKET) { sets.EnableWrite(s, true); };
  EXPECT_EQ(Poll(), 1);
  recorder.then = nullptr;
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(Poll(), 0);
}

TEST_F(SocketSetsTest, AddingTwiceKeepsTheFirstDelegate) {
  const SOCKET s = Ready();
  Recorder other;
  EXPECT_EQ(sets.Add(s, &recorder), 0u);
  EXPECT_NE(sets.Add(s, &other), 0u);
  EXPECT_EQ(Poll(), 1);
  EXPECT_TRUE(other.events.empty());
  EXPECT_EQ(sets.Remove(s), &recorder);
  EXPECT_EQ(sets.Remove(s), nullptr);
}

// A session that ends removes sockets that the same pass has found ready.
TEST_F(SocketSetsTest, ARemovedSocketGetsNothingMoreOfThePass) {
  const SOCKET first = Ready(), second = Ready();
  for (const SOCKET s : {first, second}) {
    sets.Add(s, &recorder);
    sets.EnableWrite(s, true);
  }
  recorder.then = [&](const std::string&, SOCKET) {
    sets.Remove(first);
    sets.Remove(second);
  };
  EXPECT_EQ(Poll(), 4);
  EXPECT_EQ(recorder.events, (Events{Event("read", first)}));
  EXPECT_EQ(Poll(), SOCKET_ERROR);  // nothing is left to wait for
  EXPECT_EQ(error, WSAEINVAL);
}

// The handle of a closed socket can be reused at once. The new socket has not been polled; the old
// one's events do not concern it, and its own write request stays.
TEST_F(SocketSetsTest, AValueThatComesBackWaitsForTheNextPass) {
  const SOCKET s = Ready(), trigger = Ready();
  Recorder renewed;
  sets.Add(trigger, &recorder);
  sets.Add(s, &recorder);
  sets.EnableWrite(s, true);
  recorder.then = [&](const std::string&, SOCKET) {
    sets.Remove(trigger);
    sets.Remove(s);
    sets.Add(s, &renewed);
    sets.EnableWrite(s, true);
  };
  EXPECT_EQ(Poll(), 3);
  EXPECT_TRUE(renewed.events.empty());
  EXPECT_EQ(recorder.events, (Events{Event("read", trigger)}));
  EXPECT_EQ(Poll(), 2);
  EXPECT_EQ(renewed.events, (Events{Event("read", s), Event("write", s)}));
}

TEST_F(SocketSetsTest, AFailedConnectIsAnException) {
  sockaddr_in nobody;
  test::OwnSocket closed(test::BoundSocket(SOCK_STREAM, &nobody));
  closed.Close();
  const test::OwnSocket s(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  test::MakeNonBlocking(s);
  EXPECT_EQ(connect(s, test::Raw(&nobody), sizeof nobody), SOCKET_ERROR);
  sets.Add(s, &recorder);
  sets.EnableWrite(s, true);
  for (int i = 0; i < 500 && recorder.events.empty(); ++i) Poll();
  // Wine shows a refused socket as readable too, and a read comes first.
  std::erase(recorder.events, Event("read", s));
  EXPECT_EQ(recorder.events, (Events{Event("exception", s)}));
}

TEST_F(SocketSetsTest, AReusedHandleDoesNotGetTheOldExceptionEvent) {
  sockaddr_in nobody;
  test::OwnSocket closed(test::BoundSocket(SOCK_STREAM, &nobody));
  closed.Close();
  const test::OwnSocket s(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  test::MakeNonBlocking(s);
  EXPECT_EQ(connect(s, test::Raw(&nobody), sizeof nobody), SOCKET_ERROR);
  fd_set failed;
  failed.fd_count = 1;
  failed.fd_array[0] = s;
  timeval limit{10, 0};
  ASSERT_EQ(select(0, nullptr, nullptr, &failed, &limit), 1);
  const SOCKET trigger = Ready();
  Recorder renewed;
  sets.Add(trigger, &recorder);
  sets.Add(s, &recorder);
  recorder.then = [&](const std::string&, SOCKET) {
    sets.Remove(trigger);
    sets.Remove(s);
    sets.Add(s, &renewed);
  };
  EXPECT_GE(Poll(), 2);
  EXPECT_TRUE(renewed.events.empty());
  EXPECT_EQ(recorder.events, (Events{Event("read", trigger)}));
}

TEST_F(SocketSetsTest, The129thSocketIsKnownAndNeverPolled) {
  std::vector<SOCKET> all;
  for (int i = 0; i < 129; ++i) all.push_back(Idle());
  for (const SOCKET s : all) EXPECT_EQ(sets.Add(s, &recorder), 0u);
  EXPECT_NE(sets.Add(all[128], &recorder), 0u);
  sockaddr_in address;
  int size = sizeof address;
  for (const SOCKET s : {all[127], all[128]}) {
    getsockname(s, test::Raw(&address), &size);
    sendto(s, "x", 1, 0, test::Raw(&address), sizeof address);
    EXPECT_TRUE(test::BecomesReadable(s));
  }
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(recorder.events, (Events{Event("read", all[127])}));
  EXPECT_EQ(sets.Remove(all[128]), &recorder);
}

TEST_F(SocketSetsTest, ASocketWhoseReadingStoppedKeepsItsPlaceAndMayResume) {
  const SOCKET s = Ready();
  EXPECT_EQ(sets.FreePlaces(), 128u);
  sets.ResumeReading(s);  // it was never added
  sets.Add(s, &recorder);
  sets.StopReading(s);
  EXPECT_EQ(sets.FreePlaces(), 127u);
  sets.EnableWrite(s, true);
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(recorder.events, (Events{Event("write", s)}));
  sets.ResumeReading(s);
  sets.ResumeReading(s);
  EXPECT_EQ(Poll(), 1);
  EXPECT_EQ(recorder.events, (Events{Event("write", s), Event("read", s)}));
  sets.Remove(s);
  EXPECT_EQ(sets.FreePlaces(), 128u);
}

// Where a session that has ended resumes the reading of its socket, nothing may be polled for
// nobody.
TEST_F(SocketSetsTest, OnlyASocketThatWasAddedIsReadAgain) {
  const SOCKET added = Idle(), stranger = Ready();
  sets.Add(added, &recorder);
  sets.ResumeReading(stranger);
  error = 5;
  EXPECT_EQ(Poll(), 0);
  EXPECT_EQ(error, 0);
}

TEST_F(SocketSetsTest, AClosedSocketIsAnError) {
  const SOCKET s = Idle();
  sets.Add(s, &recorder);
  sockets.clear();
  EXPECT_EQ(Poll(), SOCKET_ERROR);
  EXPECT_EQ(error, WSAENOTSOCK);
  EXPECT_TRUE(recorder.events.empty());
}

}  // namespace
}  // namespace moru_vyr::lsp
