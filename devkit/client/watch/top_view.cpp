#include "client/watch/top_view.h"

#include <algorithm>
#include <cstdio>

#include "client/watch/flow_worth.h"
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

// One line of the table: a flow with the node that it has now, one that it had before, or one that
// is on trial.
struct Line {
  const Flow* flow;
  const Stay* stay = nullptr;  // null: the flow goes direct, or it is a trial
  const Trial* trial = nullptr;
  bool is_first = true;  // of its flow
};

constexpr char kNothing[] = "-";

// After a move the library speaks on of the node before, unless it is asked not to.
bool IsSilent(const Line& line) {
  return line.trial != nullptr || (line.stay != nullptr && !line.stay->is_reported &&
                                   line.stay != &line.flow->stays.front());
}

// Rates are of now, so they belong to the node of the latest figures alone.
const FlowPoint* PointOf(const Line& line) {
  return line.is_first && !IsSilent(line) ? line.flow->last_point() : nullptr;
}

std::string DelayText(const Line& line, const std::optional<Section> Stay::*half) {
  if (line.trial != nullptr) return "on trial";
  if (IsSilent(line)) return "not reported";
  if (line.stay == nullptr || !(line.stay->*half)) return kNothing;
  const Section& section = *(line.stay->*half);
  if (section.answered == 0) return "no answer";
  return std::to_string(section.delay_avg) + " ±" + std::to_string(section.delay_amp) + " ms";
}

std::string LossText(const Line& line) {
  const Stay* const stay = line.stay;
  if (stay == nullptr || IsSilent(line) || !stay->frontend) return kNothing;
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%",
                (stay->backend ? stay->backend : stay->frontend)->lost);
  return text;
}

std::string CarriedText(const Line& line, double FlowPoint::*rate, uint64_t Stay::*bytes) {
  if (const FlowPoint* const point = PointOf(line)) return BytesWords(point->*rate) + "/s";
  if (line.is_first || line.stay == nullptr || IsSilent(line)) return kNothing;
  return BytesWords(static_cast<double>(line.stay->*bytes));
}

// In brackets what stands in the tables alone.
std::string SavesText(const Line& line) {
  if (line.stay == nullptr) return kNothing;
  const Worth worth = WorthOf(*line.stay);
  const auto saves = worth.saves();
  if (!saves) return "unknown";
  const std::string text = std::to_string(*saves) + " ms";
  return worth.basis == Worth::Basis::kTables ? "(" + text + ")" : text;
}

std::string NodeText(const Line& line) {
  if (line.trial != nullptr) return line.trial->node;
  if (line.stay != nullptr) return line.stay->node;
  return line.flow->failures == 0 || line.flow->accelerated ? "direct" : "direct, node failed";
}

std::string SinceStart(const Flow& flow, uint64_t time_ms) {
  return SpanWords(static_cast<uint32_t>(time_ms - std::min(time_ms, flow.first_ms)));
}

std::string NameText(const Line& line) {
  if (line.is_first) return line.flow->game;
  if (line.trial != nullptr) return "  since " + SinceStart(*line.flow, line.trial->from_ms);
  return "  until " + SinceStart(*line.flow, line.stay->until_ms);
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
  std::string (*text)(const Line& line, uint64_t now_ms);
};

constexpr size_t kGap = 2;
constexpr size_t kLeastEvent = 16;

const Column kColumns[] = {
    {"GAME SERVER", 21, 0, [](const Line& line, uint64_t) { return NameText(line); }},
    {"TYPE", 4, 6,
     [](const Line& line, uint64_t) { return line.is_first ? line.flow->type : std::string(); }},
    {"NODE", 26, 2, [](const Line& line, uint64_t) { return NodeText(line); }},
    {"SAVES", 8, 1, [](const Line& line, uint64_t) { return SavesText(line); }},
    {"FRONTEND", 12, 3,
     [](const Line& line, uint64_t) { return DelayText(line, &Stay::frontend); }},
    {"BACKEND", 12, 8, [](const Line& line, uint64_t) { return DelayText(line, &Stay::backend); }},
    {"LOSS", 7, 4, [](const Line& line, uint64_t) { return LossText(line); }},
    {"SENT", 11, 5,
     [](const Line& line, uint64_t) {
       return CarriedText(line, &FlowPoint::sent_rate, &Stay::sent_bytes);
     }},
    {"RECEIVED", 11, 5,
     [](const Line& line, uint64_t) {
       return CarriedText(line, &FlowPoint::recv_rate, &Stay::recv_bytes);
     }},
    {"AGE", 10, 7,
     [](const Line& line, uint64_t now_ms) {
       return line.is_first ? SpanWords(AgeMs(*line.flow, now_ms)) : std::string();
     }},
};
constexpr int kLastRank = 8;
constexpr int kLastRankBeforeEvent = 4;

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
    const size_t rest = most > kLastRankBeforeEvent ? kLeastEvent : 0;
    if (sum + rest <= width || most == 0) return columns;
  }
  return {};
}

// Without a line: the heading.
std::string Row(const std::vector<const Column*>& columns, size_t width, const Line* of,
                uint64_t now_ms) {
  std::string line;
  for (const Column* column : columns) {
    line += Fit(of != nullptr ? column->text(*of, now_ms) : column->title, column->width) +
            std::string(kGap, ' ');
  }
  const size_t used = Width(line);
  if (used + kLeastEvent <= width && (of == nullptr || of->is_first)) {
    line += Cut(of != nullptr ? of->flow->last_event() : "LAST EVENT", width - used);
  }
  line = Cut(line, width);
  line.erase(line.find_last_not_of(' ') + 1);
  return line;
}

// Earlier nodes, of which a flow may have had many: the latest.
constexpr size_t kMostEarlier = 3;

void AddLines(const Flow& flow, std::vector<Line>* lines) {
  lines->push_back({.flow = &flow, .stay = flow.stay()});
  if (!flow.trials.empty() && flow.trials.back().until_ms == 0) {
    lines->push_back({.flow = &flow, .trial = &flow.trials.back(), .is_first = false});
  }
  const size_t stays = flow.stays.size();
  for (size_t back = 2; back <= stays && back <= kMostEarlier + 1; ++back) {
    lines->push_back({.flow = &flow, .stay = &flow.stays[stays - back], .is_first = false});
  }
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
  std::vector<Line> rows;
  for (const Flow* flow : flows) AddLines(*flow, &rows);
  for (size_t i = 0; i < rows.size(); ++i) {
    const bool is_last_line = screen.rows != 0 && lines.size() + 1 >= screen.rows;
    if (is_last_line && i + 1 < rows.size()) {
      const auto more = std::count_if(rows.begin() + static_cast<std::ptrdiff_t>(i), rows.end(),
                                      [](const Line& line) { return line.is_first; });
      const std::string text = more == 0 ? "…" : "… " + std::to_string(more) + " more";
      if (lines.size() < screen.rows) lines.push_back(Cut(text, screen.columns));
      break;
    }
    lines.push_back(Row(columns, screen.columns, &rows[i], now_ms));
  }
  if (screen.rows != 0 && lines.size() > screen.rows) lines.resize(screen.rows);
  return lines;
}

}  // namespace client
