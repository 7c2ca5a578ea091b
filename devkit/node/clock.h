// The node's time: milliseconds since the clock was made.
#pragma once
#include "node/socket.h"

namespace node {

class Clock {
 public:
  Clock();

  u64 Now() const { return Passed(0); }

  // How far the present, rounded up, is past an earlier Now(). A delay begins there: begun at
  // Now(), which leaves out a part of a millisecond, it would be shorter than its name says.
  u64 Since(u64 now) const { return Passed(per_second_ - 1) - now; }

 private:
  u64 Passed(u64 more) const;

  u64 per_second_;
  u64 start_;
};

}  // namespace node
