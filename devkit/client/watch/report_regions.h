// Keeps the seven report regions in existence, so that the library has somewhere to report to.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/shared_mem_obj.h"

namespace client {

// Makes each region that does not exist and takes over each that does, with the reports in it. They
// exist at least as long as this object. One thread.
class ReportRegions {
 public:
  // Waits at most that long for each mutex. Returns in words what could not be made; empty if all
  // could.
  std::string Make(unsigned wait_ms);

 private:
  std::vector<std::unique_ptr<common::Shared_mem_obj>> owners_;
};

}  // namespace client
