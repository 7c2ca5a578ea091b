// Fills a packed record from a TOML table, by the rows of the field table.
#pragma once

#include <cstddef>

#include "client/fields.h"
#include "client/problems.h"
#include "client/toml.h"

namespace client {

// `record` is a zeroed record of that shape. What is refused leaves its bytes as they are.
Problems ReadRecord(const toml::table& table, const Shape& shape, std::byte* record);

}  // namespace client
