// The traffic of one accelerated socket, and the results of the probes on its route: the record of
// the communication channel. Little-endian, packed. Texts are terminated.
#pragma once
#include <cstddef>

#include "common/types.h"

namespace moru_vyr::lsp {

#pragma pack(push, 1)
// Delays in milliseconds. Fine figures are of answers below the configured limit for delays, over
// figures of those at or above it.
struct FineStats {
  u32 delay_avg = 0;
  u32 delay_max = 0;
  u32 delay_min = 0;
  u32 delay_amp = 0;
  u32 total_recv = 0;
  u32 total_send = 0;
};

struct OverStats {
  u32 delay_avg = 0;
  u32 delay_max = 0;
  u32 delay_min = 0;
  u32 count = 0;
};

struct AllStats {
  u32 delay_avg = 0;
  u32 delay_amp = 0;
  u32 recv_count = 0;
  u32 send_count = 0;
};

// The traffic of one accelerated socket.
struct CommInfoRecord {
  u8 used = 0;
  u8 reserved_1[7] = {};
  u64 game_id = 0;
  u32 socket_type = 0;  // 1 stream, 2 datagram, 0 other: not as in AccDecisionInfo
  u32 total_sent_bytes = 0;
  u32 total_sent_packets = 0;
  u32 total_sent_errors = 0;
  u32 first_send_error_code = 0;
  u32 curr_send_error_code = 0;
  u32 total_recv_bytes = 0;
  u32 total_recv_packets = 0;
  u32 total_recv_errors = 0;
  u32 first_recv_error_code = 0;
  u32 curr_recv_error_code = 0;
  u32 create_tick = 0;  // GetTickCount when the socket was created
  u32 life = 0;         // milliseconds since then
  u32 idle = 0;         // milliseconds since the last receive
  u32 game_idc = 0;
  char game_ip[260] = {};
  u32 game_port = 0;  // host byte order
  u32 proxy_idc = 0;
  char proxy_ip[260] = {};
  u16 proxy_port = 0;  // host byte order
  char guid_str[65] = {};
  u8 reserved_671[45] = {};
  u32 user_isp = 0;
  u32 user_ip = 0;  // network byte order
  FineStats frontend_fine;
  FineStats backend_fine;
  OverStats frontend_over;
  OverStats backend_over;
  AllStats frontend_all;
  AllStats backend_all;
  u32 topology_type = 0;
  u32 direct_delay = 0;
  u32 direct_lost = 0;
  u32 section1_delay = 0;
  u32 section1_lost = 0;
  u32 section2_delay = 0;
  u8 ended = 0;  // 1: the socket's last report
  char recovery_info[120] = {};
  u8 reserved_981[3] = {};
};
#pragma pack(pop)

static_assert(sizeof(FineStats) == 24);
static_assert(offsetof(FineStats, delay_avg) == 0);
static_assert(offsetof(FineStats, delay_max) == 4);
static_assert(offsetof(FineStats, delay_min) == 8);
static_assert(offsetof(FineStats, delay_amp) == 12);
static_assert(offsetof(FineStats, total_recv) == 16);
static_assert(offsetof(FineStats, total_send) == 20);

static_assert(sizeof(OverStats) == 16);
static_assert(offsetof(OverStats, delay_avg) == 0);
static_assert(offsetof(OverStats, delay_max) == 4);
static_assert(offsetof(OverStats, delay_min) == 8);
static_assert(offsetof(OverStats, count) == 12);

static_assert(sizeof(AllStats) == 16);
static_assert(offsetof(AllStats, delay_avg) == 0);
static_assert(offsetof(AllStats, delay_amp) == 4);
static_assert(offsetof(AllStats, recv_count) == 8);
static_assert(offsetof(AllStats, send_count) == 12);

static_assert(sizeof(CommInfoRecord) == 984);
static_assert(offsetof(CommInfoRecord, used) == 0);
static_assert(offsetof(CommInfoRecord, reserved_1) == 1);
static_assert(offsetof(CommInfoRecord, game_id) == 8);
static_assert(offsetof(CommInfoRecord, socket_type) == 16);
static_assert(offsetof(CommInfoRecord, total_sent_bytes) == 20);
static_assert(offsetof(CommInfoRecord, total_sent_packets) == 24);
static_assert(offsetof(CommInfoRecord, total_sent_errors) == 28);
static_assert(offsetof(CommInfoRecord, first_send_error_code) == 32);
static_assert(offsetof(CommInfoRecord, curr_send_error_code) == 36);
static_assert(offsetof(CommInfoRecord, total_recv_bytes) == 40);
static_assert(offsetof(CommInfoRecord, total_recv_packets) == 44);
static_assert(offsetof(CommInfoRecord, total_recv_errors) == 48);
static_assert(offsetof(CommInfoRecord, first_recv_error_code) == 52);
static_assert(offsetof(CommInfoRecord, curr_recv_error_code) == 56);
static_assert(offsetof(CommInfoRecord, create_tick) == 60);
static_assert(offsetof(CommInfoRecord, life) == 64);
static_assert(offsetof(CommInfoRecord, idle) == 68);
static_assert(offsetof(CommInfoRecord, game_idc) == 72);
static_assert(offsetof(CommInfoRecord, game_ip) == 76);
static_assert(offsetof(CommInfoRecord, game_port) == 336);
static_assert(offsetof(CommInfoRecord, proxy_idc) == 340);
static_assert(offsetof(CommInfoRecord, proxy_ip) == 344);
static_assert(offsetof(CommInfoRecord, proxy_port) == 604);
static_assert(offsetof(CommInfoRecord, guid_str) == 606);
static_assert(offsetof(CommInfoRecord, reserved_671) == 671);
static_assert(offsetof(CommInfoRecord, user_isp) == 716);
static_assert(offsetof(CommInfoRecord, user_ip) == 720);
static_assert(offsetof(CommInfoRecord, frontend_fine) == 724);
static_assert(offsetof(CommInfoRecord, backend_fine) == 748);
static_assert(offsetof(CommInfoRecord, frontend_over) == 772);
static_assert(offsetof(CommInfoRecord, backend_over) == 788);
static_assert(offsetof(CommInfoRecord, frontend_all) == 804);
static_assert(offsetof(CommInfoRecord, backend_all) == 820);
static_assert(offsetof(CommInfoRecord, topology_type) == 836);
static_assert(offsetof(CommInfoRecord, direct_delay) == 840);
static_assert(offsetof(CommInfoRecord, direct_lost) == 844);
static_assert(offsetof(CommInfoRecord, section1_delay) == 848);
static_assert(offsetof(CommInfoRecord, section1_lost) == 852);
static_assert(offsetof(CommInfoRecord, section2_delay) == 856);
static_assert(offsetof(CommInfoRecord, ended) == 860);
static_assert(offsetof(CommInfoRecord, recovery_info) == 861);
static_assert(offsetof(CommInfoRecord, reserved_981) == 981);

}  // namespace moru_vyr::lsp
