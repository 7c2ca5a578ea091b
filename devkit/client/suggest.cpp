#include "client/suggest.h"

#include <algorithm>
#include <numeric>

namespace client {
namespace {

char Lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

// Insertions, deletions and replacements that lead from one word to the other.
size_t EditDistance(std::string_view from, std::string_view to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (Lower(from[i]) == Lower(to[j]) ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
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
