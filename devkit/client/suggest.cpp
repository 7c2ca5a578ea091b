#include "client/suggest.h"

#include <algorithm>
#include <numeric>

namespace client {
namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Insertions, deletions, replacements and swaps of neighbours that lead from one to the other.
size_t EditDistance(std::string_view from, std::string_view to) {
  std::vector<size_t> two_up, up, row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= from.size(); ++i) {
    two_up = std::move(up);
    up = std::move(row);
    row.assign(to.size() + 1, i);
    for (size_t j = 1; j <= to.size(); ++j) {
      const bool same = Lower(from[i - 1]) == Lower(to[j - 1]);
      row[j] = std::min({up[j - 1] + (same ? 0 : 1), up[j] + 1, row[j - 1] + 1});
      const bool swapped = i > 1 && j > 1 && Lower(from[i - 1]) == Lower(to[j - 2]) &&
                           Lower(from[i - 2]) == Lower(to[j - 1]);
      if (swapped) row[j] = std::min(row[j], two_up[j - 2] + 1);
    }
  }
  return row.back();
}

}  // namespace

std::string Suggest(std::string_view written, const std::vector<std::string_view>& candidates) {
  std::string_view best;
  size_t best_distance = 1 + std::max<size_t>(1, written.size() / 3);
  for (const std::string_view candidate : candidates) {
    const size_t distance = EditDistance(written, candidate);
    if (distance < best_distance) {
      best = candidate;
      best_distance = distance;
    }
  }
  return std::string(best);
}

}  // namespace client
