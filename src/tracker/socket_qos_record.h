// The Tracker's record of one watched socket. Receive figures come before send figures.
#pragma once
#include <winsock2.h>

#include <string>

#include "common/types.h"
#include "tracker/speed_stats.h"

namespace moru_vyr::lsp {

struct SocketQosRecord {
  SOCKET socket = INVALID_SOCKET;
  u32 socket_type = 0;  // 1 stream, 2 datagram
  u32 token = 0;

  u32 total_recv_bytes = 0;
  u32 total_sent_bytes = 0;
  u32 total_recv_packets = 0;
  u32 total_sent_packets = 0;
  u32 total_recv_errors = 0;
  u32 total_sent_errors = 0;
  u32 first_recv_error_code = 0;
  u32 first_send_error_code = 0;
  u32 curr_recv_error_code = 0;
  u32 curr_send_error_code = 0;
  u32 last_send_tick = 0;
  u32 last_recv_tick = 0;

  u32 create_tick = 0;
  u32 life = 0;  // milliseconds, as idle is; see UpdateTimes
  u32 idle = 0;

  char proxy_ip[32] = {};
  u16 proxy_port = 0;  // host byte order
  u32 proxy_idc = 0;
  u32 direct_delay = 0;
  u32 direct_lost = 0;
  u32 section1_delay = 0;
  u32 section1_lost = 0;
  u32 section2_delay = 0;
  char game_ip[32] = {};
  u16 game_port = 0;  // host byte order
  u32 game_idc = 0;
  u32 user_isp = 0;
  u32 user_ip = 0;  // network byte order

  bool is_acce = false;
  bool continuous = false;  // the socket is open
  char series_code[65] = {};
  std::string guid;
  bool nego_success = false;
  SpeedStats speed_test;
  std::string recovery_info;
};

// A number as the formats of log lines take it.
inline int Int(u32 value) noexcept { return static_cast<int>(value); }

// Updates `life` and `idle`. Kept: once the tick counter has wrapped, both say 0 for what began
// before.
void UpdateTimes(SocketQosRecord* record) noexcept;

}  // namespace moru_vyr::lsp
