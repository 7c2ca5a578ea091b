#include "tracker/tracker.h"

namespace moru_vyr::lsp {

void TrackerFront::Init() noexcept {}
void TrackerFront::UnInit() noexcept {}
void TrackerFront::OnTimer(u32) noexcept {}
void TrackerFront::AddToWatchList(SOCKET, u32, u32) noexcept {}
void TrackerFront::RemoveFromWatchList(SOCKET) noexcept {}
void TrackerFront::NoteGameServer(SOCKET, const char*, u16) noexcept {}
void TrackerFront::SetAcceInfo(SOCKET, bool, const AccDecisionInfo*) noexcept {}
void TrackerFront::RecordNegSuccess(SOCKET, u32, u32, u32, u32, const AccDecisionInfo*) noexcept {}
void TrackerFront::RecordNegFailed(SOCKET, i32, u32, const AccDecisionInfo*, u32, u32) noexcept {}
void TrackerFront::SetConnectResult(SOCKET, i32) noexcept {}
void TrackerFront::RecordSend(SOCKET, u32, int) noexcept {}
void TrackerFront::RecordRecv(SOCKET, u32, int) noexcept {}
bool TrackerFront::GetSpeedTestResult(SOCKET, SpeedStats*) noexcept { return false; }
bool TrackerFront::SetSpeedTestResult(SOCKET, const SpeedStats*) noexcept { return false; }
bool TrackerFront::GetPacketCounts(SOCKET, u32*, u32*) noexcept { return tracker_ != nullptr; }
void TrackerFront::SetRecoveryInfo(SOCKET, const char*) noexcept {}
void TrackerFront::SubmitRecoverySwitch(const RecoverySwitchRecord*) noexcept {}

TrackerFront& GetTracker() noexcept {
  static TrackerFront front(nullptr);
  return front;
}

}  // namespace moru_vyr::lsp
