// Per-socket statistics of what the relay opens, and every report to the client program.
//
// The relay's worker makes every call here, and none of them waits: what is to be reported goes
// into a list in memory, and the Tracker's own thread writes it to the client's shared memory. A
// report that cannot be written, or for which there is no memory, is lost, without any other
// effect. Nothing throws.
//
// An operation on a socket that is not in the watch list does nothing, and returns false if it
// returns anything. Pointers may not be null unless stated.
#pragma once
#include <winsock2.h>

#include <atomic>
#include <map>
#include <string>
#include <vector>

#include "abi/acc_decision_info.h"
#include "abi/report_records.h"
#include "common/handle.h"
#include "common/lock.h"
#include "common/types.h"
#include "tracker/socket_qos_record.h"
#include "tracker/speed_stats.h"

namespace moru_vyr::lsp {

inline constexpr u32 kTrackTcp = 1;
inline constexpr u32 kTrackUdp = 2;

// Called on the reporting thread, once, when the worker has ended without UnInit. May not throw.
using WorkerGone = void (*)() noexcept;

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
  // Its thread must have ended, or never have started.
  ~Tracker() = default;

  // At the worker's start and at its end; may be repeated. If the worker is terminated before or
  // during its end, the reporting thread notices, writes what there is and ends by itself. `gone`
  // may be null.
  void Init(WorkerGone gone = nullptr) noexcept;
  // Closes the records of all watched sockets, so that each leaves its last report.
  void EndWatching() noexcept;
  // Has the last reports written, and waits at most 2000 ms for that.
  void UnInit() noexcept;
  // On every pass of the worker: reports the open sockets' traffic, at most once in five seconds.
  void OnTimer(u32 now) noexcept;
  // Has the current traffic reported, unless that was done within the last second.
  void SnapshotCommInfo(bool force) noexcept;

  // `type` is kTrackTcp or kTrackUdp. A socket that is in the list already keeps its record.
  void AddToWatchList(SOCKET socket, u32 type, u32 token) noexcept;
  // Called once the socket is closed: leaves its last report, if it was accelerated.
  void RemoveFromWatchList(SOCKET socket) noexcept;
  // A flow has moved from one watched socket to another, and through it to the decision's node: its
  // reports go on there, and include all that it has carried. `from` is no longer watched.
  void MoveFlow(SOCKET from, SOCKET to, const AccDecisionInfo* decision) noexcept;
  // Null if the socket is not watched.
  SocketQosRecord* Find(SOCKET socket) noexcept;

  // The game server's address, as text (null: nothing is done) and with a port in network order.
  void NoteGameServer(SOCKET socket, const char* ip, u16 port) noexcept;
  void SetAcceInfo(SOCKET socket, bool is_acce, const AccDecisionInfo* decision) noexcept;
  // Both addresses in network order.
  void RecordNegSuccess(SOCKET socket, u32 user_isp, u32 user_ip, u32 last_node_id,
                        u32 last_node_ip, const AccDecisionInfo* decision) noexcept;
  // `neg_type` is 0 for a stream and 1 for datagrams. Reports the last error as it is.
  void RecordNegFailed(SOCKET socket, i32 neg_type, u32 nego_result,
                       const AccDecisionInfo* decision, u32 elapsed_ms, u32 tries) noexcept;

  // One system call on the socket: what it moved, and its error. Error 0 counts as traffic, even
  // without bytes; an error that means "later" counts for nothing.
  void RecordSend(SOCKET socket, u32 bytes, int error) noexcept;
  void RecordRecv(SOCKET socket, u32 bytes, int error) noexcept;

  bool GetSpeedTestResult(SOCKET socket, SpeedStats* out) noexcept;
  bool SetSpeedTestResult(SOCKET socket, const SpeedStats* stats) noexcept;
  bool GetPacketCounts(SOCKET socket, u32* sent, u32* received) noexcept;

  void SetRecoveryInfo(SOCKET socket, const char* text) noexcept;
  // The only report that needs no socket.
  void SubmitRecoverySwitch(const RecoverySwitchRecord* record) noexcept;

 private:
  void MakeClosingUpdate(SocketQosRecord* record);

  // For the sync thread.
  static DWORD WINAPI SyncThread(LPVOID self) noexcept;
  void ReportStart() noexcept;
  void SyncLoop() noexcept;
  bool WorkerIsGone() const noexcept;
  void LeaveAlone() noexcept;
  void DrainQosLists() noexcept;
  void SyncCommInfo() noexcept;

  std::map<SOCKET, SocketQosRecord> watch_list_;  // used by the worker only

  common::UniqueHandle thread_;
  std::atomic<u32> sync_name_{0};  // of own_thread.h: the sync thread's
  u32 worker_name_ = 0;            // and that of the thread that called Init, if it has one
  WorkerGone gone_ = nullptr;
  std::atomic<bool> quit_{false};
  bool initialized_ = false;
  // The worker appends under lists_lock_ and replaces the snapshot under snapshot_lock_; the sync
  // thread takes both over as a whole, so neither ever waits for shared memory, or long for the
  // other. The locks are leaves and never held together.
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

// The process's own, built at first use.
Tracker& GetTracker() noexcept;

}  // namespace moru_vyr::lsp
