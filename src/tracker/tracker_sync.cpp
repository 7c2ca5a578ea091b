// The Tracker's life, its snapshots, and the thread that writes what there is to report.
#include <windows.h>

#include <new>
#include <utility>

#include "common/log.h"
#include "common/own_thread.h"
#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "tracker/reports.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kPassIntervalMs = 20;  // between the sync thread's passes, at least
constexpr DWORD kPassPauseMs = 10;
constexpr DWORD kEventWaitMs = 100;
constexpr DWORD kUnInitWaitMs = 2000;
constexpr u32 kSnapshotIntervalMs = 1000;
constexpr u32 kTimerIntervalMs = 5000;

common::UniqueHandle MakeManualResetEvent() noexcept {
  return common::UniqueHandle(CreateEventA(nullptr, TRUE, FALSE, nullptr));
}

bool IsSignalled(const common::UniqueHandle& event) noexcept {
  return WaitForSingleObject(event.get(), kEventWaitMs) == WAIT_OBJECT_0;
}

}  // namespace

// Never destroyed: its thread may still write when the process ends.
Tracker& GetTracker() noexcept {
  alignas(Tracker) static u8 place[sizeof(Tracker)];
  static Tracker* const tracker = new (place) Tracker;
  return *tracker;
}

void Tracker::Init(WorkerGone gone) noexcept {
  if (initialized_) return;
  common::Lock hold(init_lock_);
  if (initialized_) return;
  LSP_LOG(0, "[Tracker] Init.");
  qos_ready_event_ = MakeManualResetEvent();
  if (!qos_ready_event_) {
    LSP_LOG(4, "[Tracker] Create Event [qos list ready] failed");
    return;
  }
  sync_ready_event_ = MakeManualResetEvent();
  if (!sync_ready_event_) {
    LSP_LOG(4, "[Tracker] Create Event [comm info sync ready] failed");
    return;
  }
  quit_.store(false, std::memory_order_relaxed);
  sync_name_.store(0, std::memory_order_relaxed);
  worker_name_ = common::OwnThread::NameOfCaller();
  gone_ = gone;
  thread_.Reset(CreateThread(nullptr, 0, SyncThread, this, 0, nullptr));
  LSP_LOG(0, "[Tracker] Sync Thread started.");
  initialized_ = true;
}

void Tracker::UnInit() noexcept {
  LSP_LOG(0, "[Tracker] UnInit.");
  SnapshotCommInfo(true);
  quit_.store(true, std::memory_order_relaxed);
  // The thread leaves its waits at once, so that stopping the worker does not take long.
  if (qos_ready_event_) SetEvent(qos_ready_event_.get());
  if (sync_ready_event_) SetEvent(sync_ready_event_.get());
  if (thread_) {
    // A client that keeps a mutex may delay the worker no longer than this.
    if (WaitForSingleObject(thread_.get(), kUnInitWaitMs) == WAIT_TIMEOUT) {
      common::EndByForce(thread_.get(), sync_name_.load(std::memory_order_relaxed));
    }
    thread_.Reset();
    LSP_LOG(0, "[Tracker] Sync Thread Ended");
  }
  qos_ready_event_.Reset();
  sync_ready_event_.Reset();
  initialized_ = false;
}

// Kept: the sum wraps with the tick counter, here and below.
void Tracker::OnTimer(u32 now) noexcept {
  if (last_timer_tick_ != 0 && last_timer_tick_ + kTimerIntervalMs >= now) return;
  last_timer_tick_ = now;
  SnapshotCommInfo(false);
}

void Tracker::SnapshotCommInfo(bool force) noexcept {
  const u32 now = GetTickCount();
  if (last_snapshot_tick_ != 0 && last_snapshot_tick_ + kSnapshotIntervalMs >= now && !force) {
    return;
  }
  common::Lock hold(snapshot_lock_);
  snapshot_.clear();
  for (auto& [socket, record] : watch_list_) {
    UpdateTimes(&record);
    if (!record.is_acce || !record.nego_success) continue;
    try {
      snapshot_.insert_or_assign(record.guid, record);  // of two with one guid the later counts
    } catch (...) {  // no memory for it: this report is lost, and the others need not be
    }
  }
  if (snapshot_.empty()) return;
  last_snapshot_tick_ = now;
  if (sync_ready_event_) SetEvent(sync_ready_event_.get());
}

