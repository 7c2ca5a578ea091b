// Delta debugging: what of a list is needed for a failure. The caller runs the test with parts of
// the list, as often as it takes.
#pragma once
#include <algorithm>
#include <cstddef>
#include <functional>
#include <vector>

namespace test {

using Kept = std::vector<std::size_t>;  // places in a list, ascending

// The list without the part number `part` of `parts` nearly equal ones.
inline Kept WithoutPart(const Kept& list, std::size_t part, std::size_t parts) {
  const std::size_t begin = list.size() * part / parts;
  const std::size_t end = list.size() * (part + 1) / parts;
  Kept rest(list.begin(), list.begin() + static_cast<std::ptrdiff_t>(begin));
  rest.insert(rest.end(), list.begin() + static_cast<std::ptrdiff_t>(end), list.end());
  return rest;
}

// A part of `kept` that still fails, and no longer does if any one element is left out. `kept`
// itself fails. Leaves out large parts first, so that a short cause in a long list is found in few
// runs.
inline Kept Smallest(Kept kept, const std::function<bool(const Kept&)>& fails) {
  if (kept.empty() || fails({})) return {};
  for (std::size_t parts = 2; kept.size() > 1;) {
    bool is_smaller = false;
    for (std::size_t part = 0; part < parts && !is_smaller; ++part) {
      const Kept rest = WithoutPart(kept, part, parts);
      if (rest.empty() || !fails(rest)) continue;
      kept = rest;
      is_smaller = true;
    }
    if (is_smaller) {
      parts = std::max<std::size_t>(2, std::min(parts - 1, kept.size()));
    } else if (parts >= kept.size()) {
      break;
    } else {
      parts = std::min(parts * 2, kept.size());
    }
  }
  return kept;
}

}  // namespace test
