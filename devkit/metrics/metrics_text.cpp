#include "metrics/metrics_text.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace metrics {
namespace {

using Json = nlohmann::json;

// Texts of games and tables may not be valid UTF-8.
std::string Utf8(const std::string& text) {
  const std::string written = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
  return Json::parse(written).get<std::string>();
}

// A quotation mark means something in a label's value only.
std::string Escaped(std::string_view text, bool is_label) {
  std::string escaped;
  for (const char c : text) {
    if (c == '\n') {
      escaped += "\\n";
      continue;
    }
    if (c == '\\' || (is_label && c == '"')) escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace

void MetricsText::Family(std::string_view name, Type type, std::string_view help) {
  name_ = name;
  text_ += "# HELP " + name_ + " " + Escaped(help, false) + "\n";
  text_ += "# TYPE " + name_ + (type == Type::kCounter ? " counter\n" : " gauge\n");
}

void MetricsText::Sample(const Labels& labels, uint64_t value) {
  Add(labels, std::to_string(value));
}

void MetricsText::Sample(const Labels& labels, double value) {
  Add(labels, std::isfinite(value) ? Json(value).dump() : "NaN");
}

void MetricsText::Add(const Labels& labels, const std::string& value) {
  text_ += name_;
  for (size_t i = 0; i < labels.size(); ++i) {
    const auto& [label, text] = labels[i];
    text_ += (i == 0 ? "{" : ",") + label + "=\"" + Escaped(Utf8(text), true) + "\"";
  }
  text_ += (labels.empty() ? " " : "} ") + value + "\n";
}

}  // namespace metrics
