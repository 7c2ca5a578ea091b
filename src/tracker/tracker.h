// Per-socket statistics of what the relay opens, and every report to the client program.
//
// The relay's worker makes every call here, and none of them waits: what is to be reported goes
// into a list in memory, and the Tracker's own thread writes it to the client's shared memory. A
// report that cannot be written is lost, without any other effect. Nothing throws.
//
// An operation on a socket that is not in the watch list does nothing, and returns false if it
// returns anything. Pointers may not be null unless stated.
#pragma once
#include <winsock2.h>

#include "abi/acc_decision_info.h"
#include "abi/report_records.h"
#include "common/types.h"
#include "tracker/speed_stats.h"

namespace moru_vyr::lsp {

class Tracker;

inline constexpr u32 kTrackTcp = 1;
inline constexpr u32 kTrackUdp = 2;

// Called on the reporting thread, once, when the worker has ended without UnInit. May not throw.
using WorkerGone = void (*)() noexcept;

class TrackerFront {
 public:
  // Owns the Tracker and never ends it: its thread may still write when the process ends. If there
  // was no memory for a Tracker, the pointer is null and every operation returns at once.
  explicit TrackerFront(Tracker* tracker) noexcept : tracker_(tracker) {}
  TrackerFront(const TrackerFront&) = delete;
  TrackerFront& operator=(const TrackerFront&) = delete;

  // At the worker's start and at its end; may be repeated. If the worker is terminated before or
  // during its end, the reporting thread notices, writes what there is and ends by itself. `gone`
  // may be null.
  void Init(WorkerGone gone = nullptr) noexcept;
  // Has the last reports written, and waits at most 2000 ms for that.
  void UnInit() noexcept;
  // On every pass of the worker: reports the open sockets' traffic, at most once in five seconds.
  void OnTimer(u32 now) noexcept;

  // `type` is kTrackTcp or kTrackUdp. A socket that is in the list already keeps its record.
  void AddToWatchList(SOCKET socket, u32 type, u32 token) noexcept;
  // Called once the socket is closed: leaves its last report, if it was accelerated.
  void RemoveFromWatchList(SOCKET socket) noexcept;

  // The game server's address, as text (null: nothing is done) and with a port in network order.
  void NoteGameServer(SOCKET socket, const char* ip, u16 port) noexcept;
  void SetAcceInfo(SOCKET socket, bool is_acce, const AccDecisionInfo* decision) noexcept;
  // Both addresses in network order.
  void RecordNegSuccess(SOCKET socket, u32 user_isp, u32 user_ip, u32 last_node_id,
                        u32 last_node_ip, const AccDecisionInfo* decision) noexcept;
  // `neg_type` is 0 for a stream and 1 for datagrams. Reports the last error as it is.
  void RecordNegFailed(SOCKET socket, i32 neg_type, u32 nego_result,
                       const AccDecisionInfo* decision, u32 elapsed_ms, u32 tries) noexcept;
  void SetConnectResult(SOCKET socket, i32 value) noexcept;

  // One system call on the socket: what it moved, and its error. Error 0 counts as traffic,
  // whatever the bytes; an error that means "later" counts for nothing.
  void RecordSend(SOCKET socket, u32 bytes, int error) noexcept;
  void RecordRecv(SOCKET socket, u32 bytes, int error) noexcept;

  bool GetSpeedTestResult(SOCKET socket, SpeedStats* out) noexcept;
  bool SetSpeedTestResult(SOCKET socket, const SpeedStats* stats) noexcept;
  bool GetPacketCounts(SOCKET socket, u32* sent, u32* received) noexcept;

  void SetRecoveryInfo(SOCKET socket, const char* text) noexcept;
  // The only report that needs no socket.
  void SubmitRecoverySwitch(const RecoverySwitchRecord* record) noexcept;

 private:
  Tracker* const tracker_;
};

// The process's own, built at first use.
TrackerFront& GetTracker() noexcept;

}  // namespace moru_vyr::lsp
