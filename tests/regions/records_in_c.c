#include "tests/regions/records_in_c.h"

#include <string.h>

void FillRestrictionRegion(vyr_restriction_region* region) {
  vyr_acc_config_record* game = &region->games[VYR_MAX_GAMES - 1];
  memset(region, 0, sizeof *region);
  region->header.shared_mem_size = (uint32_t)sizeof *region;
  region->header.major_ver = VYR_SHARED_MEM_MAJOR_VERSION;
  region->header.minor_ver = VYR_SHARED_MEM_MINOR_VERSION;
  game->valid = 1;
  game->game_id = 0x123456789abcdef0u;
  game->net_mode = VYR_NET_MODE_TCP | VYR_NET_MODE_UDP;
  strcpy(game->game_paths[VYR_MAX_GAME_PATHS - 1], "C:\\games\\game.exe");
  game->manual_routes[VYR_MAX_MANUAL_ROUTES - 1].last_node = 7;
  game->max_valid_test_delay = 1500;
  game->game_vip_level = 3;
  strcpy(region->second_path, "second");
}

void FillDecisionRegion(vyr_decision_region* region) {
  vyr_acc_decision_info* decision = &region->slots[VYR_DECISION_SLOT_COUNT - 1];
  memset(region, 0, sizeof *region);
  decision->used = 1;
  decision->acc_reason = VYR_REASON_UNKNOWN;
  decision->selected_proxy.decision = VYR_DECISION_FORCE_ACCE_MANUAL;
  decision->glt_route_info.proxy.last_node = 9;
  decision->glt_word = 11;
}
