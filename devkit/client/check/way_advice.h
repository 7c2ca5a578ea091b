// Advice on the nodes and routes that a game's flows would move between.
#pragma once

#include <vector>

#include "client/check/link_advice.h"
#include "client/check/switch_ways.h"

namespace client {

void AdviseOnWays(const moru_vyr::lsp::AccConfigRecord& game, const SwitchWays& ways,
                  std::vector<Advice>* found);

}  // namespace client
