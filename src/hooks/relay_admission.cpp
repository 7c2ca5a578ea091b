#include "hooks/relay_admission.h"

#include <windows.h>

#include "common/log.h"
#include "engine/relay_mgr.h"
#include "hooks/hook_flags.h"
#include "route/acc_config.h"
#include "route/acc_mode.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kRelayInitTimeoutMs = 3000;

struct RelayModes {
  u32 acc_mode;
  u32 net_mode;
};

// Kept: read at the first question that gets this far, and never again.
const RelayModes& CachedModes() noexcept {
  static const RelayModes modes{GetAccConfig()->acc_mode, GetAccConfig()->net_mode};
  return modes;
}

bool IsSet(const std::atomic<bool>& flag) noexcept { return flag.load(std::memory_order_relaxed); }

}  // namespace

bool IsAllowedRelay(const SocketRecord& record) noexcept {
  RelayMgr& relay = GetRelayMgr();
  // The worker's own sockets pass through the same entries and have records too. Other threads use
  // them only to close them.
  if (GetCurrentThreadId() == relay.GetWorkerThreadId() || record.of_worker) return false;
  if (record.relay_disabled) return false;
  if (!relay.CheckAndInit(kRelayInitTimeoutMs)) {
    LSP_LOG(0, "IsAllowedRelay is false, CheckAndInit failed, set flag, s=%d",
            static_cast<int>(record.socket));
    GetSocketMap().SetRelayDisabled(record.socket, true);
    return false;
  }
  const bool stream = record.type == kSocketTypeStream;
  const bool datagram = record.type == kSocketTypeDatagram;
  // Pings are answered without the worker.
  if ((stream || datagram) && !relay.Serves()) return false;
  const HookFlags& flags = GetHookFlags();
  if (IsSet(flags.speed_tester_mode)) return true;
  if (stream && IsSet(flags.block_tcp)) {
    LSP_LOG(0, "ignore tcp relay");
    return false;
  }
  if (datagram && IsSet(flags.block_udp)) {
    LSP_LOG(0, "ignore udp relay");
    return false;
  }
  const RelayModes& modes = CachedModes();
  return ExamineModes(modes.net_mode, modes.acc_mode, record.type) == ModeVerdict::kMayRelay;
}

bool IsAllowConnect(int type, const sockaddr_in* addr, SOCKET s, u32 token) noexcept {
  if (IsSet(GetHookFlags().speed_tester_mode) || addr == nullptr) return true;
  const bool allowed = GetRoute()->NeedRelay(addr->sin_addr.s_addr, addr->sin_port, type, s, token);
  LSP_LOG(0, "IsAllowConnect result=%s, type=%d, port=%d, socket=%Id, token=%u",
          allowed ? "true" : "false", type, ntohs(addr->sin_port), s, token);
  return allowed;
}

}  // namespace moru_vyr::lsp
