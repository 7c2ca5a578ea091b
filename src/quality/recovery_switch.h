// The judge of the link to a node.
//
// It is fed with the numbers of the game data that the node sends, and of probes and their answers.
// It reports trouble to the client program and, if that is allowed, requests a switch to another
// node.
//
// Owned by the watcher of the link, used by the worker thread alone.
// While it is not enabled nothing here has any effect: reads of a current loss give 0, those of the
// Get…Lost family kLostNeverComputed with the counts left as they are. Nothing throws.
#pragma once
#include <winsock2.h>

#include <cstddef>
#include <optional>
#include <string_view>

#include "abi/report_records.h"
#include "common/types.h"
#include "quality/link_identity.h"
#include "quality/lost_calc.h"

namespace moru_vyr::lsp {

// What the watcher of a link asks its owner to do.
enum class LinkRequest {
  kNone,
  kSwitch,  // the link is bad: move to another node
  kAccept,  // the verdict on a link on trial
  kReject,
};

// The thresholds by which a link is judged, read once when its judge starts.
struct RecoverySwitchConfig {
  static constexpr std::size_t kTextSize = 512;

  u16 short_cycle = 0;  // slots
  u16 long_cycle = 0;
  u32 max_delay_amp = 0;  // milliseconds
  u32 max_delay_avg = 0;
  u32 max_real_route_lost_ = 0;  // percent
  u32 lost_calc_unit_size = 0;   // milliseconds
  u32 max_link_except_rep_num = 0;
  u32 link_switch_min_inter = 0;  // milliseconds
  u32 max_link_switch_count = 0;
  u32 data_link_short_cycle_pkg_ = 0;  // packets
  u32 data_link_short_cycle_lost = 0;  // percent
  u32 data_link_long_cycle_pkg_ = 0;
  u32 data_link_long_cycle_lost_ = 0;

  // A link on trial has limits of its own for delay and loss.
  void ReadConfig(bool is_switch_session) noexcept;
  void Format(char (&text)[kTextSize]) const noexcept;
};

// What is known of one section of the route. A loss may be a code, see lost_calc.h.
struct LinkDataSet {
  u32 recv = 0;
  u32 lost = 0;
  u32 delay_amp = 0;  // milliseconds
  u32 delay_avg = 0;
};

class RecoverySwitch {
 public:
  RecoverySwitch() = default;
  RecoverySwitch(const RecoverySwitch&) = delete;
  RecoverySwitch& operator=(const RecoverySwitch&) = delete;

  // Starts judging a link, if that is allowed. Called again after a switch, it keeps the counts of
  // reports and of switches, the time of the last switch and the slots of what was measured.
  void Init(SOCKET socket, u32 token, std::string_view guid, const AccInfo& acc_info,
            const ClientInfo& client_info, bool is_switch_session) noexcept;

  // Before Init: what an earlier link has left in the windows does not count for the next one.
  void Forget() noexcept;

  // From now on it only reports. Nothing in the product calls this: each link has a session that
  // takes requests.
  void HasNoOwner() noexcept { has_owner_ = false; }

  // The timer's step. False: no check is to be made.
  bool OnUpdate() noexcept;

  void DataLinkAddOneRecvPkg(u32 seq) noexcept;
  void DataLinkAddOneSendPkg(u32 seq) noexcept;  // nothing in the product calls this
  void RealRouteAddOneSendPkg(u32 seq) noexcept;
  void RealRouteAddOneRecvPkg(u32 seq, u8 relay_idx) noexcept;

  // The loss to tell the node, or kLostTooFew in place of a loss from too few packets. With `raw`
  // it is returned all the same.
  u8 DataLinkGetDefCurLost(bool raw) noexcept;
  u8 RealRouteGetDefCurLost(bool raw) noexcept;  // nothing in the product calls this

