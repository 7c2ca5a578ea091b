// The threads that this library creates, as its locks see them.
//
// There are two: the relay's worker and the Tracker's reporting thread. Either may have to be
// terminated, wherever it is, and a lock that it holds would then stay locked. So each has a name
// here that no other thread of the process ever gets, and two things follow:
// - EndByForce does not end a thread while it holds one of our locks, so nothing that a lock guards
//   is left half changed;
// - a lock whose holder has been ended in some other way passes to the next thread that asks for
//   it, see lock.h.
// Any thread may ask. Nothing throws, and nothing here waits for a lock.
#pragma once
#include <winsock2.h>

#include "common/types.h"

namespace common {

// Belongs in the outermost frame of one of our threads, for the thread's whole life.
class OwnThread {
 public:
  OwnThread() noexcept;
  ~OwnThread();
  OwnThread(const OwnThread&) = delete;
  OwnThread& operator=(const OwnThread&) = delete;

  u32 name() const noexcept { return name_; }

  // The calling thread's name; 0 for a thread that is not ours.
  static u32 NameOfCaller() noexcept;

 private:
  u32 name_ = 0;  // 0 if there is no room for another: then it counts as a thread of the host
};

// Whether the thread of that name has ended in any way. For a thread that is not ours: whether its
// id is no longer in use. False for 0.
bool HasEnded(u32 who) noexcept;

// Terminates one of our threads. Waits up to 100 ms for it to release our locks, and as long for it
// to end. `name` may be 0 for a thread that has not named itself yet.
void EndByForce(HANDLE thread, u32 name) noexcept;

// For locks. The identity of the calling thread: its name, or its id if it is not ours. Names and
// ids never collide.
u32 BeginLock() noexcept;        // it may hold one more lock now; does not return in a thread that
                                 // is about to be ended
void EndLock(u32 who) noexcept;  // it holds one fewer
bool IsOwnName(u32 who) noexcept;

}  // namespace common
