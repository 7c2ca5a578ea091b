#include "client/watch/report_page.h"

#include <string_view>

#include "client/files.h"
#include "client/watch/page_data.h"
#include "client/watch/page_parts.h"

namespace client {
namespace {

// Inside a script element, text that could end the element is escaped.
std::string Guarded(std::string json) {
  for (size_t at = json.find('<'); at != std::string::npos; at = json.find('<', at)) {
    json.replace(at, 1, "\\u003c");
  }
  return json;
}

void Replace(std::string* page, std::string_view mark, std::string_view with) {
  const size_t at = page->find(mark);
  if (at != std::string::npos) page->replace(at, mark.size(), with);
}

std::string Page(std::string_view data, std::string_view live) {
  std::string page(PageTemplate());
  Replace(&page, "/*PAGE-STYLE*/", PageStyle());
  Replace(&page, "/*PAGE-SCRIPT*/", PageScript());
  Replace(&page, "/*CHART-STYLE*/", ChartStyle());
  Replace(&page, "/*CHART-SCRIPT*/", ChartScript());
  Replace(&page, "</body>", live);
  // The data last: it may hold anything.
  Replace(&page, "/*DATA*/", Guarded(std::string(data)));
  return page;
}

}  // namespace

bool HasCharts() { return !ChartScript().empty(); }

std::string PageAround(const std::string& data) { return Page(data, "</body>"); }

std::string LivePageAround(const std::string& data) {
  std::string live = "<script>\n";
  live.append(LiveScript()).append("</script>\n</body>");
  return Page(data, live);
}

std::string ReportPage(const FlowBook& book) { return PageAround(PageData(book)); }

std::string WritePage(const std::string& path, const std::string& page) {
  return WriteWhole(path, page);
}

}  // namespace client
