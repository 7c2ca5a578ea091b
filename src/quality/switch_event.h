// What the judge of a link tells the session that owns it, and a session on trial tells its parent.
//
// Called on the worker thread, from within the receiver's own calls to its RecoverySwitch and
// RealRouteSpeedTest: neither may be destroyed in there. Nothing throws.
#pragma once
#include "common/types.h"

namespace moru_vyr::lsp {

struct RecoverySwitchRecord;

// Values of NotifySwitchState.
inline constexpr int kSwitchVerified = 1;   // the new node passed; data goes out through it
inline constexpr int kSwitchTakenOver = 2;  // it has sent data; its socket is handed over

class ISwitchEvent {
 public:
  virtual ~ISwitchEvent() = default;
  // The link is bad: move to another node. True: the move has begun, and whoever carries it out
  // submits `report`, of which it keeps a copy, with the outcome. False: a switch is still running.
  virtual bool FireSwitch(const RecoverySwitchRecord* report) noexcept = 0;
  // The verdict on a link on trial.
  virtual void NotifyVerifyResult(bool ok) noexcept = 0;
  virtual void NotifySwitchState(int state) noexcept = 0;
};

}  // namespace moru_vyr::lsp
