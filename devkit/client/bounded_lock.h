#pragma once

#include "common/named_mutex.h"

namespace client {

// A named mutex that is waited for so long and no longer. A region's own object waits without
// end; the mutexes are recursive, so holding one of these bounds that wait.
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
