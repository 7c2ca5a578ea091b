#pragma once

#include "common/named_mutex.h"

namespace client {

// A named mutex with a limit to the wait for it. A region's own object waits without limit; the
// mutexes are recursive, so whoever holds one of these does not wait there.
class BoundedLock {
 public:
  BoundedLock(const char* name, unsigned wait_ms);
  ~BoundedLock();
  BoundedLock(const BoundedLock&) = delete;
  BoundedLock& operator=(const BoundedLock&) = delete;

  bool exists() const { return mutex_.exists(); }
  bool owns() const { return owns_; }

 private:
  common::NamedMutex mutex_;
  bool owns_ = false;
};

}  // namespace client
