// From a configuration file to the bytes of the regions.
#pragma once

#include <memory>
#include <string_view>
#include <vector>

#include "client/check/problems.h"
#include "client/check/switch_advice.h"
#include "client/fields/tables.h"

namespace client {

struct ConfigFile {
  std::unique_ptr<Tables> tables;  // never null; of use only when `problems` holds no error
  unsigned game_count = 0;
  Problems problems;                 // in the order of the file
  std::vector<SwitchAdvice> advice;  // of files without an error
};

// Every warning, including those of `advice`, in the order of the file.
Problems AllProblems(const ConfigFile& file);

// Reads TOML. Every mistake against the field table is found in one pass; only a file that is not
// TOML at all ends at its first mistake.
ConfigFile ParseConfig(std::string_view text);

}  // namespace client
