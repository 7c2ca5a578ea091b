// The verdict on a route, and the reason for a socket's outcome.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

// The client program's verdict, as it is in each reference of the route table. Any other value is
// unknown and does not accelerate.
enum Decision : u32 {
  DECISION_ACCE = 0,
  DECISION_DIRECT = 1,
  DECISION_NOT_ACCE_SAME_ISP = 2,
  DECISION_NOT_ACCE = 3,
  DECISION_FORCE_ACCE_AUTO = 4,
  DECISION_OVER_MAX_BOTH = 5,
  DECISION_OVER_MAX_DELAY = 6,
  DECISION_OVER_MAX_LOST = 7,
  DECISION_FORCE_ACCE_MANUAL = 8,
};

// acc_reason, for the reports. The first ten correspond to verdicts, the rest are reasons why there
// was none. 5 is unused.
enum AccReason : i32 {
  kReasonUnknown = -1,
  kReasonAcce = 0,
  kReasonDirect = 1,
  kReasonSameIsp = 7,
  kReasonNotAcce = 10,
  kReasonForceAuto = 11,
  kReasonOverMaxBoth = 12,
  kReasonOverMaxDelay = 13,
  kReasonOverMaxLost = 14,
  kReasonForceManual = 16,

  kReasonInnerIp = 2,
  kReasonNotInIpTable = 3,
  kReasonExcludedPort = 4,
  kReasonNoRoute = 6,
  kReasonNoIpTable = 8,
  kReasonNoRouteTable = 9,
  kReasonIsProxy = 15,
};

// The decision's name. Also stores its acc_reason, if the pointer is not null.
const char* DecisionName(u32 decision, i32* acc_reason) noexcept;

// Whether a socket with this decision goes through its proxy.
bool Accelerates(u32 decision) noexcept;

}  // namespace moru_vyr::lsp
