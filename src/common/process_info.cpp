#include "common/process_info.h"

namespace common {

ProcessInfo& GetProcessInfo() noexcept {
  static constinit ProcessInfo info;
  return info;
}

}  // namespace common
