#include "start/net_probe.h"

#include <winsock2.h>

#include "common/process_info.h"
#include "common/text.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

// Datagrams, asynchronous TCP, and both modes of a route; plain TCP is not included.
constexpr u32 kNetProbeNetMode = 0x10 | 0x20 | 0x10000 | 0x20000;

}  // namespace

bool IsNetProbeTest() noexcept {
  const std::string_view name = common::FieldText(common::GetProcessInfo().process_name);
  if (!common::EqualsIgnoreCase(name, "net_probe.exe")) return false;
  const char* const command_line = GetCommandLineA();
  if (command_line == nullptr || !common::EndsWithIgnoreCase(command_line, "-test")) return false;

  static AccConfigRecord record;  // too large for a foreign thread's stack
  record = {};
  record.game_id = kNetProbeGameId;
  common::SetFieldText(record.uin, "1");
  record.net_mode = kNetProbeNetMode;
  ReplaceAccConfig(record);
  return true;
}

}  // namespace moru_vyr::lsp
