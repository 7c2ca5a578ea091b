#include "bench/game_library.h"

#include <winsock2.h>
#include <ws2spi.h>
//
#include <windows.h>

#include <cstring>
#include <memory>
#include <vector>

#include "abi/ip_table_formats.h"
#include "abi/mending_formats.h"
#include "abi/restriction_formats.h"
#include "abi/route_table_formats.h"
#include "common/shared_mem_header.h"
#include "common/text.h"
#include "port/shared/catalogue.h"
#include "port/shared/files.h"
#include "port/shared/modules.h"
#include "port/shared/process.h"
#include "port/shared/winsock.h"
#include "quality/link_identity.h"
#include "route/decision.h"
#include "start/catalogue.h"

namespace bench {
namespace {

using namespace moru_vyr::lsp;  // NOLINT: the tables' records
using common::u32;

constexpr GUID kLayerGuid = {
    0x6a1d0c52, 0x7e35, 0x4f18, {0x8b, 0x02, 0x11, 0x21, 0x31, 0x41, 0x51, 0x61}};
constexpr wchar_t kLibraryPath[] = L"C:\\vyr\\vyr_lsp.dll";
constexpr wchar_t kGamePath[] = L"C:\\game\\game.exe";
constexpr DWORD kHiddenEntry = 2000;
constexpr u32 kServerIdc = 1001;
constexpr u32 kNodeIdc = 1;

// Exists until the process ends, as the client program's would.
template <class Region>
Region* MakeRegion(const char* name, u32 size = sizeof(Region)) {
  const HANDLE mapping =
      CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name);
  return static_cast<Region*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size));
}

template <class Region>
void SetHeader(Region* region) {
  region->header = {sizeof(Region), common::kSharedMemMajorVersion, common::kSharedMemMinorVersion};
}

constexpr u32 kADayMs = 86'400'000;
constexpr common::u16 kALongTimeS = 0xFFFF;

// The most tolerant thresholds, so that a busy machine never makes a flow change its node.
void SetCare(Care care, AccConfigRecord* game) {
  game->norm_test_interval = care == Care::kNoProbes || care == Care::kNoMeasure ? kADayMs : 0;
  game->ignore_high_freq_test_time = kALongTimeS;
  game->link_switch_mask = care == Care::kNoMeasure ? 0 : 0xFF;
  game->max_delay_avg = 0xFFFF;
  game->max_delay_amp = 0xFFFF;
  game->max_real_route_lost = 100;
  common::SetFieldText(game->list_text, std::to_string(game->game_id));
}

void ListGame(const LibrarySetup& setup) {
  auto* const region = MakeRegion<RestrictionRegion>(kRestrictionRegionName);
  SetHeader(region);
  AccConfigRecord& game = region->games[0];
  game.valid = 1;
  game.game_id = 10001;
  game.net_mode = kNetModeTcp | kNetModeUdp;
  game.acc_mode = 1;
  game.path_count = 1;
  std::string path;
  common::u16to8(kGamePath, &path);
  common::SetFieldText(game.game_paths[0], path);
  common::SetFieldText(game.uin, "20001");
  common::SetFieldText(game.log_path, "C:\\logs\\");
  game.log_level = setup.log_level;
  SetCare(setup.care, &game);
}

void ListMendings(u32 mended) {
  auto* const region = MakeRegion<MendingRegion>(kMendingRegionName);
  SetHeader(region);
  region->games[0].mended = mended;
}

void ListServer(const std::string& server) {
  auto* const region = MakeRegion<IpTableRegion>(kIpTableRegionName);
  SetHeader(region);
  region->ip_count = 1;
  region->records[0] = {kServerIdc, static_cast<u32>(inet_addr(server.c_str()))};
}

void WriteRoute(const LibrarySetup& setup) {
  struct Buffers {
    u32 selector;
    RouteRegion buffer[2];
  };
  auto* const region = MakeRegion<Buffers>(kRouteRegionName);
  SetHeader(&region->buffer[0]);
  SetHeader(&region->buffer[1]);
  RouteTableImage& image = region->buffer[0].image;
  const bool through_node = !setup.node.empty();
  image.proxy_count = 1;
  ProxyRecord& proxy = image.proxies[0];
  proxy.proxy_idc = kNodeIdc;
  common::SetFieldText(proxy.proxy_addr, through_node ? setup.node : "198.51.100.29");
  proxy.proxy_port = setup.node_port;
  proxy.surport_isps = 1;
  proxy.flag = kLinkMayBeMeasured;
  RouteSet& routes = image.route_sets[0];
  routes.route_count = 1;
  routes.routes[0].game_idc = kServerIdc;
  routes.routes[0].ref_default.proxy_idc = kNodeIdc;
  routes.routes[0].ref_default.decision = through_node ? DECISION_ACCE : DECISION_DIRECT;
}

void Register() {
  std::vector<WSAPROTOCOL_INFOW> catalogue = port::LayeredCatalogue(kLayerGuid, kHiddenEntry);
  for (WSAPROTOCOL_INFOW& entry : catalogue) {
    if (entry.dwCatalogEntryId == kHiddenEntry) entry.ProviderId = kLspGuid;
  }
  port::SetCatalogue(catalogue);
  const LPWSPSTARTUP start = &WSPStartup;
  FARPROC exported = nullptr;
  std::memcpy(&exported, &start, sizeof exported);
  port::RegisterModule(kLibraryPath, {{"WSPStartup", exported}});
  port::SetProviderPath(kLayerGuid, kLibraryPath);
  port::UseCatalogue(true);
}

}  // namespace

void InstallLibrary(const LibrarySetup& setup) {
  port::SetProcess(kGamePath, "game.exe", 4321);
  port::SetFileRoot(setup.folder);
  ListGame(setup);
  if (setup.mended != 0) ListMendings(setup.mended);
  ListServer(setup.server);
  WriteRoute(setup);
  Register();
}

}  // namespace bench