  // The loss over the short and the long window, with the packets expected and received. All but
  // the third also store their result for the reports. The pointers may not be null.
  u8 GetDataLinkShortLost(u32* need, u32* real, bool include_current) noexcept;
  u8 GetDataLinkLongLost(u32* need, u32* real, bool include_current) noexcept;
  u8 GetRealRouteShortLost(u32* need, u32* real, bool include_current) noexcept;
  u8 GetRealRouteLost(u32* need, u32* real, bool include_current) noexcept;

  // Whether the short windows are full; before that they may be empty on any link.
  bool HasShortWindows() const noexcept {
    return data_link_.HasSlots(config_.short_cycle) &&
           real_route_full_.HasSlots(config_.short_cycle);
  }

  // The node's view of what we send.
  void SetUploadLost(u8 lost) noexcept;
  // True when the delays are so high that a report is due; never for a link on trial.
  bool UpdateDelayValue(u32 delay_amp, u32 delay_avg, u8 relay_idx) noexcept;
  // Whether the loss that the last GetRealRouteLost found is too high.
  std::optional<bool> TryFireRealRouteLost() noexcept;
  // Reports trouble, unless reports are held back: to the client program, or as kSwitch, which must
  // be answered before the next call.
  LinkRequest Report() noexcept;
  const RecoverySwitchRecord& report() const noexcept { return report_; }
  // Whether the switch has begun. If not, its report is submitted now.
  void SwitchAnswered(bool begun) noexcept;
  // Puts the figures into the socket's statistics.
  void UpdateRecoveryInfo() noexcept;

  const RecoverySwitchConfig& config() const noexcept { return config_; }

 private:
  void Reset() noexcept;
  bool IsAllowCalc() noexcept;
  bool IsCalcOpen() const noexcept;
  bool IsGameListed() const noexcept;
  void InitCalcs() noexcept;
  void LogUpdate(const char* calc_name, u32 time_delta) const noexcept;
  u8 GetCurLost(const LostCalc& calc, u16 cycles, u32* need, u32* real,
                bool include_current) const noexcept;
  // Kept: true means that the report must be held back, which is the opposite of the name.
  bool IsBelowReportLimit() noexcept;
  void FillReport() noexcept;
  void SubmitReport() noexcept;
  bool IsAllowSwitch() noexcept;

  LostCalc real_route_front_;  // probes, answered by the first of two relays
  LostCalc real_route_full_;   // probes, answered by the last relay
  LostCalc data_link_;         // data from the node
  u32 start_tick_ = 0;
  u32 last_report_tick_ = 0;
  RecoverySwitchConfig config_;
  u8 data_link_upload_lost_ = 0;
  SOCKET socket_ = INVALID_SOCKET;
  u32 token_ = 0;
  bool enabled_ = false;
  bool has_owner_ = true;
  bool is_switch_session_ = false;
  u64 game_id_ = 0;
  LinkDataSet link_data_[2];  // up to the first relay; the whole route
  u32 link_type_ = 0;         // the number of relays; 0 none has answered yet
  u32 small_section_pack_ = 0;
  u32 small_section_lost_ = 0;
  u32 full_section_pack_ = 0;
  u32 full_section_lost_ = 0;
  u32 calc_count_ = 0;           // reports made
  RecoverySwitchRecord report_;  // the last one
  u32 proxy_idc_ = 0;
  char guid_[37] = {};
  char switch_condition_[kLinkTextSize] = {};
  AccInfo acc_info_;
  char client_info_[kLinkTextSize] = {};
  u32 switch_count_ = 0;
  u32 last_switch_tick_ = 0;  // from the system's start: no switch in its first 30 seconds
};

// A report, spelled out for the log. Formats at once and owns its text, so that it can be an
// argument of a log statement and costs nothing at levels that are not written.
class RecoveryRecordText {
 public:
  explicit RecoveryRecordText(const RecoverySwitchRecord& record) noexcept;
  const char* c_str() const noexcept { return text_; }

 private:
  static constexpr std::size_t kSize = 1536;
  char text_[kSize] = {};
};

}  // namespace moru_vyr::lsp
