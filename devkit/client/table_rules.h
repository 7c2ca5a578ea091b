// What tables must agree on among each other, and what can stand in them but does nothing.
#pragma once

#include "client/problems.h"
#include "client/tables.h"
#include "client/toml.h"

namespace client {

// `root` is the file that the tables were read from without an error; it gives the lines.
void CheckTables(const toml::table& root, const Tables& tables, Problems* problems);

}  // namespace client
