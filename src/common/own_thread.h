// The threads that this library makes, as its locks know them.
//
// There are few: the relay's worker and the Tracker's reporting thread. Each may have to be ended
// by force, wherever it is, and what it has locked then stays locked. So each is known here by a
// name that no other thread of the process ever has again, and two things follow:
// - EndByForce does not end a thread while it holds a lock of ours, so nothing that a lock guards
//   is left half changed;
// - a lock whose holder has ended all the same (whoever ended it) goes to the next that asks for
//   it, see lock.h.
// Any thread may ask. Nothing throws, and nothing here waits for a lock.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include "common/types.h"

namespace common {

// Stands in the outermost frame of a thread of ours, for the thread's whole life.
class OwnThread {
 public:
  OwnThread() noexcept;
  ~OwnThread();
  OwnThread(const OwnThread&) = delete;
  OwnThread& operator=(const OwnThread&) = delete;

  u32 name() const noexcept { return name_; }

  // The calling thread's; 0 for a thread that is not ours.
  static u32 NameOfCaller() noexcept;

 private:
  u32 name_ = 0;  // 0 where there is no room for one more: then it is a thread like any other
};

// Whether the thread of that name has ended, in whatever way; of a thread that is not ours, whether
// there is none of that id any more. False for 0.
bool HasEnded(u32 who) noexcept;

// Ends a thread of ours by force. Waits up to 100 ms for it to let go of our locks, and as long for
// it to be gone. `name` may be 0 for a thread that has not come to naming itself.
void EndByForce(HANDLE thread, u32 name) noexcept;

// For locks. Who the calling thread is to them: its name, or its id where it is not ours. Names and
// ids never meet.
u32 BeginLock() noexcept;        // it may hold one more lock now; does not return in a thread that
                                 // is about to be ended
void EndLock(u32 who) noexcept;  // it holds one fewer
bool IsOwnName(u32 who) noexcept;

}  // namespace common
