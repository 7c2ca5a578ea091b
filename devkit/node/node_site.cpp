#include "node/node_site.h"

#include <windows.h>

#include <nlohmann/json.hpp>

#include "metrics/metrics_text.h"
#include "node/node.h"

namespace node {
namespace {

constexpr u32 kLeaveEveryMs = 100;
constexpr u32 kStuckMs = 5000;  // a step waits a tenth of a second at most

http::SharedText Share(std::string text) { return std::make_shared<std::string>(std::move(text)); }

}  // namespace

void NodeSite::Leave(const NodeFigures& ended, const Node& node) {
  const u32 now = GetTickCount();
  if (has_left_ && now - left_tick_ < kLeaveEveryMs) return;
  has_left_ = true;
  left_tick_ = now;
  NodeFigures all = ended;
  all.AddOpen(node);
  const common::Lock lock(mutex_);
  std::swap(figures_, all);
  tick_ = now;
}

std::optional<http::Reply> NodeSite::Get(std::string_view path) {
  if (path == "/health") return Health();
  if (path != "/metrics") return std::nullopt;
  NodeFigures figures;
  {
    const common::Lock lock(mutex_);
    figures = figures_;
  }
  return http::Reply{200, metrics::kContentType, Share(MetricsOf(figures, version_))};
}

http::Reply NodeSite::Health() {
  NodeFigures figures;
  u32 age = 0;
  {
    const common::Lock lock(mutex_);
    figures = figures_;
    age = GetTickCount() - tick_;
  }
  const bool is_stuck = age >= kStuckMs;
  nlohmann::ordered_json health = {{"status", is_stuck ? "stuck" : "ok"},
                                   {"version", version_},
                                   {"connections", figures.open_connections},
                                   {"flows", figures.open_flows},
                                   {"step_age_ms", age}};
  return {is_stuck ? 503u : 200u, "application/json", Share(health.dump() + "\n")};
}

}  // namespace node
