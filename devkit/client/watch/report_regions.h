// Keeps the seven report regions in being, so that the library has where to report to.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "common/shared_mem_obj.h"

namespace client {

// Makes each region that is not there and takes over each that is, with the reports that wait in
// it. They live at least as long as this does. One thread.
class ReportRegions {
 public:
  // Waits so long at most for each mutex. What could not be made, in words; empty if nothing.
  std::string Make(unsigned wait_ms);

 private:
  std::vector<std::unique_ptr<common::Shared_mem_obj>> owners_;
};

}  // namespace client
