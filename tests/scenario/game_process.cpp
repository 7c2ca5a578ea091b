#include "tests/scenario/game_process.h"

#include <algorithm>
#include <cstring>

#include "abi/mending_formats.h"
#include "common/text.h"
#include "port/shared/backend.h"
#include "port/shared/catalogue.h"
#include "port/shared/debug_output.h"
#include "port/shared/modules.h"
#include "port/shared/process.h"
#include "port/shared/winsock.h"
#include "start/catalogue.h"
#include "tests/support/mended.h"
#include "tests/support/route_fixture.h"

namespace test {
namespace {

constexpr wchar_t kLayerPath[] = L"C:\\vyr\\vyr_lsp.dll";

int WSPAPI StartForeign(WORD version, LPWSPDATA data, LPWSAPROTOCOL_INFOW info,
                        WSPUPCALLTABLE upcalls, LPWSPPROC_TABLE out) {
  ForeignProvider& foreign = Foreign();
  ++foreign.starts;
  foreign.version = version;
  foreign.info = *info;
  foreign.upcalls = upcalls;
  Sleep(foreign.start_takes_ms);
  if (foreign.result != 0) return foreign.result;
  *out = foreign.table;
  data->wVersion = 0x0202;
  data->wHighVersion = 0x0302;
  return 0;
}

FARPROC Export(LPWSPSTARTUP function) {
  FARPROC exported = nullptr;
  std::memcpy(&exported, &function, sizeof exported);
  return exported;
}

// Whether the test has chosen already, whichever way.
bool ClientAsksForMending() {
  const HANDLE region = OpenFileMappingA(FILE_MAP_READ, FALSE, moru_vyr::lsp::kMendingRegionName);
  if (region == nullptr) return false;
  CloseHandle(region);
  return true;
}

void RegisterForeign() {
  port::RegisterModule(kForeignPath, {{"WSPStartup", Export(StartForeign)}});
  port::SetProviderPath(kForeignGuid, kForeignPath);
}

}  // namespace

ForeignProvider& Foreign() {
  static ForeignProvider foreign{.table = port::BaseProviderTable()};
  return foreign;
}

void UseSlowProvider() {
  RegisterForeign();
  Foreign().start_takes_ms = 5000;
  port::SetCatalogue({port::MakeEntry(kForeignGuid, GameProcess::kForeignId, SOCK_STREAM, 6, {})});
  port::UseCatalogue(true);
}

WSAPROTOCOL_INFOW LayeredTcp(DWORD id, const std::vector<DWORD>& chain) {
  return port::MakeEntry(kLayerGuid, id, SOCK_STREAM, 6, chain);
}

GameProcess::GameProcess() {
  Is(L"C:\\Games\\Dawn\\dawn.exe");
  std::memset(&upcalls, 0x5a, sizeof upcalls);
  std::vector<WSAPROTOCOL_INFOW> catalogue = port::LayeredCatalogue(kLayerGuid, kOwnId);
  for (WSAPROTOCOL_INFOW& entry : catalogue) {
    if (entry.dwCatalogEntryId == kOwnId) entry.ProviderId = moru_vyr::lsp::kLspGuid;
  }
  port::SetCatalogue(catalogue);
  RegisterForeign();
  port::SetDebugSink([this](const char* text) {
    std::string line = text;
    constexpr char kPrefix[] = "[LspTrace]";
    if (line.rfind(kPrefix, 0) == 0) line.erase(0, sizeof kPrefix - 1);
    if (!line.empty() && line.back() == '\n') line.pop_back();
    traces_.push_back(line);
  });
}

GameProcess::~GameProcess() {
  port::SetDebugSink(nullptr);
  if (region_ != nullptr) CloseHandle(region_);
}

void GameProcess::Is(const std::wstring& path, const std::string& command_line) {
  port::SetProcess(path, command_line, kPid);
}

void GameProcess::ListAsGame(common::u32 log_level, const std::string& log_path,
                             common::u32 net_mode) {
  auto region = std::make_unique<moru_vyr::lsp::RestrictionRegion>();
  region->header = {sizeof *region, common::kSharedMemMajorVersion, common::kSharedMemMinorVersion};
  auto& game = region->games[0];
  game.valid = 1;
  game.game_id = 7;
  game.net_mode = net_mode;
  game.path_count = 1;
  std::string path;
  common::u16to8(port::CurrentProcess().path, &path);
  common::SetFieldText(game.game_paths[0], path);
  common::SetFieldText(game.uin, "10001");
  game.log_level = log_level;
  common::SetFieldText(game.log_path, log_path);
  region_ = CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, sizeof *region,
                               moru_vyr::lsp::kRestrictionRegionName);
  void* const view = MapViewOfFile(region_, FILE_MAP_ALL_ACCESS, 0, 0, sizeof *region);
  std::memcpy(view, region.get(), sizeof *region);
  UnmapViewOfFile(view);
  if (MendedInAllWorlds() != 0 && !ClientAsksForMending()) IsMended(MendedInAllWorlds());
}