DWORD WINAPI Tracker::SyncThread(LPVOID self) noexcept {
  const common::OwnThread own;
  Tracker& tracker = *static_cast<Tracker*>(self);
  tracker.sync_name_.store(own.name(), std::memory_order_relaxed);
  tracker.ReportStart();
  tracker.SyncLoop();
  // Reported first: what follows may wait for a client.
  if (tracker.WorkerIsGone() && tracker.gone_ != nullptr) tracker.gone_();
  LSP_LOG(0, "[Tracker] Report Thread quit, do last report in spite of the trigger state");
  tracker.DrainQosLists();
  tracker.SyncCommInfo();
  if (tracker.WorkerIsGone()) tracker.LeaveAlone();
  return 0;
}

bool Tracker::WorkerIsGone() const noexcept { return common::HasEnded(worker_name_); }

// After this thread's end nothing else does the work of UnInit.
void Tracker::LeaveAlone() noexcept {
  common::Lock hold(init_lock_);
  thread_.Reset();
  qos_ready_event_.Reset();
  sync_ready_event_.Reset();
  initialized_ = false;
}

void Tracker::ReportStart() noexcept {
  const common::ProcessInfo& process = common::GetProcessInfo();
  LogPathRecord log_path;
  log_path.game_id = GetAccConfig()->game_id;
  common::SetFieldText(log_path.log_path, process.log_file_path);
  ReportLogPath(log_path);
  LspLoadedRecord loaded;
  loaded.game_id = GetAccConfig()->game_id;
  common::SetFieldText(loaded.process_name, process.process_name);
  loaded.is_x64 = process.is_x64 ? 1 : 0;
  ReportLspLoadedInfo(loaded);
}

// Ends when it is told to, or when the worker that could tell it is gone. Kept: once the tick
// counter has wrapped, the thread pauses until the counter has climbed back. At its end it reports
// what has gathered.
void Tracker::SyncLoop() noexcept {
  while (!quit_.load(std::memory_order_relaxed) && !WorkerIsGone()) {
    const u32 now = GetTickCount();
    if (last_loop_tick_ != 0 && last_loop_tick_ + kPassIntervalMs >= now) {
      Sleep(kPassPauseMs);
      continue;
    }
    last_loop_tick_ = now;
    if (IsSignalled(qos_ready_event_)) DrainQosLists();
    if (IsSignalled(sync_ready_event_)) SyncCommInfo();
  }
}

void Tracker::DrainQosLists() noexcept {
  PendingReports reports;
  {
    common::Lock hold(lists_lock_);
    std::swap(reports, pending_);
    ResetEvent(qos_ready_event_.get());
  }
  for (const SocketQosRecord& record : reports.final_comm_list) {
    if (record.is_acce && record.nego_success) ReportCommunicationStatistic(record);
  }
  for (const AccDecisionInfo& record : reports.decision_list) ReportAcceDecisionInfo(record);
  for (const NegRetRecord& record : reports.neg_ret_list) ReportNegRetValue(record);
  for (const RecoverySwitchRecord& record : reports.recovery_list) ReportRecoverySwitch(record);
  for (const RealNegoRecord& record : reports.real_nego_list) ReportRealNego(record);
}

// Kept: a socket that has ended since its snapshot is shown as open after its last report. Ends are
// written first, and the snapshot as it was taken.
void Tracker::SyncCommInfo() noexcept {
  std::map<std::string, SocketQosRecord> live;
  {
    common::Lock hold(snapshot_lock_);
    live.swap(snapshot_);
    ResetEvent(sync_ready_event_.get());
  }
  if (live.empty()) return;
  LSP_LOG(0, "[Tracker] Comm Info Sync Start");
  for (const auto& [guid, record] : live) ReportCommunicationStatistic(record);
  LSP_LOG(0, "[Tracker] Comm Info Sync End");
}

}  // namespace moru_vyr::lsp
