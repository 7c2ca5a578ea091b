#include "quality/real_route_speed_test.h"

#include <algorithm>

#include "common/log.h"
#include "common/unix_time.h"
#include "protocol/speed_test_payload.h"
#include "quality/link_thresholds.h"
#include "route/acc_config.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kTopologyNotKnown = 0;
constexpr u32 kOneNode = 1;
constexpr u32 kTwoNodes = 2;
constexpr u32 kTopologyNotUnderstood = 0xFFFFFFFF;

void NoteProbeSent(SpeedStatsHalf* half, u32 seq, u32 now) noexcept {
  half->last_send_tick = now;
  half->last_send_seq = seq;
  half->pending = 1;
  ++half->total_send;
  ++half->all_send_count;
}

}  // namespace

void RealRouteSpeedTest::Start(const SpeedTestParam& param, bool is_in_switching) noexcept {
  // The windows keep their configuration and their watch period.
  ignore_time_passed_ = false;
  last_test_tick_ = high_freq_test_counter_ = 0;
  burst_.Stop();
  for (RealRouteRecentCycleData& cycle : recent_cycle_) cycle.Reset();

  param_ = param;
  session_init_time_ = GetTickCount();
  is_in_switching_ = is_in_switching;
  running_ = true;
  ReadConfig();
}

void RealRouteSpeedTest::ReadConfig() noexcept {
  const AccConfig& config = *GetAccConfig();
  norm_test_interval_ = thresholds::NormTestInterval(config);
  high_freq_test_interval_ = thresholds::HighFreqTestInterval(config, is_in_switching_);
  high_freq_test_time_ = thresholds::HighFreqTestTime(config, is_in_switching_);
  max_valid_test_delay_ = thresholds::MaxValidTestDelay(config);
  ignore_high_freq_test_time_ = u32{config.ignore_high_freq_test_time} * 1000;
  max_real_route_lost_ = thresholds::MaxRealRouteLost(config);
  LSP_LOG(4,
          "RealRouteSpeedTest::ReadConfig, is_in_switching=%s, norm_test_interval_=%d, "
          "high_freq_test_interval_=%d, high_freq_test_time_=%d, long_cycle_=%d, "
          "ignore_high_freq_test_time_=%d, max_real_route_lost_=%d, max_valid_test_delay=%d, "
          "socket=%u, token=%u",
          is_in_switching_ ? "true" : "false", norm_test_interval_, high_freq_test_interval_,
          high_freq_test_time_, thresholds::LongCycle(config), ignore_high_freq_test_time_,
          max_real_route_lost_, max_valid_test_delay_, static_cast<u32>(param_.socket),
          param_.token);
}

bool RealRouteSpeedTest::StepSpeedTest() noexcept {
  if (!running_) return false;
  const u32 now = GetTickCount();
  if (last_test_tick_ == 0) {
    last_test_tick_ = now;
    return false;
  }
  if (high_freq_test_counter_ != 0 &&
      now + EarlyMs() > last_test_tick_ + high_freq_test_interval_) {
    if (StepBurst(now)) return true;
  }
  if (by_answers_ && IsBurstDecided(now)) return true;
  if (high_freq_test_counter_ == 0 && now > last_test_tick_ + norm_test_interval_) {
    last_test_tick_ = now;
    SendSpeedTest();
  }
  return false;
}

u32 RealRouteSpeedTest::DueInMs() const noexcept {
  constexpr u32 kVerdictMs = 10;  // how late the answers may be looked at
  if (!on_time_ || !running_) return kNotDue;
  if (high_freq_test_counter_ == 0) return burst_.IsRunning() ? kVerdictMs : kNotDue;
  const u32 passed = GetTickCount() - last_test_tick_;
  return passed < high_freq_test_interval_ ? high_freq_test_interval_ - passed : 1;
}

bool RealRouteSpeedTest::StepBurst(u32 now) noexcept {
  const u32 last_seq = param_.seq;
  const u32 due = last_test_tick_ + high_freq_test_interval_;
  const bool is_first = high_freq_test_counter_ == high_freq_test_time_ / high_freq_test_interval_;
  // What one probe is late the next one makes up for.
  const bool keeps_time = on_time_ && !is_first && now - due < high_freq_test_interval_;
  last_test_tick_ = keeps_time ? due : now;
  SendSpeedTest();
  burst_.NoteSent(param_.seq != last_seq ? param_.seq : 0, now);
  LSP_LOG(0, "StepSpeedTest, high_freq_test_counter=%d, socket=%u, token=%u",
          high_freq_test_counter_, static_cast<u32>(param_.socket), param_.token);
  return --high_freq_test_counter_ == 0 && !by_answers_;
}

