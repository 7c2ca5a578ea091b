// Fills the tables from a TOML table, by the rows of the field table.
#pragma once

#include "client/check/problems.h"
#include "client/check/toml.h"
#include "client/fields/fields.h"
#include "client/fields/tables.h"

namespace client {

// `tables` are those of NewTables. What is refused leaves its bytes as they are. The problems
// come in the order in which they were found.
Problems ReadTables(const toml::table& table, Tables* tables);

}  // namespace client
