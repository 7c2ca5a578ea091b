// A mutex shared by name. Threads stand in for other processes: a mutex is owned by a thread.
#include "common/named_mutex.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/threads.h"

namespace {

using common::NamedMutex;
using common::NamedMutexGuard;

std::string Name(const char* what) {
  return std::string("vyr_unit_") + what + "_" + std::to_string(GetCurrentProcessId());
}

bool OtherThreadGets(const std::string& name) {
  bool got = false;
  test::RunThread([&] {
    NamedMutex mutex(name);
    got = mutex.try_lock();
    if (got) mutex.unlock();
  });
  return got;
}

TEST(NamedMutex, SameNameIsTheSameMutex) {
  const std::string name = Name("shared");
  NamedMutex mutex(name);
  mutex.lock();
  EXPECT_FALSE(OtherThreadGets(name));
  EXPECT_TRUE(OtherThreadGets(name + "_other"));
  mutex.unlock();
  EXPECT_TRUE(OtherThreadGets(name));
}

TEST(NamedMutex, OwnerCanTakeItAgain) {
  const std::string name = Name("recursive");
  NamedMutex mutex(name);
  mutex.lock();
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
  EXPECT_FALSE(OtherThreadGets(name));
  mutex.unlock();
  EXPECT_TRUE(OtherThreadGets(name));
}

TEST(NamedMutex, DestructionDoesNotRelease) {
  const std::string name = Name("destroyed");
  NamedMutex keeps_it_alive(name);
  { NamedMutex(name).lock(); }
  EXPECT_FALSE(OtherThreadGets(name));
  keeps_it_alive.unlock();
  EXPECT_TRUE(OtherThreadGets(name));
}

TEST(NamedMutex, LockTakesTheMutexOfADeadOwner) {
  const std::string name = Name("abandoned");
  NamedMutex mutex(name);
  test::RunThread([&] { NamedMutex(name).lock(); });
  mutex.lock();
  EXPECT_FALSE(OtherThreadGets(name));
  mutex.unlock();
  EXPECT_TRUE(OtherThreadGets(name));
}

TEST(NamedMutex, TryLockRefusesWhatADeadOwnerLeftOnce) {
  const std::string name = Name("abandoned_try");
  NamedMutex mutex(name);
  test::RunThread([&] { NamedMutex(name).lock(); });
  EXPECT_FALSE(mutex.try_lock());
  EXPECT_TRUE(OtherThreadGets(name));  // a refusal must not keep it
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
}

// An event has that name: the mutex does not exist, and nobody hangs.
TEST(NamedMutex, WithoutAMutexEveryCallReturnsAtOnce) {
  const std::string name = Name("event");
  const HANDLE event = CreateEventA(nullptr, TRUE, FALSE, name.c_str());
  ASSERT_NE(event, nullptr);
  {
    NamedMutex mutex(name);
    EXPECT_FALSE(mutex.exists());
    mutex.lock();
    EXPECT_FALSE(mutex.try_lock());
    mutex.unlock();
    const NamedMutexGuard guard(&mutex, false);
  }
  CloseHandle(event);
}

TEST(NamedMutexGuard, HoldsForItsScope) {
  const std::string name = Name("guard");
  NamedMutex mutex(name);
  {
    const NamedMutexGuard guard(&mutex, false);
    EXPECT_TRUE(guard.owns());
    EXPECT_FALSE(OtherThreadGets(name));
  }
  EXPECT_TRUE(OtherThreadGets(name));
}

TEST(NamedMutexGuard, TryingGuardReleasesOnlyAMutexThatItTook) {
  const std::string name = Name("trying_guard");
  NamedMutex mutex(name);
  {
    const NamedMutexGuard guard(&mutex, true);
    EXPECT_TRUE(guard.owns());
  }
  EXPECT_TRUE(OtherThreadGets(name));

  mutex.lock();
  test::RunThread([&] {
    NamedMutex other(name);
    const NamedMutexGuard guard(&other, true);
    EXPECT_FALSE(guard.owns());
  });
  EXPECT_FALSE(OtherThreadGets(name));
  mutex.unlock();
}

}  // namespace
