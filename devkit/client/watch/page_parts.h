// The parts of the page that have files of their own. The build puts them into a source file, so
// that the program does not need them beside it.
#pragma once

#include <string_view>

namespace client {

std::string_view PageTemplate();
std::string_view PageStyle();
std::string_view PageScript();
std::string_view LiveScript();  // what a page that is served has besides

// Of this program.
std::string_view PageVersion();

// Both empty if the chart library was missing when this was built.
std::string_view ChartScript();
std::string_view ChartStyle();

}  // namespace client
