// The table of receives that are to be told their source when they complete.
#include <gtest/gtest.h>

#include <cstring>

#include "hooks/pending_receives.h"
#include "tests/support/threads.h"

namespace moru_vyr::lsp {
namespace {

sockaddr_in Name(const char* ip, int port) {
  sockaddr_in name = {};
  name.sin_family = AF_INET;
  name.sin_addr.s_addr = static_cast<u32>(inet_addr(ip));
  name.sin_port = htons(static_cast<u16>(port));
  return name;
}

void CALLBACK First(DWORD, DWORD, LPWSAOVERLAPPED, DWORD) {}
void CALLBACK Second(DWORD, DWORD, LPWSAOVERLAPPED, DWORD) {}

struct PendingReceivesTest : testing::Test {
  PendingReceivesTest() { ports.Add(Name("198.51.100.10", 27015), htons(4001)); }
  PendingReceive Make(u32 token = 7, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine = nullptr) {
    return {token, &overlapped, routine, reinterpret_cast<sockaddr*>(&from), &size, size};
  }
  bool IsNamed() const { return from.sin_addr.s_addr == inet_addr("198.51.100.10"); }

  PendingReceives table;
  PeerPorts ports;
  WSAOVERLAPPED overlapped = {};
  sockaddr_in from = Name("127.0.0.1", 4001);
  INT size = sizeof from;
};

TEST_F(PendingReceivesTest, AnEntryIsFoundByItsSocketAndOverlapped) {
  EXPECT_TRUE(table.IsEmpty());
  const u64 entry = table.Add(Make());
  EXPECT_NE(entry, 0u);
  EXPECT_FALSE(table.IsEmpty());
  WSAOVERLAPPED other = {};
  EXPECT_EQ(table.Find(7, &overlapped), entry);
  EXPECT_EQ(table.Find(8, &overlapped), 0u);
  EXPECT_EQ(table.Find(7, &other), 0u);
}

TEST_F(PendingReceivesTest, TheSourceIsNamedOnceAndTheEntryGoes) {
  const u64 entry = table.Add(Make());
  table.Finish(entry, &ports);
  EXPECT_TRUE(IsNamed());
  EXPECT_EQ(from.sin_port, htons(27015));
  EXPECT_TRUE(table.IsEmpty());
  from = Name("127.0.0.1", 4001);
  table.Finish(entry, &ports);
  EXPECT_FALSE(IsNamed()) << "the memory may be gone by now";
}

TEST_F(PendingReceivesTest, WhatDidNotComeFromTheRelayIsLeftAlone) {
  from = Name("127.0.0.1", 4002);
  table.Finish(table.Add(Make()), &ports);
  EXPECT_EQ(from.sin_port, htons(4002));
  from = Name("198.51.100.99", 4001);
  table.Finish(table.Add(Make()), &ports);
  EXPECT_EQ(from.sin_addr.s_addr, inet_addr("198.51.100.99"));
  from = Name("127.0.0.1", 4001);
  table.Finish(table.Add(Make()), nullptr);
  EXPECT_FALSE(IsNamed()) << "there is no relay any more";
}

// A provider may tell the size of an address that the place had no room for, and a program may give
// a place that holds no whole address.
TEST_F(PendingReceivesTest, NoMoreIsWrittenThanThereIsRoomFor) {
  size = 8;
  const PendingReceive receive = Make();
  size = sizeof from;
  std::memset(from.sin_zero, 0x55, sizeof from.sin_zero);
  NameSource(receive, ports);
  EXPECT_TRUE(IsNamed());
  EXPECT_EQ(from.sin_zero[0], 0x55);
  from = Name("127.0.0.1", 4001);
  size = -1;
  NameSource(Make(), ports);
  EXPECT_FALSE(IsNamed());
}

TEST_F(PendingReceivesTest, ARoutineKeepsItsEntryUntilItRuns) {
  const u64 entry = table.Add(Make(7, First));
  table.Finish(entry, &ports);
  EXPECT_TRUE(IsNamed());
  table.Fail(entry, true);
  EXPECT_FALSE(table.Drop(7, &overlapped));
  table.DropAllOf(7);
  table.DropAll();
  PendingReceive out;
  ASSERT_TRUE(table.TakeRoutine(&overlapped, &out));
  EXPECT_EQ(out.routine, &First);
  EXPECT_FALSE(table.TakeRoutine(&overlapped, &out));
  const u64 failed = table.Add(Make(7, First));
  table.Fail(failed, false);
  EXPECT_TRUE(table.IsEmpty());
}

// A program may give one structure to two receives, although it must not.
TEST_F(PendingReceivesTest, TheOldestComesFirst) {
  WSAOVERLAPPED another = {};
  PendingReceive before = Make();
  before.overlapped = &another;
  const u64 first = table.Add(before);
  table.Add(Make(7, First));
  table.Add(Make(7, Second));
  table.Fail(first, true);  // its place goes to the last one
  PendingReceive out;
  ASSERT_TRUE(table.TakeRoutine(&overlapped, &out));
  EXPECT_EQ(out.routine, &First);
  ASSERT_TRUE(table.TakeRoutine(&overlapped, &out));
  EXPECT_EQ(out.routine, &Second);
}

TEST_F(PendingReceivesTest, ASocketsEntriesGoWithoutTheOthers) {
  for (int i = 0; i < 3; ++i) {
    table.Add(Make(7));
    table.Add(Make(8));
  }
  table.DropAllOf(7);
  EXPECT_EQ(table.Find(7, &overlapped), 0u);
  EXPECT_NE(table.Find(8, &overlapped), 0u);
  EXPECT_TRUE(table.Drop(8, &overlapped)) << "all three";
  EXPECT_TRUE(table.IsEmpty());
}

TEST_F(PendingReceivesTest, ARoutineIsThatOfTheThreadThatBeganTheReceive) {
  table.Add(Make(7, First));
  test::RunThread([this] {
    table.Add(Make(7, Second));
    PendingReceive out;
    ASSERT_TRUE(table.TakeRoutine(&overlapped, &out));
    EXPECT_EQ(out.routine, &Second);
  });
  PendingReceive out;
  ASSERT_TRUE(table.TakeRoutine(&overlapped, &out));
  EXPECT_EQ(out.routine, &First);
}

TEST_F(PendingReceivesTest, ThePlacesOfThreadsThatHaveEndedAreFreeAgain) {
  test::RunThread([this] {
    for (u32 i = 0; i < PendingReceives::kPlaces - 1; ++i) table.Add(Make(7, First));
  });
  WSAOVERLAPPED own = {};
  PendingReceive kept = Make(7, Second);
  kept.overlapped = &own;
  const u64 first = table.Add(kept);
  WSAOVERLAPPED other = {};
  PendingReceive next = Make(7, First);
  next.overlapped = &other;
  EXPECT_NE(table.Add(next), 0u);
  PendingReceive out;
  EXPECT_FALSE(table.TakeRoutine(&overlapped, &out));
  EXPECT_EQ(table.Find(7, &own), first) << "its thread lives";
  EXPECT_TRUE(table.TakeRoutine(&own, &out));
  EXPECT_TRUE(table.TakeRoutine(&other, &out));
  EXPECT_TRUE(table.IsEmpty());
}

// Where an event's entry lives on, nothing of it depends on a thread.
TEST_F(PendingReceivesTest, AnEventsEntryOutlivesItsThread) {
  test::RunThread([this] { table.Add(Make()); });
  WSAOVERLAPPED other = {};
  for (u32 i = 1; i < PendingReceives::kPlaces; ++i) {
    PendingReceive one = Make();
    one.overlapped = &other;
    ASSERT_NE(table.Add(one), 0u);
  }
  EXPECT_EQ(table.Add(Make()), 0u);
  EXPECT_NE(table.Find(7, &overlapped), 0u);
}

TEST_F(PendingReceivesTest, HasSoManyPlaces) {
  for (u32 i = 0; i < PendingReceives::kPlaces; ++i) EXPECT_NE(table.Add(Make()), 0u);
  EXPECT_EQ(table.Add(Make()), 0u);
  table.DropAll();
  EXPECT_NE(table.Add(Make()), 0u);
}

}  // namespace
}  // namespace moru_vyr::lsp
