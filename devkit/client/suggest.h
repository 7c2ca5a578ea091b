#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

// The candidate that was probably meant: few typing errors away, letter case not counted.
// Empty when none is near enough to be worth proposing.
std::string Suggest(std::string_view written, const std::vector<std::string_view>& candidates);

}  // namespace client
