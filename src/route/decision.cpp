#include "route/decision.h"

namespace moru_vyr::lsp {
namespace {

struct DecisionRow {
  u32 decision;
  const char* name;
  bool accelerates;
  i32 acc_reason;
};

constexpr DecisionRow kDecisions[] = {
    {DECISION_ACCE, "DECISION_ACCE", true, kReasonAcce},
    {DECISION_DIRECT, "DECISION_DIRECT", false, kReasonDirect},
    {DECISION_NOT_ACCE_SAME_ISP, "DECISION_NOT_ACCE_SAME_ISP", false, kReasonSameIsp},
    {DECISION_NOT_ACCE, "DECISION_NOT_ACCE", false, kReasonNotAcce},
    {DECISION_FORCE_ACCE_AUTO, "DECISION_FORCE_ACCE_AUTO", true, kReasonForceAuto},
    {DECISION_OVER_MAX_BOTH, "DECISION_OVER_MAX_BOTH", false, kReasonOverMaxBoth},
    {DECISION_OVER_MAX_DELAY, "DECISION_OVER_MAX_DELAY", false, kReasonOverMaxDelay},
    {DECISION_OVER_MAX_LOST, "DECISION_OVER_MAX_LOST", false, kReasonOverMaxLost},
    {DECISION_FORCE_ACCE_MANUAL, "DECISION_FORCE_ACCE_MANUAL", true, kReasonForceManual},
};
constexpr DecisionRow kUnknown = {0, "DECISION_UNKNOWN", false, kReasonUnknown};

const DecisionRow& RowOf(u32 decision) noexcept {
  for (const DecisionRow& row : kDecisions)
    if (row.decision == decision) return row;
  return kUnknown;
}

}  // namespace

const char* DecisionName(u32 decision, i32* acc_reason) noexcept {
  const DecisionRow& row = RowOf(decision);
  if (acc_reason != nullptr) *acc_reason = row.acc_reason;
  return row.name;
}

bool Accelerates(u32 decision) noexcept { return RowOf(decision).accelerates; }

}  // namespace moru_vyr::lsp
