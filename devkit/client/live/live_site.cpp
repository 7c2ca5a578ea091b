#include "client/live/live_site.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "client/watch/flow_worth.h"
#include "client/watch/page_data.h"
#include "client/watch/report_drain.h"
#include "client/watch/report_page.h"
#include "metrics/metrics_text.h"

namespace client {
namespace {

using metrics::MetricsText;
using metrics::Type;

constexpr uint32_t kStuckMs = 10'000;
// The page of a long run takes a while to put together: the server's thread has other work, too.
constexpr uint32_t kLeastPauseMs = 1000;
constexpr uint32_t kPausePerWork = 9;

// The page's first figure, by node.
void WriteSaved(const FlowBook& book, uint64_t now_ms, MetricsText* text) {
  std::map<std::string, std::pair<double, unsigned>> saved;
  for (const Flow& flow : book.flows()) {
    if (flow.ended || flow.stay() == nullptr || now_ms > flow.last_ms + ReportMetrics::kGoneMs) {
      continue;
    }
    const Worth worth = WorthOf(*flow.stay());
    const auto saves = worth.saves();
    if (worth.basis != Worth::Basis::kMeasured || !saves) continue;
    const std::string& node = flow.stay()->endpoint;
    const bool has_room = saved.size() < ReportMetrics::kMostSeries || saved.contains(node);
    auto& [sum, count] = saved[has_room ? node : "other"];
    sum += static_cast<double>(*saves);
    ++count;
  }
  text->Family(
      "vyr_saved_delay_seconds", Type::kGauge,
      "What the way through the node saves against the direct way; below 0: what it costs. "
      "The mean of the open flows whose way was measured.");
  for (const auto& [node, sum] : saved) {
    text->Sample({{"node", node}}, sum.first / 1000 / sum.second);
  }
}

http::SharedText Share(std::string text) { return std::make_shared<std::string>(std::move(text)); }

}  // namespace

LiveSite::LiveSite(std::string version, bool is_replay)
    : version_(std::move(version)), is_replay_(is_replay) {
  arrivals_.look_tick = GetTickCount();
}

// --- the thread that drains -----------------------------------------------------------------

void LiveSite::Add(const std::vector<Report>& reports) {
  std::vector<Report> copies = reports;
  const common::Lock lock(mutex_);
  std::vector<Report>& waiting = arrivals_.reports;
  const size_t room = kMostWaiting - std::min(kMostWaiting, waiting.size());
  const size_t taken = std::min(room, copies.size());
  arrivals_.left_out += copies.size() - taken;
  waiting.insert(waiting.end(), std::make_move_iterator(copies.begin()),
                 std::make_move_iterator(copies.begin() + static_cast<std::ptrdiff_t>(taken)));
}

void LiveSite::Looked(const std::string& trouble) {
  const common::Lock lock(mutex_);
  ++arrivals_.looks;
  arrivals_.look_tick = GetTickCount();
  arrivals_.trouble = trouble;
}

// --- the server's thread --------------------------------------------------------------------

void LiveSite::TakeIn() {
  std::vector<Report> reports;
  {
    const common::Lock lock(mutex_);
    reports.swap(arrivals_.reports);
    seen_.left_out = arrivals_.left_out;
    seen_.looks = arrivals_.looks;
    seen_.look_tick = arrivals_.look_tick;
    seen_.trouble = arrivals_.trouble;
  }
  for (const Report& report : reports) {
    book_.Add(report);
    metrics_.Add(report);
    latest_ms_ = std::max(latest_ms_, report.time_ms);
  }
  reports_ += reports.size();
  is_changed_ = is_changed_ || !reports.empty();
}

http::Event LiveSite::Latest() {
  TakeIn();
  const uint32_t now = GetTickCount();
  const bool is_due = data_.number == 0 || now - drawn_tick_ >= pause_ms_;
  if (!is_changed_ || !is_due) return data_;
  data_ = {data_.number + 1, Share(PageData(book_))};
  is_changed_ = false;
  drawn_tick_ = GetTickCount();
  pause_ms_ = std::max(kLeastPauseMs, kPausePerWork * (drawn_tick_ - now));
  return data_;
}

std::optional<http::Reply> LiveSite::Get(std::string_view path) {
  if (path == "/") return Page();
  if (path == "/metrics") return Metrics();
  if (path == "/health") return Health();
  return std::nullopt;
}

http::Reply LiveSite::Page() {
  const http::Event data = Latest();
  if (page_number_ != data.number) {
    page_ = Share(LivePageAround(*data.text));
    page_number_ = data.number;
  }
  return {200, "text/html; charset=utf-8", page_};
}

http::Reply LiveSite::Metrics() {
  TakeIn();
  MetricsText text;
  text.Family("vyr_client_build_info", Type::kGauge, "Always 1.");
  text.Sample({{"version", version_}}, uint64_t{1});
  text.Family("vyr_drain_looks_total", Type::kCounter, "How often reports were looked for.");
  text.Sample({}, seen_.looks);
  text.Family("vyr_drain_hindered", Type::kGauge, "1 while some reports cannot be taken.");
  text.Sample({}, uint64_t{!seen_.trouble.empty()});
  text.Family("vyr_reports_left_out_total", Type::kCounter,
              "Reports that were taken faster than they could be counted here.");
  text.Sample({}, seen_.left_out);
  const uint64_t now_ms = is_replay_ ? latest_ms_ : NowMs();
  metrics_.Write(now_ms, &text);
  WriteSaved(book_, now_ms, &text);
  return {200, metrics::kContentType, Share(text.text())};
}

http::Reply LiveSite::Health() {
  TakeIn();
  const uint32_t age = GetTickCount() - seen_.look_tick;
  const char* const status = age >= kStuckMs ? "stuck" : !seen_.trouble.empty() ? "hindered" : "ok";
  const bool is_well = status == std::string_view("ok");
  const nlohmann::ordered_json health = {{"status", status},
                                         {"trouble", seen_.trouble},
                                         {"version", version_},
                                         {"reports", reports_},
                                         {"look_age_ms", age}};
  return {is_well ? 200u : 503u, "application/json", Share(health.dump() + "\n")};
}

}  // namespace client
