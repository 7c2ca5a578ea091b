#include "client/watch/mended_games.h"

#include <algorithm>
#include <string_view>

#include "client/dump/region_reader.h"
#include "common/text.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;
using common::FieldText;

bool HasProgram(const AccConfigRecord& game, std::string_view name) {
  const uint32_t count = std::min<uint32_t>(game.path_count, kMaxGamePaths);
  return std::any_of(game.game_paths, game.game_paths + count, [name](const auto& field) {
    const std::string_view path = FieldText(field);
    return common::EqualsIgnoreCase(path.substr(path.rfind('\\') + 1), name);
  });
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

void NoteMended(std::vector<Report>* reports, unsigned wait_ms) {
  std::unique_ptr<Tables> tables;
  for (Report& report : *reports) {
    if (report.kind != kLoadedReport) continue;
    if (tables == nullptr) tables = ReadRegions(wait_ms).tables;
    report.mended = MendedFor(*tables, report.As<LspLoadedRecord>());
  }
}

}  // namespace client
