// The watcher of one link to a node: it sends probes, counts what arrives, and says when the flow
// should act.
//
// What is received and the timer's steps go in, and at most one request comes out. The caller acts
// on a request after the call that returned it, and then repeats that call until it returns kNone:
// only then is the work that comes after the request done.
//
// A link that carries the game is judged by what the game receives, and by a burst of probes if
// that looks bad. A link on trial gets a burst at once, and its verdict at the end of the burst.
//
// Owned by the session of the link, used by the worker thread alone. Nothing but the constructor
// throws.
#pragma once
#include <string_view>

#include "common/types.h"
#include "quality/link_identity.h"
#include "quality/real_route_speed_test.h"
#include "quality/recovery_switch.h"

namespace moru_vyr::lsp {

// The figures of the windows. A loss is a percentage, or one of LostCalc's codes above 100.
struct LinkFigures {
  u32 small_lost = 0;        // of data, over the short window
  u32 small_real = 0;        // datagrams that arrived in it
  u32 long_lost = 0;         // of data, over the long window
  u32 long_real = 0;         // datagrams that arrived in it
  u32 route_short_real = 0;  // answers to probes over the short window
  u32 route_lost = 0;        // of probes, over the long window
};

enum class LinkTrouble { kNone, kDead, kShortLoss, kLongLoss, kRouteLoss };

// The first condition that holds, in this order. A loss counts from its limit on, in a window with
// enough datagrams; the loss of probes counts if the long window has fewer.
LinkTrouble FindTrouble(const LinkFigures& figures, const RecoverySwitchConfig& limits) noexcept;

class LinkWatch {
 public:
  LinkWatch();
  // Starts again, also on another link. Keeps what RecoverySwitch::Init keeps.
  void Start(const SpeedTestParam& param, std::string_view guid, const AccInfo& acc_info,
             const ClientInfo& client_info, bool on_trial) noexcept;
  // Before Start: nothing that was measured of an earlier link counts for the next one.
  void Forget() noexcept {
    judge_.Forget();
    probes_.Forget();
  }
  // Stops sending probes and recognising answers. Data is still counted.
  void Stop() noexcept { probes_.Stop(); }

  // The timer's step. `probing` is whether probes may be sent; the same in each repeated call.
  LinkRequest OnUpdate(u32 elapsed_ms, bool probing) noexcept;
  // After it, while probing: in how many milliseconds the next one should come, if the timer's
  // would be late.
  static constexpr u32 kNotDue = RealRouteSpeedTest::kNotDue;
  u32 DueInMs() const noexcept { return probes_.DueInMs(); }

  // Whether the datagram is the answer to a probe, which must then be passed to OnReply.
  bool ReadReply(const u8* data, u32 len, ProbeReply* reply) noexcept {
    return probes_.ReadReply(data, len, reply);
  }
  // Never a request for a link on trial.
  LinkRequest OnReply(ProbeReply* reply) noexcept;

  // Called for each game datagram from the node; `lost` is the node's view of what we send.
  void OnData(u32 seq, u8 lost) noexcept;
  // The loss to tell the node, of what it sends.
  u8 LostToTell() noexcept { return judge_.DataLinkGetDefCurLost(false); }

  // The report behind kSwitch, until the next call.
  const RecoverySwitchRecord& report() const noexcept { return judge_.report(); }
  // Tells the watcher whether the switch has begun. If so, the trial submits a copy of the report
  // with the outcome; otherwise the report is submitted here.
  void SwitchAnswered(bool begun) noexcept { judge_.SwitchAnswered(begun); }

 private:
  bool WantsHighFreqTest() noexcept;

  const bool by_answers_;  // see Mending::JudgesByAnswers
  RecoverySwitch judge_;
  RealRouteSpeedTest probes_;
  u32 token_ = 0;
  bool on_trial_ = false;
  u32 high_freq_timer_ms_ = 0;  // since the last check of the traffic
};

}  // namespace moru_vyr::lsp
