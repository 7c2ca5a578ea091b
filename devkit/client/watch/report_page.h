// The run as a page: one HTML file that needs nothing but a browser.
#pragma once

#include <string>

#include "client/watch/flow_book.h"

namespace client {

// Whether this program was built with the chart library. Without it the page holds its tables and
// says that the charts are left out.
bool HasCharts();

// The page with this document (page_data.h), which it draws when it is opened.
std::string PageAround(const std::string& data);
// The same, and it goes on to draw the documents that come from where it came from.
std::string LivePageAround(const std::string& data);
std::string ReportPage(const FlowBook& book);

// Writes beside the file first, so that whoever has it open finds all of the old page or all of
// the new. The reason in words, or nothing on success.
std::string WritePage(const std::string& path, const std::string& page);

}  // namespace client
