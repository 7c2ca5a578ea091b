// From a configuration file to the bytes of the restriction region.
#pragma once

#include <string>
#include <string_view>

#include "client/problems.h"
#include "route/restriction_formats.h"

namespace client {

struct ConfigFile {
  // The whole region, header included. Of use only when `problems` holds no error.
  moru_vyr::lsp::RestrictionRegion region;
  unsigned game_count = 0;
  Problems problems;
};

// Reads TOML. Every offence against the field table is found in one go; only a file that is no
// TOML at all ends at its first mistake.
ConfigFile ParseConfig(std::string_view text);

}  // namespace client
