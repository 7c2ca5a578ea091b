// The text in which Prometheus reads metrics, version 0.0.4.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace metrics {

inline constexpr char kContentType[] = "text/plain; version=0.0.4; charset=utf-8";

enum class Type { kCounter, kGauge };

using Labels = std::vector<std::pair<std::string, std::string>>;

// Families one after the other, each with all of its samples.
class MetricsText {
 public:
  void Family(std::string_view name, Type type, std::string_view help);
  // Of the family begun last. Label values may hold anything.
  void Sample(const Labels& labels, uint64_t value);
  void Sample(const Labels& labels, double value);

  const std::string& text() const { return text_; }

 private:
  void Add(const Labels& labels, const std::string& value);

  std::string name_;
  std::string text_;
};

}  // namespace metrics
