#include "client/watch/top_view.h"

#include <algorithm>
#include <cstdio>

#include "client/watch/report_words.h"

namespace client {
namespace {

// Characters, not bytes: every text here is UTF-8 without wide or combining characters.
size_t Width(const std::string& text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

std::string Cut(std::string text, size_t width) {
  if (Width(text) <= width) return text;
  if (width == 0) return "";
  while (Width(text) > width - 1) text.pop_back();
  while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xc0) == 0xc0) text.pop_back();
  return text + "…";
}

std::string Fit(const std::string& text, size_t width) {
  std::string cut = Cut(text, width);
  cut.append(width - std::min(width, Width(cut)), ' ');
  return cut;
}

std::string DelayText(const std::optional<Section>& section) {
  if (!section) return "-";
  if (section->answered == 0) return "no answer";
  return std::to_string(section->delay_avg) + " ±" + std::to_string(section->delay_amp) + " ms";
}

std::string LossText(const FlowPoint* point) {
  if (point == nullptr || !point->frontend) return "-";
  const Section& whole = point->backend ? *point->backend : *point->frontend;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%", whole.lost);
  return text;
}

std::string RateText(double rate, const FlowPoint* point) {
  return point == nullptr ? "-" : BytesWords(rate) + "/s";
}

std::string NodeText(const Flow& flow) {
  if (!flow.node.empty()) return flow.node;
  return flow.failures == 0 || flow.accelerated ? "direct" : "direct, node failed";
}

uint32_t AgeMs(const Flow& flow, uint64_t now_ms) {
  if (flow.ended) return flow.life_ms;
  const uint64_t since_heard = now_ms > flow.last_ms ? now_ms - flow.last_ms : 0;
  if (flow.life_ms != 0) return flow.life_ms + static_cast<uint32_t>(since_heard);
  return static_cast<uint32_t>(now_ms > flow.first_ms ? now_ms - flow.first_ms : 0);
}

struct Column {
  const char* title;
  size_t width;
  int rank;  // the higher, the sooner it is left out
  std::string (*text)(const Flow& flow, uint64_t now_ms);
};

constexpr size_t kGap = 2;
constexpr size_t kLeastEvent = 16;

const Column kColumns[] = {
    {"GAME SERVER", 21, 0, [](const Flow& flow, uint64_t) { return flow.game; }},
    {"TYPE", 4, 5, [](const Flow& flow, uint64_t) { return flow.type; }},
    {"NODE", 26, 1, [](const Flow& flow, uint64_t) { return NodeText(flow); }},
    {"FRONTEND", 12, 2,
     [](const Flow& flow, uint64_t) {
       return DelayText(flow.last_point() ? flow.last_point()->frontend : std::nullopt);
     }},
    {"BACKEND", 12, 7,
     [](const Flow& flow, uint64_t) {
       return DelayText(flow.last_point() ? flow.last_point()->backend : std::nullopt);
     }},
    {"LOSS", 7, 3, [](const Flow& flow, uint64_t) { return LossText(flow.last_point()); }},
    {"SENT", 11, 4,
     [](const Flow& flow, uint64_t) {
       const FlowPoint* const point = flow.last_point();
       return RateText(point ? point->sent_rate : 0, point);
     }},
    {"RECEIVED", 11, 4,
     [](const Flow& flow, uint64_t) {
       const FlowPoint* const point = flow.last_point();
       return RateText(point ? point->recv_rate : 0, point);
     }},
    {"AGE", 10, 6,
     [](const Flow& flow, uint64_t now_ms) { return SpanWords(AgeMs(flow, now_ms)); }},
};
constexpr int kLastRank = 7;

std::vector<const Column*> ColumnsWithin(size_t width) {
  for (int most = kLastRank; most >= 0; --most) {
    std::vector<const Column*> columns;
    size_t sum = 0;
    for (const Column& column : kColumns) {
      if (column.rank > most) continue;
      columns.push_back(&column);
      sum += column.width + kGap;
    }
    // The last event matters more than the columns of the highest ranks.
    const size_t rest = most > 3 ? kLeastEvent : 0;
    if (sum + rest <= width || most == 0) return columns;
  }
  return {};
}

std::string Row(const std::vector<const Column*>& columns, size_t width, const Flow* flow,
                uint64_t now_ms) {
  std::string line;
  for (const Column* column : columns) {
    line += Fit(flow != nullptr ? column->text(*flow, now_ms) : column->title, column->width) +
            std::string(kGap, ' ');
  }
  const size_t used = Width(line);
  if (used + kLeastEvent <= width) {
    line += Cut(flow != nullptr ? flow->last_event() : "LAST EVENT", width - used);
  }
  line = Cut(line, width);
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

std::vector<const Flow*> InOrder(const FlowBook& book) {
  std::vector<const Flow*> flows;
  for (const Flow& flow : book.flows()) flows.push_back(&flow);
  std::stable_sort(flows.begin(), flows.end(), [](const Flow* a, const Flow* b) {
    if (a->ended != b->ended) return b->ended;
    return a->ended && a->last_ms > b->last_ms;
  });
  return flows;
}

}  // namespace

std::vector<std::string> TopLines(const FlowBook& book, ScreenSize screen, uint64_t now_ms) {
  const std::vector<const Flow*> flows = InOrder(book);
  const auto ended =
      std::count_if(flows.begin(), flows.end(), [](const Flow* flow) { return flow->ended; });
  std::string summary = ClockText(now_ms).substr(0, 8) + "  " + std::to_string(flows.size()) +
                        (flows.size() == 1 ? " flow, " : " flows, ") + std::to_string(ended) +
                        " ended";
  std::vector<std::string> lines = {Cut(summary, screen.columns)};
  if (flows.empty()) return lines;
  const auto columns = ColumnsWithin(screen.columns);
  if (screen.rows == 0 || screen.rows > 2) {
    lines.push_back(Row(columns, screen.columns, nullptr, now_ms));
  }
  for (size_t i = 0; i < flows.size(); ++i) {
    const bool is_last_line = screen.rows != 0 && lines.size() + 1 >= screen.rows;
    if (is_last_line && i + 1 < flows.size()) {
      const std::string more = std::to_string(flows.size() - i);
      if (lines.size() < screen.rows) lines.push_back(Cut("… " + more + " more", screen.columns));
      break;
    }
    lines.push_back(Row(columns, screen.columns, flows[i], now_ms));
  }
  if (screen.rows != 0 && lines.size() > screen.rows) lines.resize(screen.rows);
  return lines;
}

}  // namespace client
