// Numbered probes over the route of a link, and the evaluation of their answers.
//
// Normally one probe now and then; on request a burst of them, at the end of which the judge of the
// link checks the loss. Every relay of the route answers a probe, so one probe can have two
// answers. The Tracker holds the statistics of a socket; a socket that it does not know is not
// measured, and its judge is told of no probe.
//
// Owned by the watcher of the link, used by the worker thread alone. The judge outlives it. Nothing
// but the constructor throws.
#pragma once
#include <winsock2.h>

#include <algorithm>
#include <optional>

#include "common/types.h"
#include "quality/probe_burst.h"
#include "quality/real_route_recent_cycle_data.h"
#include "quality/recovery_switch.h"

namespace moru_vyr::lsp {

struct SpeedStatsHalf;

// What the session provides.
struct SpeedTestParam {
  SOCKET socket = INVALID_SOCKET;
  u32 token = 0;
  sockaddr_in node_addr = {};  // where the link's data goes
  u32 game_ip = 0;             // host byte order, as is the port
  u32 game_port = 0;           // 16 bits used
  u32 accl_token = 0;
  u32 seq = 0;  // of the last probe
};

// The answer to a probe.
struct ProbeReply {
  u32 len = 0;  // of the datagram
  u8 relay_idx = 0;
  u32 seq = 0;
  u32 delay = 0;
  bool judged = false;  // its delay has been judged …
  bool booked = false;  // … and is in the socket's statistics
};

class RealRouteSpeedTest {
 public:
  static constexpr u32 kNotDue = 0xFFFFFFFF;

  // Its windows read the configuration of the process. `by_answers`: see Mending::JudgesByAnswers,
  // `on_time`: see Mending::ProbesOnTime.
  explicit RealRouteSpeedTest(RecoverySwitch* judge, bool by_answers = false, bool on_time = false)
      : judge_(*judge),
        by_answers_(by_answers),
        on_time_(on_time),
        recent_cycle_{RealRouteRecentCycleData(by_answers), RealRouteRecentCycleData(by_answers)} {}
  RealRouteSpeedTest(const RealRouteSpeedTest&) = delete;
  RealRouteSpeedTest& operator=(const RealRouteSpeedTest&) = delete;

  // Starts again. A watch period of an earlier link continues.
  void Start(const SpeedTestParam& param, bool is_in_switching) noexcept;
  void Stop() noexcept { running_ = false; }
  // Before Start: ends the watch period.
  void Forget() noexcept { recent_cycle_[1].StopWatching(); }

  // The timer's step: sends the probe that is due. True once the last one of a burst has been sent,
  // or once the burst's answers have decided; then it must be called again in the same step of the
  // timer.
  bool StepSpeedTest() noexcept;
  // In how many milliseconds the next step of a burst is due; kNotDue where the timer's will do.
  u32 DueInMs() const noexcept;
  // Whether the datagram was the answer to a probe; any other is data, even if it is marked as a
  // probe.
  bool ReadReply(const u8* data, u32 len, ProbeReply* reply) noexcept;
  // Adds the answer's delay to the statistics, and reports delays that are too high.
  LinkRequest ProcessTestRecv(ProbeReply* reply) noexcept;
  // Tells the judge of the answer, if it was added.
  void CountReply(const ProbeReply& reply) noexcept;
  // Whether the burst that StepSpeedTest has just ended lost too much. No value if its answers do
  // not decide.
  std::optional<bool> burst_lossy() const noexcept { return burst_lossy_; }
  // Asks for a burst: 0 it starts, 1 not now, -1 refused.
  int HighFreqTest() noexcept;

 private:
  void ReadConfig() noexcept;
  // A probe of a burst leaves at the step of the timer that is nearest to its time, where bursts
  // are judged by their answers; elsewhere at the first one after it. There is one at its time if
  // it is asked for.
  u32 EarlyMs() const noexcept {
    if (on_time_) return 1;
    return by_answers_ ? std::min(20u, high_freq_test_interval_ / 2) : 0;
  }
  bool StepBurst(u32 now) noexcept;
  bool IsBurstDecided(u32 now) noexcept;
  void SendSpeedTest() noexcept;
  bool MayEndWatching() noexcept;
  bool IsYoungLink() noexcept;
  void ProcessTestSend(u32 seq) noexcept;
  void Book(SpeedStatsHalf* half, u32 seq, u32 delay) noexcept;
  LinkRequest UpdateDelay(u32 delay, u8 relay_idx) noexcept;

  RecoverySwitch& judge_;
  const bool by_answers_;
  const bool on_time_;
  ProbeBurst burst_;  // of by_answers_ only
  std::optional<bool> burst_lossy_;
  u32 norm_test_interval_ = 0;  // milliseconds, as are all times
  u32 high_freq_test_interval_ = 0;
  u32 high_freq_test_time_ = 0;
  u32 max_valid_test_delay_ = 0;
  SpeedTestParam param_;
  bool running_ = false;
  bool is_in_switching_ = false;
  u32 last_test_tick_ = 0;
  u32 high_freq_test_counter_ = 0;  // probes left in the burst
  bool ignore_time_passed_ = false;
  u32 session_init_time_ = 0;
  u32 ignore_high_freq_test_time_ = 0;
  u32 max_real_route_lost_ = 0;               // percent
  RealRouteRecentCycleData recent_cycle_[2];  // front section; whole route
};

}  // namespace moru_vyr::lsp
