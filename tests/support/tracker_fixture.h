// A Tracker owned by the test, which calls it as the relay's worker does, and decisions to pass to
// it.
#pragma once
#include <gtest/gtest.h>

#include <string>

#include "common/text.h"
#include "route/acc_config.h"
#include "tests/support/report_client.h"
#include "tracker/tracker.h"

namespace test {

using common::u32;

inline constexpr SOCKET kSocket = 77;
inline constexpr u32 kToken = 5;

inline moru_vyr::lsp::AccDecisionInfo SomeDecision(const std::string& guid = "guid") {
  moru_vyr::lsp::AccDecisionInfo decision;
  decision.used = 1;
  common::SetFieldText(decision.guid, guid);
  decision.acc_reason = 4;
  decision.game_id = 7;
  decision.process_id = 4321;
  decision.game_ip = 0xc633640a;  // 198.51.100.10
  decision.game_port = 27015;
  decision.game_idc = 11;
  decision.direct_delay = 90;
  decision.direct_lost = 2;
  decision.header3 = 33;
  moru_vyr::lsp::RouteProxyInfo& proxy = decision.selected_proxy;
  common::SetFieldText(proxy.proxy_addr, "198.51.100.20");
  proxy.proxy_port = 7001;
  proxy.proxy_idc = 20;
  proxy.section1_delay = 30;
  proxy.section1_lost = 1;
  proxy.section2_delay = 40;
  proxy.user_isp = 3;
  proxy.user_ip = 0x04030201;
  return decision;
}

// The address of a temporary, for the duration of a call.
template <class T>
const T* At(const T& value) {
  return &value;
}

class TrackerTest : public testing::Test {
 protected:
  TrackerTest() {
    moru_vyr::lsp::AccConfigRecord config;
    config.game_id = 7;
    common::SetFieldText(config.uin, "10001");
    ReplaceAccConfig(config);
  }
  ~TrackerTest() override { ReplaceAccConfig(moru_vyr::lsp::AccConfigRecord{}); }

  const moru_vyr::lsp::SocketQosRecord& Record(SOCKET socket = kSocket) {
    static const moru_vyr::lsp::SocketQosRecord none;
    const auto* const record = tracker.Find(socket);
    EXPECT_NE(record, nullptr);
    return record != nullptr ? *record : none;
  }
  // Adds an accelerated socket whose node has accepted the negotiation.
  void AddAccelerated(SOCKET socket = kSocket, const std::string& guid = "guid",
                      u32 type = moru_vyr::lsp::kTrackUdp) {
    const auto decision = SomeDecision(guid);
    tracker.AddToWatchList(socket, type, kToken);
    tracker.SetAcceInfo(socket, true, &decision);
    tracker.RecordNegSuccess(socket, 9, 0x0a0b0c0d, 21, 0x05060708, &decision);
  }
  // Writes all pending reports, and ends the thread.
  void ReportAll() {
    tracker.Init();
    tracker.UnInit();
  }

  moru_vyr::lsp::Tracker tracker;
};

}  // namespace test
