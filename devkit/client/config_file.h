// From a configuration file to the bytes of the regions.
#pragma once

#include <memory>
#include <string_view>

#include "client/problems.h"
#include "client/tables.h"

namespace client {

struct ConfigFile {
  std::unique_ptr<Tables> tables;  // never null; of use only when `problems` holds no error
  unsigned game_count = 0;
  Problems problems;  // in the order of the file
};

// Reads TOML. Every offence against the field table is found in one go; only a file that is no
// TOML at all ends at its first mistake.
ConfigFile ParseConfig(std::string_view text);

}  // namespace client
