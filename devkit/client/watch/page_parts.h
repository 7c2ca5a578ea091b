// The parts of the page that stand in files of their own. The build puts them into a source file,
// because the page must not need them beside the program.
#pragma once

#include <string_view>

namespace client {

std::string_view PageTemplate();

// Both empty if the chart library was missing when this was built.
std::string_view ChartScript();
std::string_view ChartStyle();

}  // namespace client
