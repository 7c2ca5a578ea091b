#include "client/watch/flow_worth.h"

#include <algorithm>

namespace client {
namespace {

std::optional<double> DelayIn(const std::optional<Section>& section) {
  if (!section || section->answered == 0) return std::nullopt;
  return section->delay_avg;
}

// Both parts of the way have to be passed.
double LostOnBoth(double first, double second) {
  return 100 - (100 - first) * (100 - second) / 100;
}

std::optional<double> LostOnTheWay(const Stay& stay, Worth::Basis basis) {
  const TableFigures& tables = stay.tables;
  if (basis == Worth::Basis::kTables) {
    if (!tables.section1_lost || !tables.section2_lost) return std::nullopt;
    return LostOnBoth(*tables.section1_lost, *tables.section2_lost);
  }
  if (stay.backend && stay.backend->asked != 0) return stay.backend->lost;
  if (!stay.frontend || !tables.section2_lost) return std::nullopt;
  return LostOnBoth(stay.frontend->lost, *tables.section2_lost);
}

std::string WhatIsMissing(const Worth& worth, const TableFigures& tables) {
  if (tables.direct_unreachable) return "the tables call the direct way unreachable";
  if (!worth.direct) return "no report gave the delay of the direct way";
  return "no report gave the delay of the way through the node";
}

}  // namespace

std::optional<int64_t> Worth::saves() const {
  if (!direct || !taken) return std::nullopt;
  return static_cast<int64_t>(*direct) - static_cast<int64_t>(*taken);
}

std::optional<double> TakenDelay(std::optional<double> front, std::optional<double> back,
                                 const TableFigures& tables) {
  if (!front) return back;
  if (!tables.section2_delay) return back;
  return std::max(*front + *tables.section2_delay, back.value_or(0));
}

Worth WorthOf(const Stay& stay) {
  const TableFigures& tables = stay.tables;
  Worth worth = {.direct = tables.direct_delay,
                 .taken = {},
                 .direct_lost = tables.direct_lost,
                 .taken_lost = {},
                 .direct_is_in_force = tables.direct_is_in_force,
                 .why = {}};
  const auto measured = TakenDelay(DelayIn(stay.frontend), DelayIn(stay.backend), tables);
  if (measured) {
    worth.taken = static_cast<uint32_t>(*measured);
    worth.basis = Worth::Basis::kMeasured;
    worth.why = stay.backend ? "measured through both relays"
                             : "measured to the node, by the tables from there";
  } else if (tables.section1_delay && tables.section2_delay) {
    worth.taken = *tables.section1_delay + *tables.section2_delay;
    worth.basis = Worth::Basis::kTables;
    worth.why = "by the tables: nothing was measured";
  }
  worth.taken_lost = LostOnTheWay(stay, worth.basis);
  if (!worth.saves()) worth.why = WhatIsMissing(worth, tables);
  return worth;
}

std::string WorthWords(const Worth& worth) {
  const auto saves = worth.saves();
  if (!saves) return "unknown";
  std::string words = *saves > 0   ? "saves " + std::to_string(*saves) + " ms"
                      : *saves < 0 ? "costs " + std::to_string(-*saves) + " ms"
                                   : std::string("saves nothing");
  return worth.basis == Worth::Basis::kTables ? "(" + words + ")" : words;
}

}  // namespace client
