#include "client/check/problems.h"

#include <algorithm>

namespace client {

bool HasErrors(const Problems& problems) {
  return std::any_of(problems.begin(), problems.end(), [](const Problem& problem) {
    return problem.severity == Problem::Severity::kError;
  });
}

std::string ToText(const std::string& file, const Problem& problem) {
  std::string text = file + ":";
  if (problem.line != 0) text += std::to_string(problem.line) + ":";
  if (problem.severity == Problem::Severity::kWarning) text += " warning:";
  if (!problem.key.empty()) text += " key '" + problem.key + "':";
  return text + " " + problem.reason;
}

}  // namespace client
