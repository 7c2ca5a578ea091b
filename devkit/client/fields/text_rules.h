// The rules for a text in its field, apart from its length.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "client/fields/fields.h"

namespace client {

// Why a field of that kind cannot hold the text. Empty if it can.
std::string WhyRefused(const std::string& text, Kind kind);

// Why the text is allowed but will hardly do what its author wants. Empty if it will.
std::string WhyDoubtful(const std::string& text, Kind kind);

// Decimal digits only, within 64 bits.
std::optional<uint64_t> ParseNumber(const std::string& digits);

// Four decimal numbers with dots between, as they lie in memory: network byte order.
std::optional<uint32_t> ParseAddress(const std::string& text);

// With a question mark for each byte that is no UTF-8, so no longer than it was.
std::string OnlyUtf8(const std::string& text);

// Two hexadecimal digits for each byte.
std::optional<std::string> ParseHex(const std::string& digits);

// The reverse. Zero bytes at the end are left out.
std::string AddressText(uint32_t address);
std::string HexText(const char* bytes, size_t size);

}  // namespace client
