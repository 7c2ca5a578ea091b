// Threads of the library that are terminated, and what they had locked. At stake: the game's next
// call that needs such a lock must return, and find what the lock guards intact.
#include "common/own_thread.h"

#include <gtest/gtest.h>

#include <functional>

#include "common/lock.h"
#include "common/log_file.h"
#include "port/shared/faults.h"
#include "port/sim/scenario.h"

namespace {

using common::EndByForce;
using common::HasEnded;
using common::Lock;
using common::Mutex;
using common::OwnThread;

class OwnThreads : public sim::ScenarioTest {
 protected:
  // One of the library's threads: it runs the body and then waits for its end.
  void Starts(std::function<void()> body) {
    body_ = std::move(body);
    thread = CreateThread(nullptr, 0, Run, this, 0, &id);
    RunFor(1ms);
  }
  common::u32 MsOf(const std::function<void()>& body) {
    const common::u32 start = GetTickCount();
    body();
    return GetTickCount() - start;
  }

  HANDLE thread = nullptr;
  DWORD id = 0;
  common::u32 name = 0;
  Mutex mutex;

 private:
  static DWORD WINAPI Run(LPVOID parameter) {
    auto& self = *static_cast<OwnThreads*>(parameter);
    const OwnThread own;
    self.name = own.name();
    self.body_();
    Sleep(INFINITE);
    return 0;
  }
  std::function<void()> body_;
};

SCENARIO_F(OwnThreads, HaveANameUntilTheyEnd) {
  EXPECT_EQ(OwnThread::NameOfCaller(), 0u);
  EXPECT_FALSE(HasEnded(0));
  common::u32 inside = 0;
  Starts([&] { inside = OwnThread::NameOfCaller(); });
  EXPECT_NE(name, 0u);
  EXPECT_EQ(inside, name);
  EXPECT_FALSE(HasEnded(name));
  EndByForce(thread, name);
  EXPECT_TRUE(HasEnded(name));
  const common::u32 first = name;
  Starts([] {});
  EXPECT_NE(name, first) << "a name is never another's";
}

SCENARIO_F(OwnThreads, ThatAreTerminatedFromOutsideCountAsEnded) {
  Starts([] {});
  TerminateThread(thread, 1);
  EXPECT_TRUE(HasEnded(name));
}

// There are few names, and they are reused.
SCENARIO_F(OwnThreads, ThatHaveEndedFreeTheirSlots) {
  for (int i = 0; i < 20; ++i) {
    Starts([] {});
    EXPECT_NE(name, 0u) << i;
    if (i % 2 == 0) {
      EndByForce(thread, name);
    } else {
      TerminateThread(thread, 1);
      EXPECT_TRUE(HasEnded(name));
    }
  }
}

SCENARIO_F(OwnThreads, ALockOfAnEndedThreadGoesToTheNext) {
  Starts([&] {
    mutex.lock();
    mutex.lock();
  });
  EXPECT_FALSE(mutex.try_lock());
  EXPECT_FALSE(mutex.inherit_lock()) << "it lives";
  TerminateThread(thread, 1);
  EXPECT_FALSE(mutex.try_lock()) << "a try does not look";
  EXPECT_LT(MsOf([&] { mutex.lock(); }), 5u);
  world.Spawn(world.home(), "other", [&] { EXPECT_FALSE(mutex.inherit_lock()); });
  RunFor(1ms);
  mutex.unlock();  // once, however often the ended thread had taken it
  EXPECT_TRUE(mutex.try_lock());
}

// A thread that already waits when the holder ends.
SCENARIO_F_SEEDS(OwnThreads, WaitersOfALockGetItOneAfterTheOther, 20) {
  Starts([&] { mutex.lock(); });
  int inside = 0, done = 0;
  for (int i = 0; i < 5; ++i) {
    world.Spawn(world.home(), "", [&] {
      const Lock hold(mutex);
      EXPECT_EQ(++inside, 1);
      Sleep(static_cast<DWORD>(world.random().Below(3)));
      --inside;
      ++done;
    });
  }
  RunFor(1s);
  EXPECT_EQ(done, 0);
  TerminateThread(thread, 1);
  RunFor(1s);
  EXPECT_EQ(done, 5);
}

// A thread of the host that ended with the lock, as all other threads do at the end of a process. A
// caller that can do without the lock skips it; one that waits gets it.
SCENARIO_F(OwnThreads, ALockOfAnEndedForeignThreadGoesToTheWaiter) {
  const DWORD other = world.Spawn(world.home(), "other", [&] {
    mutex.lock();
    mutex.lock();
    Sleep(INFINITE);
  });
  RunFor(1ms);
  bool done = false;
  world.Spawn(world.home(), "waits", [&] {
    const Lock hold(mutex);
    done = true;
  });
  RunFor(1s);
  EXPECT_FALSE(done) << "it lives";
  world.Terminate(other);
  EXPECT_FALSE(mutex.inherit_lock());
  RunFor(100ms);
  EXPECT_TRUE(done);
  EXPECT_TRUE(mutex.try_lock()) << "and lets go of it";
}

SCENARIO_F(OwnThreads, AreNotEndedInTheMiddleOfWhatALockGuards) {
  int begun = 0, finished = 0;
  Starts([&] {
    for (;;) {
      const Lock hold(mutex);
      ++begun;
      Sleep(30);
      ++finished;
    }
  });
  for (int i = 0; i < 1000 && begun == finished; ++i) RunFor(1ms);
  ASSERT_NE(begun, finished);
  EXPECT_LE(MsOf([&] { EndByForce(thread, name); }), 31u);
  EXPECT_FALSE(world.IsRunning(id));
  EXPECT_EQ(begun, finished);
  EXPECT_TRUE(mutex.try_lock()) << "it was let go";
}

// Not between two locks either, of which it holds one.
SCENARIO_F(OwnThreads, ThatHoldOneLockCanTakeAnother) {
  Mutex inner;
  int begun = 0, finished = 0;
  Starts([&] {
    for (;;) {
      const Lock hold(mutex);
      ++begun;
      Sleep(20);
      const Lock hold_inner(inner);
      ++finished;
    }
  });
  for (int i = 0; i < 1000 && begun == finished; ++i) RunFor(1ms);
  ASSERT_NE(begun, finished);
  EXPECT_LE(MsOf([&] { EndByForce(thread, name); }), 21u);
  EXPECT_EQ(begun, finished);
}

// A thread that has stopped while it holds a lock cannot be waited for.
SCENARIO_F(OwnThreads, AreTerminatedEvenIfTheyKeepTheirLock) {
  Starts([&] {
    mutex.lock();
    Sleep(INFINITE);
  });
  const common::u32 took = MsOf([&] { EndByForce(thread, name); });
  EXPECT_GE(took, 100u);
  EXPECT_LE(took, 101u);
  EXPECT_FALSE(world.IsRunning(id));
  EXPECT_LT(MsOf([&] { mutex.lock(); }), 5u);
}

SCENARIO_F(OwnThreads, ThatHoldNothingAreEndedAtOnce) {
  Starts([] {});
  EXPECT_EQ(MsOf([&] { EndByForce(thread, name); }), 0u);
  EXPECT_FALSE(world.IsRunning(id));
}

// Those of our threads that wait for a lock and find its holder gone: one gets it, and the others
// must not count as its holders, for a thread that holds a lock is not ended.
SCENARIO_F_SEEDS(OwnThreads, ThatLoseTheRaceForALockHoldNothing, 20) {
  struct Waiter {
    static DWORD WINAPI Run(LPVOID parameter) {
      auto& self = *static_cast<Waiter*>(parameter);
      const OwnThread own;
      self.name = own.name();
      { const Lock hold(*self.mutex); }
      Sleep(INFINITE);
      return 0;
    }
    Mutex* mutex;
    HANDLE thread = nullptr;
    common::u32 name = 0;
  };
  const DWORD holder = world.Spawn(world.home(), "other", [&] {
    mutex.lock();
    Sleep(INFINITE);
  });
  RunFor(1ms);
  Waiter waiters[3] = {{&mutex}, {&mutex}, {&mutex}};
  for (Waiter& one : waiters) {
    one.thread = CreateThread(nullptr, 0, Waiter::Run, &one, 0, nullptr);
  }
  RunFor(200ms);
  world.Terminate(holder);
  RunFor(1s);
  for (Waiter& one : waiters) {
    EXPECT_NE(one.name, 0u);
    EXPECT_EQ(MsOf([&] { EndByForce(one.thread, one.name); }), 0u);
  }
}

// The system may refuse to end a thread. It goes on after a while, and what it holds counts as
// before.
SCENARIO_F(OwnThreads, OneThatCannotBeEndedGoesOn) {
  bool has_taken = false;
  Starts([&] {
    Sleep(10);
    const Lock hold(mutex);
    has_taken = true;
  });
  port::FailCall("TerminateThread", 1, ERROR_ACCESS_DENIED);
  EndByForce(thread, name);
  EXPECT_TRUE(world.IsRunning(id));
  EXPECT_FALSE(has_taken);
  RunFor(10s);
  EXPECT_TRUE(has_taken);
  EXPECT_EQ(MsOf([&] { EndByForce(thread, name); }), 0u);
  EXPECT_FALSE(world.IsRunning(id));
}

// Lines of the others must not be lost for the rest of the run.
SCENARIO_F(OwnThreads, OneThatIsEndedWhileItLogsDoesNotEndTheLog) {
  common::LogFile file;
  ASSERT_TRUE(file.Open("C:\\logs\\life.log"));
  bool at_the_disk = false;
  Starts([&] {
    const std::string line(1000, 'x');
    world.AtCall("home/thread1", 1, [&] {
      at_the_disk = true;
      world.Terminate(id);
    });
    file.Write(line, 5);
    file.Write(line, 5);  // the first is written out under the lock
  });
  EXPECT_TRUE(at_the_disk);
  EXPECT_TRUE(file.Write("another thread's\n", 5));
}

}  // namespace
