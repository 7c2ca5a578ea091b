#include "bench/comparison.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace bench {
namespace {

double MedianOf(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

int Width(const std::string& title) { return std::max(static_cast<int>(title.size()), 8); }

// The pairs of which both ways are measured.
std::vector<Pair> Measured(std::vector<Pair> pairs, const std::vector<std::string>& ways) {
  const auto is_measured = [&ways](const std::string& way) {
    return std::find(ways.begin(), ways.end(), way) != ways.end();
  };
  std::erase_if(pairs, [&](const Pair& pair) {
    return !is_measured(pair.first) || !is_measured(pair.second);
  });
  return pairs;
}

}  // namespace

Comparison::Comparison(std::vector<Row> rows, std::vector<std::string> ways,
                       std::vector<Pair> pairs)
    : rows_(std::move(rows)), ways_(std::move(ways)), pairs_(Measured(std::move(pairs), ways_)) {}

void Comparison::Add(std::size_t row, const std::string& way, double value) {
  values_[{row, way}].push_back(value);
}

const std::vector<double>& Comparison::Values(std::size_t row, const std::string& way) const {
  static const std::vector<double> none;
  const auto found = values_.find({row, way});
  return found != values_.end() ? found->second : none;
}

bool Comparison::Has(std::size_t row) const {
  return std::any_of(ways_.begin(), ways_.end(),
                     [&](const std::string& way) { return !Values(row, way).empty(); });
}

double Comparison::Median(std::size_t row, const std::string& way) const {
  return MedianOf(Values(row, way));
}

std::vector<double> Comparison::Ratios(std::size_t row, const Pair& pair) const {
  const std::vector<double>& first = Values(row, pair.first);
  const std::vector<double>& second = Values(row, pair.second);
  std::vector<double> ratios;
  for (std::size_t i = 0; i < std::min(first.size(), second.size()); ++i) {
    if (first[i] <= 0 || second[i] <= 0) continue;
    ratios.push_back(rows_[row].more_is_better ? first[i] / second[i] : second[i] / first[i]);
  }
  std::sort(ratios.begin(), ratios.end());
  return ratios;
}

double Comparison::Ratio(std::size_t row, const Pair& pair) const {
  return MedianOf(Ratios(row, pair));
}

std::pair<double, double> Comparison::Quartiles(std::size_t row, const Pair& pair) const {
  const std::vector<double> ratios = Ratios(row, pair);
  if (ratios.empty()) return {0, 0};
  return {ratios[ratios.size() / 4], ratios[ratios.size() - 1 - ratios.size() / 4]};
}

void Comparison::PrintTable() const {
  std::size_t longest = 0;
  for (const Row& row : rows_) longest = std::max(longest, row.name.size());
  const int names = static_cast<int>(longest) + 2;
  std::printf("%-*s%-9s", names, "", "");
  for (const std::string& way : ways_) std::printf("  %*s", Width(way), way.c_str());
  for (const Pair& pair : pairs_) std::printf("  %s", pair.Title().c_str());
  std::printf("\n");
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    if (!Has(i)) continue;
    std::printf("%-*s%-9s", names, rows_[i].name.c_str(), rows_[i].unit.c_str());
    for (const std::string& way : ways_) {
      if (Values(i, way).empty()) {
        std::printf("  %*s", Width(way), "");
      } else {
        std::printf("  %*.2f", Width(way), Median(i, way));
      }
    }
    for (const Pair& pair : pairs_) {
      const int width = static_cast<int>(pair.Title().size());
      const double ratio = Ratio(i, pair);
      if (ratio > 0) {
        std::printf("  %*.2f", width, ratio);
      } else {
        std::printf("  %*s", width, "");
      }
    }
    std::printf("\n");
  }
}

void Comparison::PrintJson(int rounds) const {
  nlohmann::ordered_json all;
  all["rounds"] = rounds;
  for (std::size_t i = 0; i < rows_.size(); ++i) {
    if (!Has(i)) continue;
    nlohmann::ordered_json row = {{"measure", rows_[i].name}, {"unit", rows_[i].unit}};
    for (const std::string& way : ways_) {
      if (!Values(i, way).empty()) row["median"][way] = Median(i, way);
    }
    for (const Pair& pair : pairs_) {
      if (Ratio(i, pair) <= 0) continue;
      row["ratio"][pair.Title()] = Ratio(i, pair);
      row["quartiles"][pair.Title()] = Quartiles(i, pair);
    }
    all["rows"].push_back(row);
  }
  std::printf("%s\n", all.dump(1).c_str());
}

}  // namespace bench
