// The page of a run while it goes on, with its metrics.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/live/report_metrics.h"
#include "client/watch/flow_book.h"
#include "client/watch/live_view.h"
#include "common/lock.h"
#include "http/server.h"

namespace client {

class LiveSite : public http::Site, public LiveView {
 public:
  // Reports that wait to be looked at; more are left out of the page and the metrics, and counted.
  static constexpr size_t kMostWaiting = 20'000;

  // A replay's clock is that of its reports.
  LiveSite(std::string version, bool is_replay);

  // Of the thread that drains the reports.
  void Add(const std::vector<Report>& reports) override;
  void Looked(const std::string& trouble) override;

  // Of the server's thread.
  std::optional<http::Reply> Get(std::string_view path) override;
  bool IsStream(std::string_view path) override { return path == "/events"; }
  http::Event Latest() override;

 private:
  struct Arrivals {
    std::vector<Report> reports;
    uint64_t left_out = 0;
    uint64_t looks = 0;
    uint32_t look_tick = 0;
    std::string trouble;
  };

  void TakeIn();
  http::Reply Page();
  http::Reply Metrics();
  http::Reply Health();

  const std::string version_;
  const bool is_replay_;

  common::Mutex mutex_;  // held to move the list, never for work
  Arrivals arrivals_;

  // Of the server's thread alone.
  Arrivals seen_;  // without the reports
  FlowBook book_;
  ReportMetrics metrics_;
  uint64_t reports_ = 0;
  uint64_t latest_ms_ = 0;
  bool is_changed_ = true;
  http::Event data_;
  uint32_t drawn_tick_ = 0;
  uint32_t pause_ms_ = 0;
  http::SharedText page_;
  uint64_t page_number_ = 0;
};

}  // namespace client