void GameProcess::IsMended(common::u32 bits) {
  if (mending_ == nullptr) {
    mending_ = std::make_unique<ClientRegion<moru_vyr::lsp::MendingRegion>>(
        moru_vyr::lsp::kMendingRegionName);
  }
  (*mending_)->games[0].mended = bits;
}

void GameProcess::Configures(const std::function<void(moru_vyr::lsp::AccConfigRecord*)>& change) {
  using Region = moru_vyr::lsp::RestrictionRegion;
  void* const view = MapViewOfFile(region_, FILE_MAP_ALL_ACCESS, 0, 0, sizeof(Region));
  change(&static_cast<Region*>(view)->games[0]);
  UnmapViewOfFile(view);
}

void GameProcess::IsStartedBySockets() {
  port::RegisterModule(kLayerPath, {{"WSPStartup", Export(WSPStartup)}});
  port::SetProviderPath(kLayerGuid, kLayerPath);
  port::UseCatalogue(true);
}

void GameProcess::LayerOverForeign(const std::vector<DWORD>& foreign_chain) {
  port::SetCatalogue({
      port::MakeEntry(kLayerGuid, kOwnId + 1, SOCK_STREAM, 6, {kOwnId, kForeignId}),
      port::MakeEntry(kForeignGuid, kForeignId, SOCK_STREAM, 6, foreign_chain),
      port::MakeEntry(port::kBaseProviderGuid, 1001, SOCK_STREAM, 6, {}),
      port::MakeEntry(moru_vyr::lsp::kLspGuid, kOwnId, SOCK_STREAM, 6, {kOwnId}),
  });
}

WSAPROTOCOL_INFOW GameProcess::Layered(int protocol) const {
  const auto catalogue = port::Catalogue();
  return *std::find_if(catalogue.begin(), catalogue.end(), [&](const WSAPROTOCOL_INFOW& entry) {
    return entry.iProtocol == protocol && entry.ProtocolChain.ChainLen > 1;
  });
}

int GameProcess::Start(int protocol) {
  WSAPROTOCOL_INFOW info = Layered(protocol);
  return Start(&info);
}

int GameProcess::Start(WSAPROTOCOL_INFOW* info) {
  table = {};
  data = {};
  return WSPStartup(MAKEWORD(2, 2), &data, info, upcalls, &table);
}

bool GameProcess::GotHookedTable() const { return table.lpWSPSocket == &moru_vyr::lsp::WSPSocket; }

bool GameProcess::GotBaseTable() const {
  return std::memcmp(&table, &port::BaseProviderTable(), sizeof table) == 0;
}

bool GameProcess::GotEmptyTable() const {
  const WSPPROC_TABLE empty{};
  return std::memcmp(&table, &empty, sizeof table) == 0;
}

int GameProcess::TraceCount(const std::string& text) const {
  return static_cast<int>(std::count(traces_.begin(), traces_.end(), text));
}

bool GameProcess::TracedStart(const std::string& text) const {
  return std::any_of(traces_.begin(), traces_.end(),
                     [&](const std::string& line) { return line.rfind(text, 0) == 0; });
}

std::string GameProcess::AllTraces() const {
  std::string all;
  for (const std::string& line : traces_) all += line + "\n";
  return all;
}

}  // namespace test
