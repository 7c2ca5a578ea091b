#include "common/process_info.h"

#include "common/text.h"

namespace common {

ProcessInfo& GetProcessInfo() noexcept {
  static constinit ProcessInfo info;
  return info;
}

bool IsSpeedTester() noexcept {
  return EqualsIgnoreCase(FieldText(GetProcessInfo().process_name), "SpeedTester.exe");
}

}  // namespace common
