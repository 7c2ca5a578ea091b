// Rules across tables: what they must agree on, and entries that are allowed but have no effect.
#pragma once

#include "client/check/problems.h"
#include "client/check/toml.h"
#include "client/fields/tables.h"

namespace client {

// `root` is the file that the tables were read from without an error; it gives the lines.
void CheckTables(const toml::table& root, const Tables& tables, Problems* problems);

}  // namespace client
