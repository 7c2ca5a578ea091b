#include "client/watch/report_page.h"

#include <nlohmann/json.hpp>
#include <string_view>

#include "client/files.h"
#include "client/watch/page_parts.h"

namespace client {
namespace {

using Json = nlohmann::ordered_json;

const char* KindName(MarkKind kind) {
  switch (kind) {
    case MarkKind::kDecision:
      return "decision";
    case MarkKind::kNegotiation:
      return "negotiation";
    case MarkKind::kFailure:
      return "failure";
    case MarkKind::kSwitch:
      return "switch";
    default:
      return "end";
  }
}

// A delay that was not measured is a gap in its line.
Json Measured(const std::optional<Section>& section, uint32_t value) {
  return section && section->answered != 0 ? Json(value) : Json();
}

Json Loss(const std::optional<Section>& section) { return section ? Json(section->lost) : Json(); }

Json PointsJson(const std::vector<FlowPoint>& points) {
  constexpr const char* kKeys[] = {"t", "sent", "recv", "fd", "fa", "bd", "ba", "fl", "bl"};
  Json columns = Json::object();
  for (const char* key : kKeys) columns[key] = Json::array();
  for (const FlowPoint& point : points) {
    columns["t"].push_back(static_cast<double>(point.time_ms) / 1000);
    columns["sent"].push_back(point.sent_rate);
    columns["recv"].push_back(point.recv_rate);
    const Section front = point.frontend.value_or(Section{});
    const Section back = point.backend.value_or(Section{});
    columns["fd"].push_back(Measured(point.frontend, front.delay_avg));
    columns["fa"].push_back(Measured(point.frontend, front.delay_amp));
    columns["bd"].push_back(Measured(point.backend, back.delay_avg));
    columns["ba"].push_back(Measured(point.backend, back.delay_amp));
    columns["fl"].push_back(Loss(point.frontend));
    columns["bl"].push_back(Loss(point.backend));
  }
  return columns;
}

Json FlowJson(const Flow& flow) {
  Json marks = Json::array();
  for (const Mark& mark : flow.marks) {
    marks.push_back({{"t", static_cast<double>(mark.time_ms) / 1000},
                     {"kind", KindName(mark.kind)},
                     {"text", mark.text}});
  }
  return {{"guid", flow.guid},
          {"type", flow.type},
          {"game", flow.game},
          {"node", flow.node},
          {"accelerated", flow.accelerated},
          {"ended", flow.ended},
          {"moved", flow.moved},
          {"first", static_cast<double>(flow.first_ms) / 1000},
          {"last", static_cast<double>(flow.last_ms) / 1000},
          {"life", flow.life_ms / 1000.0},
          {"sentBytes", flow.sent_bytes},
          {"sentPackets", flow.sent_packets},
          {"sentErrors", flow.sent_errors},
          {"recvBytes", flow.recv_bytes},
          {"recvPackets", flow.recv_packets},
          {"recvErrors", flow.recv_errors},
          {"failures", flow.failures},
          {"switches", flow.switches},
          {"points", PointsJson(flow.points)},
          {"marks", std::move(marks)}};
}

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

}  // namespace

bool HasCharts() { return !ChartScript().empty(); }

std::string ReportPage(const FlowBook& book, const std::vector<std::string>& notes) {
  Json data = {{"flows", Json::array()}, {"notes", notes}};
  for (const Flow& flow : book.flows()) data["flows"].push_back(FlowJson(flow));
  std::string page(PageTemplate());
  Replace(&page, "/*CHART-STYLE*/", ChartStyle());
  Replace(&page, "/*CHART-SCRIPT*/", ChartScript());
  // The data last: it may hold anything.
  Replace(&page, "/*DATA*/", Guarded(data.dump(-1, ' ', false, Json::error_handler_t::replace)));
  return page;
}

std::string WritePage(const std::string& path, const std::string& page) {
  return WriteWhole(path, page);
}

}  // namespace client
