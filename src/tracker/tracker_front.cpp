// The worker's calls: without a Tracker they do nothing, and nothing is thrown. Running out of
// memory costs a report.
#include <new>
#include <utility>

#include "tracker/tracker.h"
#include "tracker/tracker_impl.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kTimerIntervalMs = 5000;

// The result of `call`, or false if there is no Tracker or no memory for an answer.
template <typename Call>
bool Ask(Tracker* tracker, const Call& call) noexcept {
  if (tracker == nullptr) return false;
  try {
    return call(*tracker);
  } catch (...) {
    return false;
  }
}

template <typename Call>
void Tell(Tracker* tracker, const Call& call) noexcept {
  Ask(tracker, [&call](Tracker& t) {
    call(t);
    return true;
  });
}

}  // namespace

void TrackerFront::Init(WorkerGone gone) noexcept {
  Tell(tracker_, [gone](Tracker& t) { t.Init(gone); });
}

void TrackerFront::UnInit() noexcept {
  Tell(tracker_, [](Tracker& t) { t.UnInit(); });
}

// Kept: the sum wraps with the tick counter.
void TrackerFront::OnTimer(u32 now) noexcept {
  Tell(tracker_, [now](Tracker& t) {
    const u32 last = t.last_timer_tick();
    if (last != 0 && last + kTimerIntervalMs >= now) return;
    t.set_last_timer_tick(now);
    t.SnapshotCommInfo(false);
  });
}

void TrackerFront::AddToWatchList(SOCKET socket, u32 type, u32 token) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.AddToWatchList(socket, type, token); });
}

void TrackerFront::RemoveFromWatchList(SOCKET socket) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.RemoveFromWatchList(socket); });
}

void TrackerFront::NoteGameServer(SOCKET socket, const char* ip, u16 port) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.NoteGameServer(socket, ip, port); });
}

void TrackerFront::SetAcceInfo(SOCKET socket, bool is_acce,
                               const AccDecisionInfo* decision) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.SetAcceInfo(socket, is_acce, *decision); });
}

void TrackerFront::RecordNegSuccess(SOCKET socket, u32 user_isp, u32 user_ip, u32 last_node_id,
                                    u32 last_node_ip, const AccDecisionInfo* decision) noexcept {
  Tell(tracker_, [=](Tracker& t) {
    t.RecordNegSuccess(socket, user_isp, user_ip, last_node_id, last_node_ip, *decision);
  });
}

void TrackerFront::RecordNegFailed(SOCKET socket, i32 neg_type, u32 nego_result,
                                   const AccDecisionInfo* decision, u32 elapsed_ms,
                                   u32 tries) noexcept {
  Tell(tracker_, [=](Tracker& t) {
    t.RecordNegFailed(socket, neg_type, nego_result, *decision, elapsed_ms, tries);
  });
}

void TrackerFront::SetConnectResult(SOCKET socket, i32 value) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.SetConnectResult(socket, value); });
}

void TrackerFront::RecordSend(SOCKET socket, u32 bytes, int error) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.RecordSend(socket, bytes, error); });
}

void TrackerFront::RecordRecv(SOCKET socket, u32 bytes, int error) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.RecordRecv(socket, bytes, error); });
}

bool TrackerFront::GetSpeedTestResult(SOCKET socket, SpeedStats* out) noexcept {
  return Ask(tracker_, [=](Tracker& t) { return t.GetSpeedTestResult(socket, out); });
}

bool TrackerFront::SetSpeedTestResult(SOCKET socket, const SpeedStats* stats) noexcept {
  return Ask(tracker_, [=](Tracker& t) { return t.SetSpeedTestResult(socket, *stats); });
}

bool TrackerFront::GetPacketCounts(SOCKET socket, u32* sent, u32* received) noexcept {
  return Ask(tracker_, [=](Tracker& t) { return t.GetPacketCounts(socket, sent, received); });
}

void TrackerFront::SetRecoveryInfo(SOCKET socket, const char* text) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.SetRecoveryInfo(socket, text); });
}

void TrackerFront::SubmitRecoverySwitch(const RecoverySwitchRecord* record) noexcept {
  Tell(tracker_, [=](Tracker& t) { t.SubmitRecoverySwitch(*record); });
}

TrackerFront& GetTracker() noexcept {
  static TrackerFront front(new (std::nothrow) Tracker);
  return front;
}

}  // namespace moru_vyr::lsp
