#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace client {

// The candidate that was probably meant: within a few typing errors, ignoring letter case. Empty if
// none is close enough.
std::string Suggest(std::string_view written, const std::vector<std::string_view>& candidates);

}  // namespace client
