// Edges of what all folders use: handles that are moved onto themselves, more threads of our own
// than have a name, and records that are asked for less than there is.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>

#include "common/handle.h"
#include "common/lock.h"
#include "common/own_thread.h"
#include "common/unix_time.h"
#include "sockets/check_and_bind.h"
#include "sockets/socket_map.h"
#include "tests/support/end_worker.h"
#include "tests/support/threads.h"

namespace moru_vyr::lsp {
namespace {

bool IsOpen(HANDLE event) { return SetEvent(event) != FALSE; }

TEST(UniqueHandle, ThatIsMovedOntoItselfStaysOpen) {
  common::UniqueHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  common::UniqueHandle& same = event;
  const HANDLE value = event.get();
  event = std::move(same);
  EXPECT_EQ(event.get(), value);
  EXPECT_TRUE(IsOpen(value));
  event = common::UniqueHandle();
  EXPECT_FALSE(IsOpen(value)) << "what it owned before is closed";
}

// A thread that finds no place for its name counts as one of the host, and takes nothing away.
TEST(OwnThreadNames, RunOutAndComeBack) {
  std::list<common::OwnThread> many(8);
  EXPECT_EQ(many.back().name(), 0u);
  many.clear();
  EXPECT_EQ(common::OwnThread::NameOfCaller(), 0u);
  const common::OwnThread next;
  EXPECT_NE(next.name(), 0u);
  EXPECT_EQ(common::OwnThread::NameOfCaller(), next.name());
}

// Two threads at a time, and those that follow them while they end.
TEST(OwnThreadNames, AreEnoughForFourThreads) {
  test::EndWorker();
  for (int round = 0; round < 2; ++round) {
    const std::list<common::OwnThread> many(8);
    EXPECT_EQ(std::count_if(many.begin(), many.end(), [](const auto& one) { return one.name(); }),
              4)
        << round;
  }
}

TEST(OwnThreadNames, TheLastThatIsFreeNamesItsThread) {
  std::list<common::OwnThread> others;
  while (others.emplace_back().name() != 0) continue;
  others.pop_back();
  ASSERT_FALSE(others.empty());
  others.pop_back();
  test::RunThread([] {
    const common::OwnThread own;
    EXPECT_NE(own.name(), 0u);
    EXPECT_EQ(common::OwnThread::NameOfCaller(), own.name());
  });
}

TEST(MutexOfAThread, IsReleasedAsOftenAsItWasTaken) {
  common::Mutex mutex;
  const auto is_free = [&] {
    bool taken = false;
    test::RunThread([&] {
      taken = mutex.try_lock();
      if (taken) mutex.unlock();
    });
    return taken;
  };
  ASSERT_TRUE(mutex.try_lock());
  ASSERT_TRUE(mutex.try_lock());
  mutex.unlock();
  EXPECT_FALSE(is_free());
  mutex.unlock();
  EXPECT_TRUE(is_free());
}

// From 1601 to 1970 there are 134774 days.
TEST(UnixTime, CountsFromTheFirstOfJanuary1970) {
  const auto ticks = [] {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return (common::u64{now.dwHighDateTime} << 32 | now.dwLowDateTime) -
           common::u64{134774} * 24 * 60 * 60 * 10'000'000;
  };
  const common::u64 before = ticks();
  const common::u64 now = common::UnixTicks();
  EXPECT_GE(now, before);
  EXPECT_LE(now, ticks());
}

// The name is gone before the lock is released.
TEST(OwnThreadNames, ALockMayOutliveTheNameOfItsHolder) {
  common::Mutex mutex;
  {
    const common::OwnThread own;
    mutex.lock();
  }
  mutex.unlock();
  bool taken = false;
  test::RunThread([&] {
    taken = mutex.try_lock();
    if (taken) mutex.unlock();
  });
  EXPECT_TRUE(taken);
}

DWORD WINAPI SleepsForEver(LPVOID) {
  for (;;) Sleep(1);
}

// It may not have come to name itself.
TEST(OwnThreadNames, AThreadWithoutANameCanBeEnded) {
  DWORD id = 0;
  const common::UniqueHandle thread(CreateThread(nullptr, 0, SleepsForEver, nullptr, 0, &id));
  ASSERT_TRUE(thread);
  Sleep(5);
  common::EndByForce(thread.get(), 0);
  EXPECT_EQ(WaitForSingleObject(thread.get(), 10'000), WAIT_OBJECT_0);
}

TEST(SocketRecords, AreSearchedWithoutAPlaceForEachAnswer) {
  SocketRecord record;
  sockaddr_in address = {};
  address.sin_addr.s_addr = 0x0A0A0A0A;
  bool relay = false;
  EXPECT_FALSE(SocketMap::FindRelayRecord(record, &address, &relay, nullptr));
  record.relay_records[0] = {0x0A0A0A0A, true};
  EXPECT_TRUE(SocketMap::FindRelayRecord(record, &address, nullptr, nullptr));
  EXPECT_TRUE(SocketMap::FindRelayRecord(record, &address, &relay, nullptr));
  EXPECT_TRUE(relay);
}

TEST(SocketRecords, ANullAddressChangesNoAddress) {
  SocketMap map;
  map.Add(77, SOCK_STREAM, IPPROTO_TCP, 9);
  sockaddr_in address = {};
  address.sin_port = htons(7);
  const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
  EXPECT_TRUE(map.SetHandledAddr(77, generic, sizeof address));
  EXPECT_TRUE(map.SetHandledAddr(77, nullptr, sizeof address));
  EXPECT_EQ(map.Get(77).handled_addr.sin_port, htons(7));
}

// A record without a provider below cannot be asked for the port.
TEST(SocketRecords, ASocketWithoutAProviderIsNotBound) {
  GetSocketMap().Add(0x777, SOCK_STREAM, IPPROTO_TCP, 9);
  u16 port = 5;
  EXPECT_FALSE(CheckAndBind(0x777, &port));
  EXPECT_EQ(port, 5);
  GetSocketMap().Remove(0x777);
}

}  // namespace
}  // namespace moru_vyr::lsp
