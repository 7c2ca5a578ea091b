// One table of a benchmark: measurements, each taken in all ways in turn.
#pragma once
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/comparison.h"
#include "bench/forwarder.h"
#include "bench/game_process.h"
#include "bench/settings.h"

namespace bench {

// One figure of an order to a game. Consecutive rows with the same order are figures of one run.
template <class Order, class Outcome>
struct Measure {
  Row row;
  Order order;
  double (*value)(const Order&, const Outcome&);
};

// One way from the game to its server.
template <class Order, class Outcome>
struct Way {
  std::string name;
  std::vector<Forwarder> forwarders;  // each forwards to the previous one
  std::unique_ptr<GameProcess<Order, Outcome>> game;
  bool has_library = false;
};

template <class Order, class Outcome>
class MeasuredTable {
 public:
  using AMeasure = Measure<Order, Outcome>;
  using AWay = Way<Order, Outcome>;
  // Returns whether an outcome is acceptable, and prints the reason if it is not. Either way, only
  // an outcome that `worked` has figures.
  using Judge = std::function<bool(const AWay&, const AMeasure&, const Outcome&)>;

  MeasuredTable(const Settings& settings, std::vector<AMeasure> measures, std::vector<AWay> ways,
                const std::vector<Pair>& pairs)
      : settings_(settings), measures_(std::move(measures)), ways_(std::move(ways)) {
    std::erase_if(measures_, [&](const AMeasure& measure) {
      return measure.row.name.find(settings.only) == std::string::npos;
    });
    std::vector<Row> rows;
    for (const AMeasure& measure : measures_) rows.push_back(measure.row);
    std::vector<std::string> names;
    for (const AWay& way : ways_) names.push_back(way.name);
    comparison_ = std::make_unique<Comparison>(rows, names, pairs);
  }

  // Learns every outcome that worked, for figures of all rounds together.
  void Observe(std::function<void(const std::string&, const Order&, const Outcome&)> observe) {
    observe_ = std::move(observe);
  }

  // Measures and prints. True if every outcome was acceptable.
  bool Run(const Judge& judge) {
    if (measures_.empty() || ways_.empty()) return true;
    const bool tells = isatty(STDERR_FILENO) != 0;
    bool well = true;
    for (int round = 0; round < settings_.rounds; ++round) {
      if (tells) std::fprintf(stderr, "\rround %d of %d", round + 1, settings_.rounds);
      for (std::size_t i = 0; i < measures_.size();)
        i = TakeTurns(i, static_cast<std::size_t>(round), judge, &well);
    }
    if (tells) std::fprintf(stderr, "\r                    \r");
    settings_.json ? comparison_->PrintJson(settings_.rounds) : comparison_->PrintTable();
    return well;
  }

 private:
  // Measures all ways in turn. Each round begins with a different one, so that none always follows
  // the same one.
  std::size_t TakeTurns(std::size_t first, std::size_t round, const Judge& judge, bool* well) {
    const Order& order = measures_[first].order;
    std::size_t end = first;
    while (end < measures_.size() && measures_[end].order == order) ++end;
    for (std::size_t turn = 0; turn < ways_.size(); ++turn) {
      AWay& way = ways_[(turn + round) % ways_.size()];
      const Outcome outcome = way.game->Does(order);
      *well = judge(way, measures_[first], outcome) && *well;
      if (observe_ && outcome.worked) observe_(way.name, order, outcome);
      for (std::size_t i = first; i < end && outcome.worked; ++i)
        comparison_->Add(i, way.name, measures_[i].value(order, outcome));
    }
    return end;
  }

  const Settings& settings_;
  std::vector<AMeasure> measures_;
  std::vector<AWay> ways_;
  std::unique_ptr<Comparison> comparison_;
  std::function<void(const std::string&, const Order&, const Outcome&)> observe_;
};

}  // namespace bench
