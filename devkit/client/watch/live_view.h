// What a watch tells those who look on while it runs.
#pragma once

#include <string>
#include <vector>

#include "client/watch/report.h"

namespace client {

// Neither call may wait for anybody: reports are being drained.
class LiveView {
 public:
  virtual ~LiveView() = default;

  virtual void Add(const std::vector<Report>& reports) = 0;
  // After each look for reports: what hinders it, in words, or nothing.
  virtual void Looked(const std::string& trouble) = 0;
};

}  // namespace client