// An answer can be back within twice the link's delay so far, plus the time between two steps of
// the timer at either end. If the delay is not known, the longest valid delay counts.
bool RealRouteSpeedTest::IsBurstDecided(u32 now) noexcept {
  constexpr u32 kTimerMs = 60;
  if (!burst_.IsRunning()) return false;
  const u32 delay = recent_cycle_[1].delay_avg();
  const bool is_known = delay != 0 && delay != kDelayNotMeasured;
  const u32 wait =
      is_known ? std::min(2 * delay + kTimerMs, max_valid_test_delay_) : max_valid_test_delay_;
  burst_lossy_ = burst_.IsLossy(now, wait, judge_.config().max_real_route_lost_);
  if (!burst_lossy_) return false;
  burst_.Stop();
  high_freq_test_counter_ = 0;
  return true;
}

void RealRouteSpeedTest::SendSpeedTest() noexcept {
  const u32 seq = ++param_.seq;
  SpeedTestPackage package;
  package.header.flags = kUdpAcclSpeedTest;
  package.header.game_ip = param_.game_ip;
  package.header.game_port = static_cast<u16>(param_.game_port);
  package.header.seq = seq;
  package.header.accl_token = param_.accl_token;
  package.payload.seq = seq;
  package.payload.send_time = common::UnixTimeMs();
  u8 wire[sizeof package];
  const int packed = package.Pack(wire);
  if (packed < 0) {
    // Kept: the number is used up, unlike that of a probe that cannot be sent.
    LSP_LOG(4, "SendSpeedTest Failed, Pack error=%d, socket=%u, token=%u", packed,
            static_cast<u32>(param_.socket), param_.token);
    return;
  }
  constexpr int kLength = sizeof wire;
  // Never queued: a probe that waits would measure our own queue.
  const int sent = sendto(param_.socket, reinterpret_cast<const char*>(wire), kLength, 0,
                          reinterpret_cast<const sockaddr*>(&param_.node_addr),
                          static_cast<int>(sizeof param_.node_addr));
  if (sent == SOCKET_ERROR) {
    const int error = WSAGetLastError();
    LSP_LOG(0, "SendSpeedTest failed, error=%d, seq=%u, len=%d, socket=%u, token=%u", error, seq,
            kLength, static_cast<u32>(param_.socket), param_.token);
    --param_.seq;
    return;
  }
  ProcessTestSend(seq);
  LSP_LOG(0, "SendSpeedTest success, seq=%u, len=%d, socket=%u, token=%u", seq, kLength,
          static_cast<u32>(param_.socket), param_.token);
}

void RealRouteSpeedTest::ProcessTestSend(u32 seq) noexcept {
  SpeedStats stats;
  if (!GetTracker().GetSpeedTestResult(param_.socket, &stats)) {
    LSP_LOG(4, "ProcessTestSend, GetSpeedTestResult: failed to get info, socket=%u, token=%u",
            static_cast<u32>(param_.socket), param_.token);
    return;
  }
  const u32 now = GetTickCount();
  NoteProbeSent(&stats.frontend, seq, now);
  NoteProbeSent(&stats.backend, seq, now);
  GetTracker().SetSpeedTestResult(param_.socket, &stats);
  judge_.RealRouteAddOneSendPkg(seq);
}

bool RealRouteSpeedTest::ReadReply(const u8* data, u32 len, ProbeReply* reply) noexcept {
  if (!running_) return false;
  UdpAcclHeader header;
  SpeedTestPayload payload;
  if (!ReadSpeedTestReply({data, len}, &header, &payload)) return false;
  *reply = {};
  reply->len = len;
  reply->relay_idx = header.relay_idx;
  reply->seq = payload.seq;
  reply->delay = SpeedTestDelay(common::UnixTimeMs(), payload.send_time);
  return true;
}

LinkRequest RealRouteSpeedTest::ProcessTestRecv(ProbeReply* reply) noexcept {
  SpeedStats stats;
  if (!GetTracker().GetSpeedTestResult(param_.socket, &stats)) {
    LSP_LOG(4, "ProcessTestRecv, GetSpeedTestResult: failed to get info, socket=%u, token=%u",
            static_cast<u32>(param_.socket), param_.token);
    return LinkRequest::kNone;
  }
  reply->booked = reply->relay_idx <= 2;
  if (!reply->booked) {
    stats.topology_type = kTopologyNotUnderstood;
  } else {
    Book(reply->relay_idx == 2 ? &stats.backend : &stats.frontend, reply->seq, reply->delay);
    if (stats.topology_type == kTopologyNotKnown) {
      stats.topology_type = reply->relay_idx == 0 ? kOneNode : kTwoNodes;
    }
  }
  GetTracker().SetSpeedTestResult(param_.socket, &stats);
  return reply->booked ? UpdateDelay(reply->delay, reply->relay_idx) : LinkRequest::kNone;
}

