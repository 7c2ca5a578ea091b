#include "start/process_start.h"

#include <winsock2.h>

#include <string>

#include "common/paths.h"
#include "common/process_info.h"
#include "common/text.h"
#include "engine/relay_mgr.h"
#include "icmp/icmp_vm.h"
#include "route/init_log.h"
#include "route/route.h"
#include "sockets/socket_error_filter.h"
#include "sockets/socket_map.h"
#include "start/config_source.h"
#include "start/gate.h"
#include "start/module_life.h"
#include "start/net_probe.h"

namespace moru_vyr::lsp {
namespace {

// Under the start-up lock.
bool startup_done = false;
bool speed_tester_checked = false;
bool hook_enabled = false;

constexpr u32 kRouteTries = 50;
constexpr u32 kRouteIntervalMs = 100;

// Builds what the calls will need while one thread alone is here.
void BuildGlobals() {
  GetSocketMap();
  GetRelayMgr();
  GetIcmpVM().ResetPool();
  GetSocketErrorFilter();
}

void FillProcessInfo() {
  wchar_t wide_path[260] = {};
  GetModuleFileNameW(nullptr, wide_path, 260);
  wide_path[259] = 0;  // Guard: a path that was cut need not be terminated
  std::string path;
  std::string name;
  if (!common::u16to8(wide_path, &path)) return;
  common::FileName(path, &name);
  common::ProcessInfo& process = common::GetProcessInfo();
  common::SetFieldText(process.process_path, path);
  common::SetFieldText(process.process_name, name);
}

// The gate, and the pinning of the module: the library's threads may run from now on.
bool Admit(bool want) { return CheckCanHook(want) && KeepModule(); }

// A game that the client lists gets a log file and the route tables. The network probe is hooked
// without either.
void SettleGate() {
  hook_enabled = Admit(ObtainAccConfig());
  if (hook_enabled) {
    InitLog();
    GetRoute()->Load(kRouteTries, kRouteIntervalMs);
    return;
  }
  hook_enabled = Admit(IsNetProbeTest());
}

void AdmitSpeedTester() {
  if (hook_enabled) return;
  hook_enabled = Admit(common::IsSpeedTester());
  if (hook_enabled) InitLog();
}

}  // namespace

bool PrepareProcess() noexcept {
  try {
    if (!startup_done) {
      startup_done = true;
      BuildGlobals();
      FillProcessInfo();
      SettleGate();
    }
    if (!speed_tester_checked) {
      speed_tester_checked = true;
      AdmitSpeedTester();
    }
  } catch (...) {
    // Out of memory: this process is not served, but its chain is still resolved.
    hook_enabled = false;
  }
  return hook_enabled;
}

}  // namespace moru_vyr::lsp
