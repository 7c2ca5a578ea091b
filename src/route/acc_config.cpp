#include "route/acc_config.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <type_traits>

#include "abi/restriction_formats.h"
#include "common/log.h"
#include "common/process_info.h"
#include "common/shared_mem_obj.h"
#include "common/text.h"
#include "route/client_wait.h"
#include "route/mending.h"

namespace moru_vyr::lsp {
namespace {

using common::FieldText;
using common::LspTrace;

constinit AccConfig process_config;

// Guard: what comes from another process is made safe here, once, for all later readers: texts are
// terminated, and counts are bounded by their arrays.

template <std::size_t N>
void Terminate(char (&field)[N]) noexcept {
  field[N - 1] = '\0';
}

void Terminate(RouteProxyInfo& proxy) noexcept {
  Terminate(proxy.proxy_addr);
  Terminate(proxy.proxy_name);
}

void TerminateTexts(AccConfigRecord& record) noexcept {
  for (auto& path : record.game_paths) Terminate(path);
  Terminate(record.uin);
  Terminate(record.second_text);
  Terminate(record.log_path);
  Terminate(record.list_text);
  Terminate(record.forced_proxy);
  for (ManualRouteRecord& route : record.manual_routes)
    for (RouteProxyInfo& proxy : route.proxies) Terminate(proxy);
}

void BoundCounts(AccConfigRecord& record) noexcept {
  record.path_count = std::min<u32>(record.path_count, kMaxGamePaths);
  record.excluded_port_count = std::min<u32>(record.excluded_port_count, kMaxExcludedPorts);
  record.reachability.reach_count =
      std::min<u32>(record.reachability.reach_count, kMaxReachRecords);
  record.port_idc_count =
      static_cast<u16>(std::min<u32>(record.port_idc_count, kMaxPortIdcRecords));
}

template <std::size_t N>
void ClearReserved(u8 (&field)[N]) noexcept {
  std::memset(field, 0, N);
}

AccConfig ConfigOf(const AccConfigRecord& shared, const RestrictionRegion& region) noexcept {
  AccConfig config;
  static_cast<AccConfigRecord&>(config) = shared;
  ClearReserved(config.reserved_4);
  ClearReserved(config.reserved_3148);
  ClearReserved(config.reserved_13364);
  TerminateTexts(config);
  BoundCounts(config);
  common::SetFieldText(config.route_binary_file_path, FieldText(region.route_binary_file_path));
  common::SetFieldText(config.second_path, FieldText(region.second_path));
  if ((config.net_mode & kNetModeAsyTcp) != 0) config.net_mode |= kNetModeTcp;
  return config;
}

bool ListsThisProcess(const AccConfigRecord& game) noexcept {
  const char* const process_path = common::GetProcessInfo().process_path;
  const u32 path_count = game.path_count;  // read once: it may change under us
  for (u32 i = 0; i < std::min(path_count, kMaxGamePaths); ++i) {
    // The path shown is the process's own, not the configured one: the lines tell how many paths
    // were tried, and support staff are used to them.
    LspTrace("cfg game path %d/%d:%s\n", static_cast<int>(i + 1), static_cast<int>(path_count),
             process_path);
    if (common::EqualsIgnoreCase(process_path, FieldText(game.game_paths[i]))) return true;
  }
  return false;
}

const AccConfigRecord* FindGame(const RestrictionRegion& region) noexcept {
  for (const AccConfigRecord& game : region.games)
    if (game.valid != 0 && ListsThisProcess(game)) return &game;
  return nullptr;
}

bool NoRegion() noexcept {
  LspTrace("read restriction from shared memory failed, mem_addr=null");
  return false;
}

// Guard: asks first whether the region exists. Opening it would create a missing one, empty, and
// the client program would find that instead of its own.
bool InstallFromRegion(u32* place) {
  if (!common::Shared_mem_obj::Exists(kRestrictionRegionName)) return NoRegion();
  RenewClientWaits();
  ReadWaitsOfAnyGame();
  const ClientWait wait(kRestrictionMutexName);
  if (!wait.may_read()) return NoRegion();
  common::Shared_mem_obj owner(kRestrictionRegionName, sizeof(RestrictionRegion),
                               kRestrictionMutexName, false);
  common::Shared_mem_ptr<const RestrictionRegion> region(&owner, common::kOpenForReading, true);
  const common::Shared_mem_closer closer(&owner);
  if (!region) return NoRegion();
  LspTrace("process path is %s\n", common::GetProcessInfo().process_path);
  const AccConfigRecord* const game = FindGame(*region.get());
  if (game == nullptr) {
    LspTrace("ReadAccConfig returns false!\n");
    return false;
  }
  *place = static_cast<u32>(game - region->games);
  ReplaceAccConfig(ConfigOf(*game, *region.get()));
  return true;
}

}  // namespace

const AccConfig* GetAccConfig() noexcept { return &process_config; }

void ReplaceAccConfig(const AccConfigRecord& record) noexcept {
  AccConfig config = process_config;
  static_cast<AccConfigRecord&>(config) = record;
  ReplaceAccConfig(config);
}

void ReplaceAccConfig(const AccConfig& config) noexcept {
  process_config = config;
  common::SetLogThreshold(config.log_level);
}

void FillUnsetSettings(AccConfigRecord* record) noexcept {
  const auto fill = [](auto& field, u32 value) noexcept {
    if (field == 0) field = static_cast<std::remove_reference_t<decltype(field)>>(value);
  };
  // Slots short enough to notice a dead link within a second, and a short window that still holds
  // the answer to a probe. In the long window, one lost datagram of a usual game asks for a burst
  // of probes, which fails if four of twenty are lost.
  if ((record->lost_calc_unit_size & 0xFFFF) == 0) record->lost_calc_unit_size = 200;
  fill(record->short_cycle, 3);
  fill(record->long_cycle, 7);
  fill(record->data_link_long_cycle_lost, 3);
  // Above any healthy link. A change shows in the variation.
  fill(record->max_delay_avg, 200);
  fill(record->max_high_freq_test_count, 100);  // no watch period: no window holds so many bursts
  // A trial of eight probes, of which one may be lost.
  fill(record->switching_high_freq_test_interval, 10);
  fill(record->switching_high_freq_test_time, 80);
  fill(record->switching_max_real_route_lost, 25);
}

bool ReadAccConfig() noexcept {
  if (process_config.valid != 0) return true;
  if (common::GetProcessInfo().process_path[0] == '\0') {
    LspTrace("process path is empty, read acce info failed!\n");
    return false;
  }
  u32 place = kMaxGames;
  bool installed = false;
  try {
    installed = InstallFromRegion(&place);
  } catch (const std::exception&) {
    NoRegion();  // out of memory
  }
  ReadMending(place);
  if (!installed) return false;
  if (GetMending().FillsUnsetSettings()) FillUnsetSettings(&process_config);
  if (process_config.net_mode != 0) return true;
  LspTrace("Based on server config, the game will not be accelerated:%s",
           common::GetProcessInfo().process_name);
  return false;
}

}  // namespace moru_vyr::lsp
