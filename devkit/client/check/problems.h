// All mistakes in a configuration file, each with its line.
#pragma once

#include <string>
#include <vector>

namespace client {

struct Problem {
  enum class Severity { kError, kWarning };  // a warning is reported, and the file still taken

  Severity severity = Severity::kError;
  unsigned line = 0;     // 0: the file as a whole
  std::string key = {};  // with the tables around it, "forced_proxy.proxy_port"; may be empty
  std::string reason = {};
};

// In the order of the file.
using Problems = std::vector<Problem>;

bool HasErrors(const Problems& problems);

// "FILE:LINE: key 'KEY': REASON", as editors and compilers know it.
std::string ToText(const std::string& file, const Problem& problem);

}  // namespace client
