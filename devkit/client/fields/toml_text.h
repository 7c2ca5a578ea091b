#pragma once

#include <string>

namespace client {

// The text as a TOML value, quoted the way that needs the fewest escapes. Bytes that are no UTF-8
// become question marks: TOML has no way to write them.
std::string QuoteToml(const std::string& text);

}  // namespace client
