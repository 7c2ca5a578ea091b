// What a text must look like for its field, apart from its length.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/fields.h"

namespace client {

// Why the text cannot stand in a field of that kind. Empty if it can.
std::string WhyRefused(const std::string& text, Kind kind);

// Why it can, but will hardly do what the writer wants. Empty if it will.
std::string WhyDoubtful(const std::string& text, Kind kind);

// Decimal digits only, within 64 bits.
std::optional<uint64_t> ParseNumber(const std::string& digits);

}  // namespace client
