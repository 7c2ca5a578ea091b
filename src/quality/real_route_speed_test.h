// Numbered probes over the route of a link, and the evaluation of their answers.
//
// Normally one probe now and then; on request a burst of them, at the end of which the judge of the
// link checks the loss. Every relay of the route answers a probe, so one probe can have two
// answers. The Tracker holds the statistics of a socket; a socket that it does not know is not
// measured, and its judge is told of no probe.
//
// Owned by the session of the link, used by the worker thread alone. The judge given to Start must
// live until Stop. Nothing but the constructor throws.
#pragma once
#include <winsock2.h>

#include "common/types.h"
#include "quality/real_route_recent_cycle_data.h"

namespace moru_vyr::lsp {

class RecoverySwitch;
struct SpeedStats;
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

class RealRouteSpeedTest {
 public:
  RealRouteSpeedTest() = default;  // its windows read the configuration of the process
  RealRouteSpeedTest(const RealRouteSpeedTest&) = delete;
  RealRouteSpeedTest& operator=(const RealRouteSpeedTest&) = delete;

  // Starts again. Without a judge nothing runs. A watch period of an earlier link continues.
  void Start(RecoverySwitch* recovery, const SpeedTestParam* param, bool is_in_switching) noexcept;
  void Stop() noexcept;

  // The timer's step: sends the probe that is due.
  void StepSpeedTest() noexcept;
  // Whether the datagram was the answer to a probe; any other is data, even if it is marked as a
  // probe. The datagram's version byte may be overwritten, see UdpAcclHeader::Unpack.
  bool RecvSpeedTest(const u8* data, u32 len) noexcept;
  // Asks for a burst: 0 it starts, 1 not now, -1 refused.
  int HighFreqTest() noexcept;

 private:
  void ReadConfig() noexcept;
  bool SendSpeedTest() noexcept;
  void EndBurst() noexcept;
  bool MayEndWatching() noexcept;
  bool IsYoungLink() noexcept;
  void ProcessTestSend(u32 seq) noexcept;
  void ProcessTestRecv(u8 relay_idx, u32 seq, u32 delay) noexcept;
  void Book(SpeedStatsHalf* half, u32 seq, u32 delay, u8 relay_idx) noexcept;
  void UpdateDelay(u32 delay, u8 relay_idx) noexcept;

  u32 norm_test_interval_ = 0;  // milliseconds, as are all times
  u32 high_freq_test_interval_ = 0;
  u32 high_freq_test_time_ = 0;
  u32 long_cycle_ = 0;
  u32 max_valid_test_delay_ = 0;
  SpeedTestParam param_;
  bool running_ = false;
  bool is_in_switching_ = false;
  u32 last_test_tick_ = 0;
  RecoverySwitch* recovery_ = nullptr;
  u32 high_freq_test_counter_ = 0;  // probes left in the burst
  bool ignore_time_passed_ = false;
  u32 session_init_time_ = 0;
  u32 ignore_high_freq_test_time_ = 0;
  u32 max_real_route_lost_ = 0;               // percent
  RealRouteRecentCycleData recent_cycle_[2];  // front section; whole route
};

}  // namespace moru_vyr::lsp
