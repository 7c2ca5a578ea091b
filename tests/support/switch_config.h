// The game's configuration as in production where flows may be measured and may move.
#pragma once
#include "abi/acc_config_formats.h"
#include "common/text.h"

namespace test {

// Only that; everything else has the library's defaults.
inline void OpenSwitches(moru_vyr::lsp::AccConfigRecord* config) {
  config->link_switch_mask = 3;
  common::SetFieldText(config->list_text, "7");
  config->switch_open = 1;
  config->game_link_switch_open = 1;
  config->max_link_except_rep_num = 20;
  config->max_link_switch_count = 5;
}

// The same with settings under which a healthy node passes its trial.
inline void AllowSwitches(moru_vyr::lsp::AccConfigRecord* config) {
  OpenSwitches(config);
  config->ignore_high_freq_test_time = 1;
  config->max_high_freq_test_count = 100;
  config->watching_time_span = 30;
  // The answers to the last probes of a burst never count, so a node that loses nothing still
  // seems to lose a share.
  config->switching_max_real_route_lost = 60;
  config->switching_max_delay_avg = 1000;
  config->switching_max_delay_amp = 1000;
}

}  // namespace test