void RealRouteSpeedTest::CountReply(const ProbeReply& reply) noexcept {
  if (reply.booked) judge_.RealRouteAddOneRecvPkg(reply.seq, reply.relay_idx);
  if (reply.booked && reply.relay_idx != 1) burst_.NoteAnswered(reply.seq);
  LSP_LOG(0, "RecvSpeedTest success,len=%d,relay_idx=%d,seq=%d,delay=%d, socket=%u, token=%u",
          reply.len, reply.relay_idx, reply.seq, reply.delay, static_cast<u32>(param_.socket),
          param_.token);
}

void RealRouteSpeedTest::Book(SpeedStatsHalf* half, u32 seq, u32 delay) noexcept {
  if (half->last_send_seq == seq) half->pending = 0;
  half->all.Add(delay);
  if (delay >= max_valid_test_delay_) {
    half->over.Add(delay);
    --half->total_send;  // late is not lost: the fine figures have not heard of this probe
  } else {
    half->fine.Add(delay);
  }
}

LinkRequest RealRouteSpeedTest::UpdateDelay(u32 delay, u8 relay_idx) noexcept {
  RealRouteRecentCycleData& cycle = recent_cycle_[relay_idx == 1 ? 0 : 1];
  cycle.Update(delay, high_freq_test_counter_ != 0, relay_idx);
  if (!judge_.UpdateDelayValue(cycle.delay_amp(), cycle.delay_avg(), relay_idx)) {
    return LinkRequest::kNone;
  }
  const LinkRequest request = judge_.Report();
  for (RealRouteRecentCycleData& each : recent_cycle_) each.Reset();  // the next rests on new data
  return request;
}

int RealRouteSpeedTest::HighFreqTest() noexcept {
  constexpr int kStarted = 0;
  constexpr int kNotNow = 1;
  constexpr int kRefused = -1;
  const u32 now = GetTickCount();
  const u32 socket = static_cast<u32>(param_.socket);
  LSP_LOG(0,
          "HighFreqTest, ignore_high_freq_test_time=%u, begin time=%d, cur time=%d, socket=%u, "
          "token=%u",
          ignore_high_freq_test_time_, session_init_time_, now, socket, param_.token);
  if (!running_) return kRefused;
  LSP_LOG(0, "HighFreqTest, high_freq_test_countert=%u, socket=%u, token=%u",
          high_freq_test_counter_, socket, param_.token);
  if (high_freq_test_counter_ != 0 || burst_.IsRunning() || IsYoungLink()) return kNotNow;
  if (recent_cycle_[1].IsWatching() && !MayEndWatching()) return kRefused;
  high_freq_test_counter_ = high_freq_test_time_ / high_freq_test_interval_;
  if (by_answers_) burst_.Start(high_freq_test_counter_);
  return kStarted;
}

// A link that has just been made is left alone, unless it was made to be tried.
bool RealRouteSpeedTest::IsYoungLink() noexcept {
  if (is_in_switching_ || ignore_time_passed_) return false;
  if (GetTickCount() - session_init_time_ < ignore_high_freq_test_time_) {
    LSP_LOG(0, "HighFreqTest, less than %u ms, session_init_time=%u, socket=%u, token=%u",
            ignore_high_freq_test_time_, session_init_time_, static_cast<u32>(param_.socket),
            param_.token);
    return true;
  }
  ignore_time_passed_ = true;
  return false;
}

// After many bursts only a loss that the probes themselves show is worth another one.
bool RealRouteSpeedTest::MayEndWatching() noexcept {
  u32 need = 0;
  u32 real = 0;
  const u32 socket = static_cast<u32>(param_.socket);
  const u32 lost = judge_.GetRealRouteLost(&need, &real, false);
  LSP_LOG(0, "test link lost=%d, max=%d, need=%d,real=%d, socket=%u, token=%u", lost,
          max_real_route_lost_, need, real, socket, param_.token);
  if (lost < max_real_route_lost_ || lost > 100) {
    LSP_LOG(0, "watch period time, refuse high freq test, socket=%u, token=%u", socket,
            param_.token);
    return false;
  }
  recent_cycle_[1].StopWatching();
  LSP_LOG(0, "test link lost=%d, socket=%u, token=%u", lost, socket, param_.token);
  return true;
}

}  // namespace moru_vyr::lsp
