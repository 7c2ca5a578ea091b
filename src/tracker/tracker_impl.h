// The implementation behind the front: the watch list, which the worker alone touches, the lists of
// what is to be reported, and the thread that reports it.
//
// The worker appends under lists_lock_ and replaces the snapshot under snapshot_lock_; the sync
// thread takes both over as a whole, so neither ever waits for shared memory, or long for the
// other. The locks are leaves and never held together.
//
// Operations are as in tracker.h. They may throw when memory runs out; the front catches.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "abi/report_records.h"
#include "common/handle.h"
#include "common/lock.h"
#include "common/types.h"
#include "tracker/socket_qos_record.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {

// What waits to be reported.
struct PendingReports {
  std::vector<SocketQosRecord> final_comm_list;
  std::vector<AccDecisionInfo> decision_list;
  std::vector<NegRetRecord> neg_ret_list;
  std::vector<RecoverySwitchRecord> recovery_list;
  std::vector<RealNegoRecord> real_nego_list;
};

class Tracker {
 public:
  Tracker() = default;
  // Its thread must have ended, or never have started.
  ~Tracker() = default;
  Tracker(const Tracker&) = delete;
  Tracker& operator=(const Tracker&) = delete;

  void Init(WorkerGone gone = nullptr) noexcept;
  void UnInit() noexcept;

  void AddToWatchList(SOCKET socket, u32 type, u32 token);
  void RemoveFromWatchList(SOCKET socket);
  void NoteGameServer(SOCKET socket, const char* ip, u16 port);
  void SetAcceInfo(SOCKET socket, bool is_acce, const AccDecisionInfo& decision);
  void RecordNegSuccess(SOCKET socket, u32 user_isp, u32 user_ip, u32 last_node_id,
                        u32 last_node_ip, const AccDecisionInfo& decision);
  void RecordNegFailed(SOCKET socket, i32 neg_type, u32 nego_result,
                       const AccDecisionInfo& decision, u32 elapsed_ms, u32 tries);
  void SetConnectResult(SOCKET socket, i32 value);
  void RecordSend(SOCKET socket, u32 bytes, int error);
  void RecordRecv(SOCKET socket, u32 bytes, int error);
  bool GetSpeedTestResult(SOCKET socket, SpeedStats* out);
  bool SetSpeedTestResult(SOCKET socket, const SpeedStats& stats);
  bool GetPacketCounts(SOCKET socket, u32* sent, u32* received);
  void SetRecoveryInfo(SOCKET socket, const char* text);
  void SubmitRecoverySwitch(const RecoverySwitchRecord& record);

  // Has the current traffic reported, unless that was done within the last second.
  void SnapshotCommInfo(bool force) noexcept;

  u32 last_timer_tick() const noexcept { return last_timer_tick_; }
  void set_last_timer_tick(u32 tick) noexcept { last_timer_tick_ = tick; }

  // Null if the socket is not watched.
  const SocketQosRecord* Find(SOCKET socket) const;

 private:
  SocketQosRecord* FindRecord(SOCKET socket);
  void AddToSnapshot(const SocketQosRecord& record) noexcept;
  void MakeClosingUpdate(SocketQosRecord* record);

  // The sync thread's.
  static DWORD WINAPI SyncThread(LPVOID self) noexcept;
  void ReportStart() noexcept;
  void SyncLoop() noexcept;
  bool WorkerIsGone() const noexcept;
  void LeaveAlone() noexcept;
  void DrainQosLists() noexcept;
  void SyncCommInfo() noexcept;

  std::map<SOCKET, SocketQosRecord> watch_list_;

  common::UniqueHandle thread_;
  DWORD thread_id_ = 0;
  std::atomic<u32> sync_name_{0};  // of own_thread.h: the sync thread's
  u32 worker_name_ = 0;            // and that of the thread that called Init, if it has one
  WorkerGone gone_ = nullptr;
  std::atomic<bool> quit_{false};
  bool initialized_ = false;
  common::Mutex init_lock_;
  common::Mutex lists_lock_;     // guards pending_
  common::Mutex snapshot_lock_;  // guards snapshot_
  // Manual-reset. They are closed before Init and after UnInit, when sockets may still end.
  common::UniqueHandle qos_ready_event_;
  common::UniqueHandle sync_ready_event_;
  PendingReports pending_;
  std::map<std::string, SocketQosRecord> snapshot_;  // by guid

  u32 last_loop_tick_ = 0;  // the sync thread's
  u32 last_timer_tick_ = 0;
  u32 last_snapshot_tick_ = 0;
};

}  // namespace moru_vyr::lsp
