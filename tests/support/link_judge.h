// A judge of a link with everything enabled that it needs, and an owner that records its requests.
// Tests change `config` and `acc`, then call Start.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "abi/report_records.h"
#include "common/process_info.h"
#include "common/text.h"
#include "quality/recovery_switch.h"
#include "route/acc_config.h"
#include "tests/support/log_capture.h"

namespace test {

struct Owner {
  bool accepts = true;
  std::vector<moru_vyr::lsp::RecoverySwitchRecord> fired;
};

// Waits until the tick count has advanced by that much. It may advance in steps of 16 ms.
inline void Pass(common::u32 ms) {
  const DWORD start = GetTickCount();
  while (GetTickCount() - start < ms) Sleep(1);
}

class LinkJudge {
 public:
  static constexpr common::u32 kToken = 77;
  static constexpr common::u32 kUnit = 11;  // milliseconds, the shortest that is allowed
  static constexpr common::u32 kWait = 50;
  static constexpr char kGuid[] = "01234567-89AB-CDEF-0123-456789ABCDEF";

  explicit LinkJudge(int log_level = 6) {
    config.game_id = 7;
    config.log_level = static_cast<common::u32>(log_level);
    config.link_switch_mask = 3;
    config.switch_open = 1;
    common::SetFieldText(config.list_text, "7");
    config.lost_calc_unit_size = kUnit;
    config.recovery_window_word = kWait;
    config.short_cycle = 1;
    config.long_cycle = 1;
    config.max_link_except_rep_num = 100;
    config.max_link_switch_count = 100;
    acc.game_ip = static_cast<common::u32>(inet_addr("198.51.100.1"));
    acc.game_port = htons(5000);
    acc.proxy_idc = 42;
    acc.flag = moru_vyr::lsp::kLinkMayBeMeasured | moru_vyr::lsp::kLinkMaySwitch;
    acc.acc_ip = static_cast<common::u32>(inet_addr("203.0.113.7"));
    acc.acc_port = htons(6000);
    client.header1 = 3;
    client.client_isp = 2;
    client.client_ip = 0xC6336409;
  }
  ~LinkJudge() { moru_vyr::lsp::ReplaceAccConfig(moru_vyr::lsp::AccConfig{}); }
  LinkJudge(const LinkJudge&) = delete;
  LinkJudge& operator=(const LinkJudge&) = delete;

  // Starts the judge. Returns whether it is active.
  bool Start(bool on_trial = false, bool with_owner = true) {
    moru_vyr::lsp::ReplaceAccConfig(config);
    if (!with_owner) judge.HasNoOwner();
    judge.Init(socket, kToken, kGuid, acc, client, on_trial);
    return judge.RealRouteGetDefCurLost(true) != 0;  // an inactive one returns 0
  }
  // Handles a request as the owner would. Returns whether there was one.
  bool TakesUp(moru_vyr::lsp::LinkRequest request) {
    if (request != moru_vyr::lsp::LinkRequest::kSwitch) return false;
    owner.fired.push_back(judge.report());
    judge.SwitchAnswered(owner.accepts);
    return true;
  }
  // Judges the loss that was last read, or the given delays.
  std::optional<bool> JudgesLoss() {
    const std::optional<bool> lost = judge.TryFireRealRouteLost();
    if (lost.value_or(false)) TakesUp(judge.Report());
    return lost;
  }
  bool JudgesDelay(common::u32 amp, common::u32 avg, common::u8 relay_idx) {
    const bool high = judge.UpdateDelayValue(amp, avg, relay_idx);
    if (high) TakesUp(judge.Report());
    return high;
  }
  // Lets the time pass in which no further report is made.
  void PassReportLimit() const { Pass(config.long_cycle * kUnit); }
  // Lets a slot and its grace period end.
  void CloseSlot() {
    Pass(kUnit);
    EXPECT_TRUE(judge.OnUpdate());
    Pass(kWait);
    EXPECT_TRUE(judge.OnUpdate());
  }
  // Sends probes, of which `answered` are answered, and returns the resulting loss.
  common::u8 Probe(common::u32 sent, common::u32 answered, common::u8 relay_idx = 0) {
    for (common::u32 i = 0; i < sent; ++i) judge.RealRouteAddOneSendPkg(++seq);
    for (common::u32 i = 0; i < answered; ++i) judge.RealRouteAddOneRecvPkg(seq - i, relay_idx);
    return RealRouteLost();
  }
  common::u8 RealRouteLost(bool include_current = true) {
    common::u32 need = 0, real = 0;
    return judge.GetRealRouteLost(&need, &real, include_current);
  }

  moru_vyr::lsp::AccConfig config;
  moru_vyr::lsp::AccInfo acc;
  moru_vyr::lsp::ClientInfo client;
  SOCKET socket = 1234;
  Owner owner;
  moru_vyr::lsp::RecoverySwitch judge;
  common::u32 seq = 0;
};

// How often `part` occurs in `text`.
inline int CountOf(const std::string& part, const std::string& text) {
  int count = 0;
  for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

}  // namespace test
