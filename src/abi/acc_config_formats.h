// The settings of one game as the client program writes them into the restriction region.
// Little-endian, packed. Texts may be unterminated and counts out of range: readers of a record in
// shared memory must limit both.
#pragma once
#include <cstddef>

#include "abi/proxy_formats.h"
#include "common/types.h"

namespace moru_vyr::lsp {

inline constexpr u32 kMaxGamePaths = 10;
inline constexpr u32 kMaxExcludedPorts = 32;
inline constexpr u32 kMaxManualRoutes = 20;
inline constexpr u32 kMaxReachRecords = 64;
inline constexpr u32 kMaxPortIdcRecords = 256;

// Bits of net_mode. None set: the game is not accelerated.
inline constexpr u32 kNetModeTcp = 0x8;
inline constexpr u32 kNetModeUdp = 0x10;
inline constexpr u32 kNetModeAsyTcp = 0x20;        // implies kNetModeTcp
inline constexpr u32 kNetModeBothModes = 0x30000;  // both bits together
inline constexpr u32 kNetModeRefuseWithoutAccMode = 0x2000000;

#pragma pack(push, 1)
// The number of the game's data centre behind a port. idc 0: no record; port 0: every port.
struct PortIdcRecord {
  u32 port = 0;  // host byte order
  u32 idc = 0;
};

using ManualRouteRecord = SwitchProxyInfo;

// The data centres that the forced proxy reaches. A delay of 9999 milliseconds or more means
// unreachable.
struct ReachRecord {
  u32 game_idc = 0;
  u32 delay = 0;
  u8 reserved_8[8] = {};
};

struct ReachabilityTable {
  u32 proxy_idc = 0;
  u32 reach_count = 0;
  ReachRecord records[kMaxReachRecords];
};

struct AccConfigRecord {
  u32 valid = 0;  // not 0: a used slot, a loaded configuration
  u8 reserved_4[4] = {};
  u64 game_id = 0;
  u32 net_mode = 0;
  u32 path_count = 0;
  char game_paths[kMaxGamePaths][260] = {};  // full paths of the game's programs
  u32 excluded_port_count = 0;
  u32 excluded_ports[kMaxExcludedPorts] = {};  // TCP, host byte order, never accelerated
  char uin[64] = {};                           // the user's number in decimal
  char second_text[64] = {};
  u32 log_level = 0;        // lowest level that is written
  char log_path[260] = {};  // the log files are in its parent directory
  u8 reserved_3148[4] = {};
  u64 zone_id = 0;
  u32 zone_word = 0;
  u32 acc_mode = 0;     // 0: no acceleration; 2: second route set, manual routes allowed
  u32 manual_mode = 0;  // not 0: forced proxy and manual routes, where acc_mode is 2
  RouteProxyInfo forced_proxy;
  ManualRouteRecord manual_routes[kMaxManualRoutes];
  ReachabilityTable reachability;
  u16 reserved_words[4] = {};
  u32 reserved_word = 0;
  u8 game_launch_test_use = 0;
  u8 reserved_11101[3] = {};
  u32 glt_word = 0;
  u8 wait_route = 0;  // wait for the route tables at start-up
  u8 reserved_11109[3] = {};
  // Thresholds of measuring and of node switching. Their readers apply the minimum values.
  u32 lost_calc_unit_size = 0;  // low 16 bits count
  u8 short_cycle = 0;
  u8 data_link_short_cycle_lost = 0;
  u8 data_link_long_cycle_lost = 0;
  u8 long_cycle = 0;
  u16 recovery_window_word = 0;
  u16 data_link_short_cycle_pkg = 0;
  u16 data_link_long_cycle_pkg = 0;
  u8 reserved_11126[2] = {};
  u32 norm_test_interval = 0;       // milliseconds
  u32 high_freq_test_interval = 0;  // milliseconds
  u32 high_freq_test_time = 0;      // milliseconds
  u16 max_delay_avg = 0;            // milliseconds
  u16 max_delay_amp = 0;            // milliseconds
  u8 max_real_route_lost = 0;       // percent
  u8 link_switch_mask = 0;          // bit n: links of type n are measured
  u8 switch_open = 0;
  u8 reserved_11147 = 0;
  u16 max_link_except_rep_num = 0;
  u16 ignore_high_freq_test_time = 0;  // seconds
  u16 max_high_freq_test_count = 0;
  u16 watching_time_span = 0;  // seconds
  char list_text[129] = {};    // game ids in decimal, comma-separated
  u8 game_link_switch_open = 0;
  u16 link_switch_min_inter = 0;  // seconds
  u16 max_link_switch_count = 0;
  u8 reserved_11290[2] = {};
  u32 switching_high_freq_test_interval = 0;  // milliseconds
  u32 switching_high_freq_test_time = 0;      // milliseconds
  u16 switching_max_delay_avg = 0;            // milliseconds
  u16 switching_max_delay_amp = 0;            // milliseconds
  u8 switching_max_real_route_lost = 0;       // percent
  u8 reserved_11305 = 0;
  u16 max_valid_test_delay = 0;  // milliseconds
  u16 port_idc_count = 0;
  u8 reserved_11310[2] = {};
  PortIdcRecord port_idc_records[kMaxPortIdcRecords];
  u32 game_vip_level = 0;  // digit that selects records of the IP table
  u8 reserved_13364[4] = {};
};
#pragma pack(pop)

static_assert(sizeof(PortIdcRecord) == 8);
static_assert(offsetof(PortIdcRecord, port) == 0);
static_assert(offsetof(PortIdcRecord, idc) == 4);

static_assert(sizeof(ReachRecord) == 16);
static_assert(offsetof(ReachRecord, game_idc) == 0);
static_assert(offsetof(ReachRecord, delay) == 4);
static_assert(offsetof(ReachRecord, reserved_8) == 8);

static_assert(sizeof(ReachabilityTable) == 1032);
static_assert(offsetof(ReachabilityTable, proxy_idc) == 0);
static_assert(offsetof(ReachabilityTable, reach_count) == 4);
static_assert(offsetof(ReachabilityTable, records) == 8);

static_assert(sizeof(AccConfigRecord) == 13368);
static_assert(offsetof(AccConfigRecord, valid) == 0);
static_assert(offsetof(AccConfigRecord, reserved_4) == 4);
static_assert(offsetof(AccConfigRecord, game_id) == 8);
static_assert(offsetof(AccConfigRecord, net_mode) == 16);
static_assert(offsetof(AccConfigRecord, path_count) == 20);
static_assert(offsetof(AccConfigRecord, game_paths) == 24);
static_assert(offsetof(AccConfigRecord, excluded_port_count) == 2624);
static_assert(offsetof(AccConfigRecord, excluded_ports) == 2628);
static_assert(offsetof(AccConfigRecord, uin) == 2756);
static_assert(offsetof(AccConfigRecord, second_text) == 2820);
static_assert(offsetof(AccConfigRecord, log_level) == 2884);
static_assert(offsetof(AccConfigRecord, log_path) == 2888);
static_assert(offsetof(AccConfigRecord, reserved_3148) == 3148);
static_assert(offsetof(AccConfigRecord, zone_id) == 3152);
static_assert(offsetof(AccConfigRecord, zone_word) == 3160);
static_assert(offsetof(AccConfigRecord, acc_mode) == 3164);
static_assert(offsetof(AccConfigRecord, manual_mode) == 3168);
static_assert(offsetof(AccConfigRecord, forced_proxy) == 3172);
static_assert(offsetof(AccConfigRecord, manual_routes) == 3336);
static_assert(offsetof(AccConfigRecord, reachability) == 10056);
static_assert(offsetof(AccConfigRecord, reserved_words) == 11088);
static_assert(offsetof(AccConfigRecord, reserved_word) == 11096);
static_assert(offsetof(AccConfigRecord, game_launch_test_use) == 11100);
static_assert(offsetof(AccConfigRecord, reserved_11101) == 11101);
static_assert(offsetof(AccConfigRecord, glt_word) == 11104);
static_assert(offsetof(AccConfigRecord, wait_route) == 11108);
static_assert(offsetof(AccConfigRecord, reserved_11109) == 11109);
static_assert(offsetof(AccConfigRecord, lost_calc_unit_size) == 11112);
static_assert(offsetof(AccConfigRecord, short_cycle) == 11116);
static_assert(offsetof(AccConfigRecord, data_link_short_cycle_lost) == 11117);
static_assert(offsetof(AccConfigRecord, data_link_long_cycle_lost) == 11118);
static_assert(offsetof(AccConfigRecord, long_cycle) == 11119);
static_assert(offsetof(AccConfigRecord, recovery_window_word) == 11120);
static_assert(offsetof(AccConfigRecord, data_link_short_cycle_pkg) == 11122);
static_assert(offsetof(AccConfigRecord, data_link_long_cycle_pkg) == 11124);
static_assert(offsetof(AccConfigRecord, reserved_11126) == 11126);
static_assert(offsetof(AccConfigRecord, norm_test_interval) == 11128);
static_assert(offsetof(AccConfigRecord, high_freq_test_interval) == 11132);
static_assert(offsetof(AccConfigRecord, high_freq_test_time) == 11136);
static_assert(offsetof(AccConfigRecord, max_delay_avg) == 11140);
static_assert(offsetof(AccConfigRecord, max_delay_amp) == 11142);
static_assert(offsetof(AccConfigRecord, max_real_route_lost) == 11144);
static_assert(offsetof(AccConfigRecord, link_switch_mask) == 11145);
static_assert(offsetof(AccConfigRecord, switch_open) == 11146);
static_assert(offsetof(AccConfigRecord, reserved_11147) == 11147);
static_assert(offsetof(AccConfigRecord, max_link_except_rep_num) == 11148);
static_assert(offsetof(AccConfigRecord, ignore_high_freq_test_time) == 11150);
static_assert(offsetof(AccConfigRecord, max_high_freq_test_count) == 11152);
static_assert(offsetof(AccConfigRecord, watching_time_span) == 11154);
static_assert(offsetof(AccConfigRecord, list_text) == 11156);
static_assert(offsetof(AccConfigRecord, game_link_switch_open) == 11285);
static_assert(offsetof(AccConfigRecord, link_switch_min_inter) == 11286);
static_assert(offsetof(AccConfigRecord, max_link_switch_count) == 11288);
static_assert(offsetof(AccConfigRecord, reserved_11290) == 11290);
static_assert(offsetof(AccConfigRecord, switching_high_freq_test_interval) == 11292);
static_assert(offsetof(AccConfigRecord, switching_high_freq_test_time) == 11296);
static_assert(offsetof(AccConfigRecord, switching_max_delay_avg) == 11300);
static_assert(offsetof(AccConfigRecord, switching_max_delay_amp) == 11302);
static_assert(offsetof(AccConfigRecord, switching_max_real_route_lost) == 11304);
static_assert(offsetof(AccConfigRecord, reserved_11305) == 11305);
static_assert(offsetof(AccConfigRecord, max_valid_test_delay) == 11306);
static_assert(offsetof(AccConfigRecord, port_idc_count) == 11308);
static_assert(offsetof(AccConfigRecord, reserved_11310) == 11310);
static_assert(offsetof(AccConfigRecord, port_idc_records) == 11312);
static_assert(offsetof(AccConfigRecord, game_vip_level) == 13360);
static_assert(offsetof(AccConfigRecord, reserved_13364) == 13364);

}  // namespace moru_vyr::lsp
