#include "gametest/test_config.h"

#include "common/text.h"

namespace moru_vyr::lsp {
namespace {

void SetMeasuring(AccConfigRecord* config) noexcept {
  config->lost_calc_unit_size = 1000;
  config->short_cycle = 2;
  config->data_link_short_cycle_lost = 8;
  config->data_link_long_cycle_lost = 5;
  config->long_cycle = 5;
  config->recovery_window_word = 200;
  config->data_link_short_cycle_pkg = 20;
  config->data_link_long_cycle_pkg = 30;
  config->norm_test_interval = 1000;
  config->high_freq_test_interval = 200;
  config->high_freq_test_time = 1000;
  config->max_delay_avg = 100;
  config->max_delay_amp = 30;
  config->max_real_route_lost = 1;
  config->max_valid_test_delay = 1000;
}

void SetSwitching(AccConfigRecord* config) noexcept {
  config->link_switch_mask = 1;
  config->switch_open = 1;
  config->max_link_except_rep_num = 6;
  config->ignore_high_freq_test_time = 20;
  config->max_high_freq_test_count = 3;
  config->watching_time_span = 30;
  common::SetFieldText(config->list_text, "26,2");
  config->game_link_switch_open = 1;
  config->link_switch_min_inter = 300;
  config->max_link_switch_count = 3;
  config->switching_high_freq_test_interval = 30;
  config->switching_high_freq_test_time = 1000;
  config->switching_max_delay_avg = 80;
  config->switching_max_delay_amp = 20;
  config->switching_max_real_route_lost = 4;
}

}  // namespace

AccConfigRecord MakeTestConfig(const TestSettings& settings) noexcept {
  AccConfigRecord config;
  config.game_id = 2000005;
  config.log_level = static_cast<u32>(settings.log_level);
  config.acc_mode = 2;
  config.manual_mode = 1;
  config.forced_proxy.type = 1;
  common::SetFieldText(config.forced_proxy.proxy_addr, settings.proxy_ip);
  config.forced_proxy.proxy_port = settings.proxy_port;
  common::SetFieldText(config.forced_proxy.proxy_name, "Test");
  config.net_mode = settings.net_mode;
  config.reserved_words[0] = 0;
  config.reserved_words[1] = 900;
  config.reserved_words[2] = 1000;
  config.reserved_words[3] = 20;
  config.reserved_word = 10000;
  config.game_launch_test_use = 1;
  config.glt_word = 8000;
  config.wait_route = 1;
  SetMeasuring(&config);
  SetSwitching(&config);
  return config;
}

}  // namespace moru_vyr::lsp
