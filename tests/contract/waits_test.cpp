// Events, mutexes, critical sections, threads.
#include "tests/contract/world.h"

namespace contract {
namespace {

class Handle {
 public:
  explicit Handle(HANDLE handle) : handle_(handle) {}
  ~Handle() {
    if (handle_) CloseHandle(handle_);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  operator HANDLE() const { return handle_; }

 private:
  HANDLE handle_;
};

TEST(Event, AutoResetLetsOneWaiterThrough) {
  Handle event(CreateEventA(nullptr, FALSE, TRUE, nullptr));
  CHECK_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  CHECK_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
  CHECK_TRUE(SetEvent(event));
  CHECK_TRUE(SetEvent(event));  // set twice is set once
  CHECK_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  CHECK_EQ(WaitForSingleObject(event, 20), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST(Event, ManualResetStaysUntilReset) {
  Handle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  CHECK_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
  CHECK_TRUE(SetEvent(event));
  CHECK_EQ(WaitForSingleObject(event, 0), WAIT_OBJECT_0);
  CHECK_EQ(WaitForSingleObject(event, INFINITE), WAIT_OBJECT_0);
  CHECK_TRUE(ResetEvent(event));
  CHECK_EQ(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_TIMEOUT));
}

TEST(Event, WakesAThreadThatWaits) {
  Handle go(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  Handle done(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  OnThread waiter([&] {
    CHECK_EQ(WaitForSingleObject(go, 10'000), WAIT_OBJECT_0);
    SetEvent(done);
  });
  SetEvent(go);
  CHECK_EQ(WaitForSingleObject(done, 10'000), WAIT_OBJECT_0);
}

TEST(Event, IsSharedByItsName) {
  const std::string name = UniqueName("event");
  CHECK_FAILS(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.c_str()),
              static_cast<HANDLE>(nullptr), ERROR_FILE_NOT_FOUND);
  Handle first(CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
  CHECK_EQ(GetLastError(), 0u);
  Handle second(CreateEventA(nullptr, TRUE, TRUE, name.c_str()));
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  // What the second asked for as its initial state does not count.
  CHECK_EQ(WaitForSingleObject(second, 0), static_cast<DWORD>(WAIT_TIMEOUT));
  Handle third(OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.c_str()));
  CHECK_TRUE(SetEvent(third));
  CHECK_EQ(WaitForSingleObject(first, 0), WAIT_OBJECT_0);
}

TEST(NamedObject, VanishesWithItsLastHandle) {
  const std::string name = UniqueName("event");
  HANDLE first = CreateEventA(nullptr, TRUE, TRUE, name.c_str());
  HANDLE second = OpenEventA(SYNCHRONIZE, FALSE, name.c_str());
  CHECK_TRUE(CloseHandle(first));
  CHECK_EQ(WaitForSingleObject(second, 0), WAIT_OBJECT_0);
  CHECK_TRUE(CloseHandle(second));
  CHECK_FAILS(OpenEventA(SYNCHRONIZE, FALSE, name.c_str()), static_cast<HANDLE>(nullptr),
              ERROR_FILE_NOT_FOUND);
}

TEST(NamedObject, NameOfAnotherKindIsAnInvalidHandle) {
  const std::string name = UniqueName("object");
  Handle event(CreateEventA(nullptr, TRUE, TRUE, name.c_str()));
  CHECK_FAILS(CreateMutexA(nullptr, FALSE, name.c_str()), static_cast<HANDLE>(nullptr),
              ERROR_INVALID_HANDLE);
  CHECK_FAILS(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()), static_cast<HANDLE>(nullptr),
              ERROR_INVALID_HANDLE);
  CHECK_FAILS(OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str()), static_cast<HANDLE>(nullptr),
              ERROR_INVALID_HANDLE);
}

TEST(NamedObject, NamesDifferByLetterCase) {
  const std::string name = UniqueName("event");
  Handle event(CreateEventA(nullptr, TRUE, TRUE, name.c_str()));
  std::string upper = name;
  upper[0] = 'E';
  CHECK_FAILS(OpenEventA(SYNCHRONIZE, FALSE, upper.c_str()), static_cast<HANDLE>(nullptr),
              ERROR_FILE_NOT_FOUND);
}

TEST(NamedObject, LocalPrefixIsTheDefault) {
  const std::string name = UniqueName("event");
  Handle plain(CreateEventA(nullptr, TRUE, TRUE, name.c_str()));
  Handle local(OpenEventA(SYNCHRONIZE, FALSE, ("Local\\" + name).c_str()));
  CHECK_NE(static_cast<HANDLE>(local), static_cast<HANDLE>(nullptr));
}

TEST(Handle, CannotBeClosedTwice) {
  HANDLE event = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  CHECK_TRUE(CloseHandle(event));
  CHECK_FAILS(CloseHandle(event), FALSE, ERROR_INVALID_HANDLE);
  CHECK_FAILS(SetEvent(event), FALSE, ERROR_INVALID_HANDLE);
  CHECK_FAILS(WaitForSingleObject(event, 0), static_cast<DWORD>(WAIT_FAILED), ERROR_INVALID_HANDLE);
}

TEST(Handle, OfAnotherKindIsInvalid) {
  Handle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
  CHECK_FAILS(ReleaseMutex(event), FALSE, ERROR_INVALID_HANDLE);
  DWORD size = 0;
  char byte = 0;
  CHECK_FALSE(ReadFile(event, &byte, 1, &size, nullptr));
}

TEST(Mutex, IsRecursive) {
  Handle mutex(CreateMutexA(nullptr, TRUE, nullptr));
  CHECK_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  CHECK_TRUE(ReleaseMutex(mutex));
  OnThread([&] { CHECK_EQ(WaitForSingleObject(mutex, 0), static_cast<DWORD>(WAIT_TIMEOUT)); });
  CHECK_TRUE(ReleaseMutex(mutex));
  OnThread([&] {
    CHECK_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    CHECK_TRUE(ReleaseMutex(mutex));
  });
  CHECK_FAILS(ReleaseMutex(mutex), FALSE, ERROR_NOT_OWNER);
}

TEST(Mutex, OnlyItsOwnerCanReleaseIt) {
  Handle mutex(CreateMutexA(nullptr, TRUE, nullptr));
  OnThread([&] { CHECK_FAILS(ReleaseMutex(mutex), FALSE, ERROR_NOT_OWNER); });
  CHECK_TRUE(ReleaseMutex(mutex));
}

TEST(Mutex, OfADeadOwnerIsReportedAsAbandonedToOneWaiter) {
  Handle mutex(CreateMutexA(nullptr, FALSE, nullptr));
  OnThread([&] {
    CHECK_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
    CHECK_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  });
  CHECK_EQ(WaitForSingleObject(mutex, 10'000), static_cast<DWORD>(WAIT_ABANDONED));
  CHECK_TRUE(ReleaseMutex(mutex));  // owned once, however often the ended thread had taken it
  CHECK_FAILS(ReleaseMutex(mutex), FALSE, ERROR_NOT_OWNER);
  CHECK_EQ(WaitForSingleObject(mutex, 0), WAIT_OBJECT_0);
  CHECK_TRUE(ReleaseMutex(mutex));
}

TEST(Mutex, IsSharedByItsName) {
  const std::string name = UniqueName("mutex");
  Handle first(CreateMutexA(nullptr, TRUE, name.c_str()));
  Handle second(CreateMutexA(nullptr, TRUE, name.c_str()));
  CHECK_EQ(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS));
  // Asking for ownership has an effect for the first creator alone.
  CHECK_TRUE(ReleaseMutex(second));
  CHECK_FAILS(ReleaseMutex(second), FALSE, ERROR_NOT_OWNER);
  Handle third(OpenMutexA(SYNCHRONIZE, FALSE, name.c_str()));
  CHECK_EQ(WaitForSingleObject(third, 0), WAIT_OBJECT_0);
  CHECK_TRUE(ReleaseMutex(first));
}

TEST(Mutex, KeepsOthersOut) {
  Handle mutex(CreateMutexA(nullptr, FALSE, nullptr));
  int count = 0;
  auto add = [&] {
    for (int i = 0; i < 200; ++i) {
      WaitForSingleObject(mutex, INFINITE);
      ++count;
      ReleaseMutex(mutex);
    }
  };
  { OnThread one(add), two(add), three(add); }
  CHECK_EQ(count, 600);
}

TEST(CriticalSection, IsRecursiveAndExcludesOtherThreads) {
  CRITICAL_SECTION section;
  InitializeCriticalSection(&section);
  EnterCriticalSection(&section);
  CHECK_TRUE(TryEnterCriticalSection(&section));
  LeaveCriticalSection(&section);
  OnThread([&] { CHECK_FALSE(TryEnterCriticalSection(&section)); });
  LeaveCriticalSection(&section);
  OnThread([&] {
    CHECK_TRUE(TryEnterCriticalSection(&section));
    LeaveCriticalSection(&section);
  });
  int count = 0;
  auto add = [&] {
    for (int i = 0; i < 1000; ++i) {
      EnterCriticalSection(&section);
      ++count;
      LeaveCriticalSection(&section);
    }
  };
  { OnThread one(add), two(add), three(add), four(add); }
  CHECK_EQ(count, 4000);
  DeleteCriticalSection(&section);
}

DWORD WINAPI ReturnSeven(LPVOID) { return 7; }
DWORD WINAPI SleepForGood(LPVOID parameter) {
  SetEvent(static_cast<HANDLE>(parameter));
  Sleep(INFINITE);
  return 1;
}
DWORD WINAPI WaitForGood(LPVOID parameter) {
  HANDLE never = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  SetEvent(static_cast<HANDLE>(parameter));
  WaitForSingleObject(never, INFINITE);
  return 1;
}

TEST(Thread, HasItsExitCodeAfterItHasEnded) {
  DWORD id = 0;
  Handle thread(CreateThread(nullptr, 0, ReturnSeven, nullptr, 0, &id));
  CHECK_NE(id, 0u);
  CHECK_NE(id, GetCurrentThreadId());
  CHECK_EQ(WaitForSingleObject(thread, 10'000), WAIT_OBJECT_0);
  CHECK_EQ(WaitForSingleObject(thread, 0), WAIT_OBJECT_0);  // stays signalled
  DWORD code = 0;
  CHECK_TRUE(GetExitCodeThread(thread, &code));
  CHECK_EQ(code, 7u);
}

TEST(Thread, CanBeTerminatedInAnyWait) {
  for (LPTHREAD_START_ROUTINE body : {SleepForGood, WaitForGood}) {
    Handle running(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    Handle thread(CreateThread(nullptr, 0, body, static_cast<HANDLE>(running), 0, nullptr));
    CHECK_EQ(WaitForSingleObject(running, 10'000), WAIT_OBJECT_0);
    DWORD code = 0;
    CHECK_TRUE(GetExitCodeThread(thread, &code));
    CHECK_EQ(code, static_cast<DWORD>(STILL_ACTIVE));
    CHECK_EQ(WaitForSingleObject(thread, 0), static_cast<DWORD>(WAIT_TIMEOUT));
    CHECK_TRUE(TerminateThread(thread, 42));
    CHECK_EQ(WaitForSingleObject(thread, 10'000), WAIT_OBJECT_0);
    CHECK_TRUE(GetExitCodeThread(thread, &code));
    CHECK_EQ(code, 42u);
  }
}

TEST(Thread, IsFoundByItsIdWhileItRuns) {
  Handle running(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  DWORD id = 0;
  Handle thread(CreateThread(nullptr, 0, SleepForGood, static_cast<HANDLE>(running), 0, &id));
  CHECK_EQ(WaitForSingleObject(running, 10'000), WAIT_OBJECT_0);
  Handle found(OpenThread(SYNCHRONIZE, FALSE, id));
  CHECK_NE(static_cast<HANDLE>(found), static_cast<HANDLE>(nullptr));
  CHECK_EQ(WaitForSingleObject(found, 0), static_cast<DWORD>(WAIT_TIMEOUT));
  CHECK_TRUE(TerminateThread(thread, 0));
  CHECK_EQ(WaitForSingleObject(found, 10'000), WAIT_OBJECT_0);
  // The platform may or may not still find it; a handle then says that it has ended.
  Handle late(OpenThread(SYNCHRONIZE, FALSE, id));
  if (late != nullptr) {
    CHECK_EQ(WaitForSingleObject(late, 0), WAIT_OBJECT_0);
  }
}

TEST(Thread, WithAnUnknownIdIsAnInvalidParameter) {
  CHECK_FAILS(OpenThread(SYNCHRONIZE, FALSE, 0x7ffffff0), static_cast<HANDLE>(nullptr),
              ERROR_INVALID_PARAMETER);
}

struct Held {
  HANDLE mutex, running;
};
DWORD WINAPI HoldForGood(LPVOID parameter) {
  const Held held = *static_cast<Held*>(parameter);
  WaitForSingleObject(held.mutex, INFINITE);
  SetEvent(held.running);
  Sleep(INFINITE);
  return 0;
}

TEST(Thread, EndedFromOutsideAbandonsItsMutexes) {
  Handle running(CreateEventA(nullptr, FALSE, FALSE, nullptr));
  Handle mutex(CreateMutexA(nullptr, FALSE, nullptr));
  Held held = {mutex, running};
  Handle thread(CreateThread(nullptr, 0, HoldForGood, &held, 0, nullptr));
  CHECK_EQ(WaitForSingleObject(running, 10'000), WAIT_OBJECT_0);
  CHECK_EQ(WaitForSingleObject(mutex, 0), static_cast<DWORD>(WAIT_TIMEOUT));
  CHECK_TRUE(TerminateThread(thread, 0));
  CHECK_EQ(WaitForSingleObject(mutex, 10'000), static_cast<DWORD>(WAIT_ABANDONED));
  CHECK_TRUE(ReleaseMutex(mutex));
}

TEST(LastError, BelongsToEachThread) {
  SetLastError(11);
  OnThread([&] {
    CHECK_EQ(GetLastError(), 0u);
    SetLastError(22);
  });
  // The join itself may have set it; the other thread's value must not be here.
  CHECK_NE(GetLastError(), 22u);
  WSASetLastError(33);
  CHECK_EQ(GetLastError(), 33u);  // one number for both families
}

}  // namespace
}  // namespace contract
