#include "quality/link_watch.h"

#include <optional>

#include "common/log.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kMostLoss = 100;  // percent; a higher value is a code

}  // namespace

LinkTrouble FindTrouble(const LinkFigures& figures, const RecoverySwitchConfig& limits) noexcept {
  // "Nothing expected" is not an unknown loss: that is what a dead link looks like.
  const bool small_unknown = figures.small_lost > kMostLoss && figures.small_lost != kLostNoRange;
  const u32 small_lost = small_unknown ? 0 : figures.small_lost;
  if (!small_unknown && figures.small_real == 0 && figures.route_short_real == 0) {
    return LinkTrouble::kDead;
  }
  if (figures.small_real >= limits.data_link_short_cycle_pkg_ &&
      small_lost >= limits.data_link_short_cycle_lost) {
    return LinkTrouble::kShortLoss;
  }
  const u32 long_lost = figures.long_lost > kMostLoss ? 0 : figures.long_lost;
  if (figures.long_real >= limits.data_link_long_cycle_pkg_ &&
      long_lost >= limits.data_link_long_cycle_lost_) {
    return LinkTrouble::kLongLoss;
  }
  if (figures.long_real < limits.data_link_long_cycle_pkg_ &&
      figures.route_lost >= limits.max_real_route_lost_ && figures.route_lost < kLostTooFew) {
    return LinkTrouble::kRouteLoss;
  }
  return LinkTrouble::kNone;
}

LinkWatch::LinkWatch()
    : by_answers_(GetMending().JudgesByAnswers()),
      probes_(&judge_, by_answers_, GetMending().ProbesOnTime()) {}

void LinkWatch::Start(const SpeedTestParam& param, std::string_view guid, const AccInfo& acc_info,
                      const ClientInfo& client_info, bool on_trial) noexcept {
  token_ = param.token;
  on_trial_ = on_trial;
  high_freq_timer_ms_ = 0;
  probes_.Start(param, on_trial);
  judge_.Init(param.socket, param.token, guid, acc_info, client_info, on_trial);
  if (on_trial) probes_.HighFreqTest();  // such a link gets no time to settle
}

// A burst is judged as its last probe is sent: answers still on their way do not count, unless it
// is judged by its answers. A link on trial has hardly closed a slot by then, so the running one is
// included. A judge that may not measure the link gives no verdict on it.
LinkRequest LinkWatch::OnUpdate(u32 elapsed_ms, bool probing) noexcept {
  while (probing && probes_.StepSpeedTest()) {
    u32 need = 0, real = 0;
    judge_.GetRealRouteLost(&need, &real, on_trial_);
    const std::optional<bool> window_lost = judge_.TryFireRealRouteLost();
    if (!window_lost) continue;
    const bool lost = probes_.burst_lossy().value_or(*window_lost);
    if (on_trial_) return lost ? LinkRequest::kReject : LinkRequest::kAccept;
    if (lost && judge_.Report() == LinkRequest::kSwitch) return LinkRequest::kSwitch;
  }
  if (!judge_.OnUpdate() || on_trial_) return LinkRequest::kNone;
  if (high_freq_timer_ms_ < judge_.config().lost_calc_unit_size) {
    high_freq_timer_ms_ += elapsed_ms;
    return LinkRequest::kNone;
  }
  high_freq_timer_ms_ = 0;
  if (WantsHighFreqTest()) probes_.HighFreqTest();
  return LinkRequest::kNone;
}

LinkRequest LinkWatch::OnReply(ProbeReply* reply) noexcept {
  if (!reply->judged) {
    reply->judged = true;
    const LinkRequest request = probes_.ProcessTestRecv(reply);
    if (request != LinkRequest::kNone) return request;
  }
  probes_.CountReply(*reply);
  return LinkRequest::kNone;
}

void LinkWatch::OnData(u32 seq, u8 lost) noexcept {
  judge_.SetUploadLost(lost);
  judge_.DataLinkAddOneRecvPkg(seq);
}

// Whether the traffic looks bad enough for a burst of probes. Nothing else follows from it.
// The numbers in the log lines are fixed text, not the thresholds.
bool LinkWatch::WantsHighFreqTest() noexcept {
  u32 need = 0, route_real = 0;
  LinkFigures figures;
  figures.small_lost = judge_.GetDataLinkShortLost(&need, &figures.small_real, false);
  figures.long_lost = judge_.GetDataLinkLongLost(&need, &figures.long_real, false);
  judge_.GetRealRouteShortLost(&need, &figures.route_short_real, false);
  figures.route_lost = judge_.GetRealRouteLost(&need, &route_real, false);
  judge_.UpdateRecoveryInfo();
  switch (FindTrouble(figures, judge_.config())) {
    case LinkTrouble::kNone:
      return false;
    case LinkTrouble::kDead:
      if (by_answers_ && !judge_.HasShortWindows()) return false;
      LSP_LOG(4,
              "[RecoverySwitch]the received packages in 2 seconds is 0, indicating dead link, so "
              "requesting high freq test, token=%u",
              token_);
      break;
    case LinkTrouble::kShortLoss:
      LSP_LOG(4,
              "[RecoverySwitch]the received packages in 2 seconds is above 20 and lost ratio is "
              "above 20, indicating lagging link, so requesting high freq test, token=%u",
              token_);
      break;
    case LinkTrouble::kLongLoss:
      LSP_LOG(4,
              "[RecoverySwitch]received packages in 5 seconds is above 30 and lost ratiois above "
              "5, so requesting high freq test, token=%u",
              token_);
      break;
    case LinkTrouble::kRouteLoss:
      LSP_LOG(4,
              "[RecoverySwitch]the received packages in 5 seconds is less than 30 and lost ratio "
              "is above 40, so requesting high freq test, token=%u",
              token_);
      break;
  }
  return true;
}

}  // namespace moru_vyr::lsp
