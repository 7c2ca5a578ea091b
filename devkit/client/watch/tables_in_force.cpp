#include "client/watch/tables_in_force.h"

#include <winsock2.h>
//
#include <windows.h>

#include <algorithm>
#include <string>
#include <string_view>

#include "client/dump/region_reader.h"
#include "common/text.h"
#include "route/acc_mode.h"
#include "route/route_file.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;
using common::FieldText;

// With many flows there is a report in every look, and the tables are nearly a megabyte.
constexpr uint32_t kOldestMs = 1000;

bool HasProgram(const AccConfigRecord& game, std::string_view name) {
  const uint32_t count = std::min<uint32_t>(game.path_count, kMaxGamePaths);
  return std::any_of(game.game_paths, game.game_paths + count, [name](const auto& field) {
    const std::string_view path = FieldText(field);
    return common::EqualsIgnoreCase(path.substr(path.rfind('\\') + 1), name);
  });
}

// A client program may have the routes in a file in place of the region.
void ReadRouteFileIfNamed(Tables* tables) {
  const std::string path(FieldText(tables->restriction.route_binary_file_path));
  if (path.empty() || HasContent(*tables, Regions()[kRoute])) return;
  RouteTableImage& image = tables->route.image;
  if (!LoadRouteFromBinFile(path.c_str(), &image, sizeof image)) image = {};
}

}  // namespace

std::optional<uint32_t> MendedFor(const Tables& tables, const LspLoadedRecord& record) {
  for (uint32_t i = 0; i < kMaxGames; ++i) {
    const AccConfigRecord& game = tables.restriction.games[i];
    if (game.valid == 0 || game.game_id != record.game_id) continue;
    if (HasProgram(game, FieldText(record.process_name))) return tables.mending.games[i].mended;
  }
  return std::nullopt;
}

std::optional<DirectWay> DirectWayTo(const Tables& tables, uint64_t game_id, uint32_t game_idc) {
  const auto* const end = std::end(tables.restriction.games);
  const auto* const game = std::find_if(
      std::begin(tables.restriction.games), end,
      [game_id](const auto& listed) { return listed.valid != 0 && listed.game_id == game_id; });
  if (game == end || game_idc == 0) return std::nullopt;
  const RouteSet& set = tables.route.image.route_sets[RouteSetIndex(*game)];
  const RouteEntry* const routes_end = set.routes + std::min(set.route_count, kMaxRoutes);
  const RouteEntry* const route =
      std::find_if(set.routes, routes_end,
                   [game_idc](const RouteEntry& entry) { return entry.game_idc == game_idc; });
  if (route == routes_end || route->direct_delay == 0) return std::nullopt;
  return DirectWay{route->direct_delay, route->direct_lost};
}

const Tables& TablesInForce::Read(uint32_t oldest_ms, unsigned wait_ms) {
  if (tables_ == nullptr || GetTickCount() - tick_ >= oldest_ms) {
    tables_ = ReadRegions(wait_ms).tables;
    ReadRouteFileIfNamed(tables_.get());
    tick_ = GetTickCount();
  }
  return *tables_;
}

void TablesInForce::Note(std::vector<Report>* reports, unsigned wait_ms) {
  const auto has = [reports](ReportKind kind) {
    return std::any_of(reports->begin(), reports->end(),
                       [kind](const Report& report) { return report.kind == kind; });
  };
  const bool has_loaded = has(kLoadedReport);
  if (!has_loaded && !has(kDecisionReport) && !has(kCommunicationReport)) return;
  const Tables& tables = Read(has_loaded ? 0 : kOldestMs, wait_ms);
  for (Report& report : *reports) {
    if (report.kind == kLoadedReport) {
      report.mended = MendedFor(tables, report.As<LspLoadedRecord>());
    } else if (report.kind == kDecisionReport) {
      const auto record = report.As<AccDecisionInfo>();
      report.direct = DirectWayTo(tables, record.game_id, record.game_idc);
    } else if (report.kind == kCommunicationReport) {
      const auto record = report.As<CommInfoRecord>();
      report.direct = DirectWayTo(tables, record.game_id, record.game_idc);
    }
  }
}

}  // namespace client
