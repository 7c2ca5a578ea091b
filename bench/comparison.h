// Figures of several ways of doing one thing, measured in turn, and how they compare.
//
// Use from one thread only.
#pragma once
#include <cstddef>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace bench {

struct Row {
  std::string name;
  std::string unit;
  bool more_is_better = false;
};

// Two ways whose ratio gets a column of its own.
struct Pair {
  std::string first;
  std::string second;
  std::string Title() const { return first + "/" + second; }
};

class Comparison {
 public:
  Comparison(std::vector<Row> rows, std::vector<std::string> ways, std::vector<Pair> pairs);

  // The figure of one way in one round. A round adds one for every way, or for none.
  void Add(std::size_t row, const std::string& way, double value);

  double Median(std::size_t row, const std::string& way) const;
  // How much better the first is than the second; 1 if they are equal. Compares figures of the same
  // round, because a busy machine slows both. The result is the median of these ratios, or 0 if
  // there is none.
  double Ratio(std::size_t row, const Pair& pair) const;
  // The quarter of the rounds with the smallest ratios lies below the first, that with the largest
  // above the second.
  std::pair<double, double> Quartiles(std::size_t row, const Pair& pair) const;

  // Leaves out rows without a figure.
  void PrintTable() const;
  void PrintJson(int rounds) const;

 private:
  const std::vector<double>& Values(std::size_t row, const std::string& way) const;
  std::vector<double> Ratios(std::size_t row, const Pair& pair) const;  // sorted
  bool Has(std::size_t row) const;

  const std::vector<Row> rows_;
  const std::vector<std::string> ways_;
  const std::vector<Pair> pairs_;
  std::map<std::pair<std::size_t, std::string>, std::vector<double>> values_;
};

}  // namespace bench
