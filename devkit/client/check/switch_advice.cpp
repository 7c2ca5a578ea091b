#include "client/check/switch_advice.h"

#include <iterator>
#include <string>

#include "client/check/link_advice.h"
#include "client/check/switch_ways.h"
#include "client/check/way_advice.h"
#include "route/acc_mode.h"

namespace client {
namespace {

using namespace moru_vyr::lsp;

// Whether the game has flows that could move, and is configured to move them. To measure links and
// never move a flow is a valid choice.
bool AsksForSwitching(const AccConfigRecord& game) {
  if (game.valid == 0 || (game.net_mode & kNetModeUdp) == 0 || game.acc_mode == kAccModeNone) {
    return false;
  }
  return game.switch_open != 0 || game.game_link_switch_open != 0 ||
         game.max_link_switch_count != 0;
}

}  // namespace

std::vector<SwitchAdvice> AdviseOnSwitching(const Tables& tables) {
  std::vector<SwitchAdvice> all;
  for (uint32_t i = 0; i < std::size(tables.restriction.games); ++i) {
    const AccConfigRecord& game = tables.restriction.games[i];
    if (!AsksForSwitching(game)) continue;
    const SwitchWays ways = WaysOf(tables, i);
    std::vector<Advice> found;
    AdviseOnGates(game, &found);
    AdviseOnMeasuring(game, &found);
    AdviseOnWays(game, ways, &found);
    for (const Advice& advice : found) {
      const std::string key =
          (advice.of_game ? "game[" + std::to_string(i) + "]." : "") + advice.key;
      all.push_back({i, {Problem::Severity::kWarning, 0, key, advice.reason}});
    }
  }
  return all;
}

}  // namespace client
