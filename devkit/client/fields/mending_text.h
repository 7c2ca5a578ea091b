// What is mended for a game, in words.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace client {

// The names of the bits; what no name stands for comes last, as a number like '0x8000'.
std::vector<std::string> MendingNames(uint32_t bits);

// And back. Nothing if one of them is neither a name nor such a number.
std::optional<uint32_t> MendingBits(const std::vector<std::string>& names);

// "all", "nothing", or the names with commas between.
std::string MendingText(uint32_t bits);

}  // namespace client
