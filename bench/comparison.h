// Figures that several ways of doing one thing yield in turns, and what they say beside each other.
//
// One thread.
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

  // Of one round; every round adds to a row what each way yields, or nothing for any.
  void Add(std::size_t row, const std::string& way, double value);

  double Median(std::size_t row, const std::string& way) const;
  // How much better the first is than the second; 1 where they are the same. Neighbours in time are
  // compared, since a busy machine is busy for both, and the middle of those ratios is told. 0
  // where nothing can be said.
  double Ratio(std::size_t row, const Pair& pair) const;

  // Rows without a figure are left out.
  void PrintTable() const;
  void PrintJson(int rounds) const;

 private:
  const std::vector<double>& Values(std::size_t row, const std::string& way) const;
  bool Has(std::size_t row) const;

  const std::vector<Row> rows_;
  const std::vector<std::string> ways_;
  const std::vector<Pair> pairs_;
  std::map<std::pair<std::size_t, std::string>, std::vector<double>> values_;
};

}  // namespace bench
