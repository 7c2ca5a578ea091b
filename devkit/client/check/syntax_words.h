// What the TOML parser stumbled over, in the words of the file.
#pragma once

#include <string>
#include <string_view>

namespace client {

// `found` is the parser's own description, `line` and `column` its place in the text, from 1.
std::string SyntaxWords(std::string_view text, unsigned line, unsigned column,
                        std::string_view found);

// Why the text is in no encoding that the parser reads; empty if it seems to be.
std::string WhyWrongEncoding(std::string_view text);

}  // namespace client
