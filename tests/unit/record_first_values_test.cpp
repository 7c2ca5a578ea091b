// What the parts of the library pass to each other begins as nothing: most callers fill a few
// fields and leave the others as they are.
#include <gtest/gtest.h>

#include <cstddef>
#include <iterator>

#include "common/process_info.h"
#include "gametest/test_config.h"
#include "hooks/connect_target.h"
#include "hooks/pending_receives.h"
#include "icmp/ping_request.h"
#include "quality/link_identity.h"
#include "quality/link_watch.h"
#include "quality/lost_calc.h"
#include "quality/real_route_recent_cycle_data.h"
#include "quality/real_route_speed_test.h"
#include "quality/recovery_switch.h"
#include "stream/tcp_session.h"
#include "tracker/socket_qos_record.h"
#include "tracker/speed_stats.h"
#include "udp/accl_link_info.h"
#include "udp/node_link.h"
#include "udp/relay_messages.h"
#include "udp/stored_package.h"
#include "udp/udp_package.h"

namespace moru_vyr::lsp {
namespace {

template <class... Fields>
void ExpectZeros(const char* name, Fields... fields) {
  const double values[] = {static_cast<double>(fields)...};
  for (std::size_t i = 0; i < std::size(values); ++i)
    EXPECT_EQ(values[i], 0) << name << ", field " << i + 1;
}

TEST(RecordsBegin, WithoutFigures) {
  const DelayFigures delays;
  ExpectZeros("DelayFigures", delays.avg, delays.max, delays.min, delays.amp, delays.sum,
              delays.squares, delays.count);
  const SpeedStatsHalf half;
  ExpectZeros("SpeedStatsHalf", half.total_send, half.lost_avg, half.all_send_count,
              half.last_send_tick, half.last_send_seq, half.pending);
  ExpectZeros("SpeedStats", SpeedStats().topology_type);
  const LinkFigures link;
  ExpectZeros("LinkFigures", link.small_lost, link.small_real, link.long_lost, link.long_real,
              link.route_short_real, link.route_lost);
  const LinkDataSet set;
  ExpectZeros("LinkDataSet", set.recv, set.lost, set.delay_amp, set.delay_avg);
  const RecentCycle recent;
  ExpectZeros("RecentCycle", recent.delay_sum, recent.delay_square_sum, recent.is_high_freq);
  const LostCycle cycle;
  ExpectZeros("LostCycle", cycle.start_time, cycle.min_seq, cycle.max_seq, cycle.recv_count);
}

TEST(RecordsBegin, WithNothingOfASocket) {
  const SocketQosRecord r;
  EXPECT_EQ(r.socket, INVALID_SOCKET);
  ExpectZeros("SocketQosRecord, traffic", r.socket_type, r.token, r.total_recv_bytes,
              r.total_sent_bytes, r.total_recv_packets, r.total_sent_packets, r.total_recv_errors,
              r.total_sent_errors, r.first_recv_error_code, r.first_send_error_code,
              r.curr_recv_error_code, r.curr_send_error_code, r.last_send_tick, r.last_recv_tick,
              r.create_tick, r.life, r.idle);
  ExpectZeros("SocketQosRecord, route", r.proxy_ip[0], r.proxy_port, r.proxy_idc, r.direct_delay,
              r.direct_lost, r.section1_delay, r.section1_lost, r.section2_delay, r.game_ip[0],
              r.game_port, r.game_idc, r.user_isp, r.user_ip, r.is_acce, r.continuous,
              r.series_code[0], r.nego_success);
}

TEST(RecordsBegin, WithoutALink) {
  const AccInfo acc;
  ExpectZeros("AccInfo", acc.game_ip, acc.game_port, acc.proxy_idc, acc.type, acc.flag, acc.acc_ip,
              acc.acc_port);
  const ClientInfo client;
  ExpectZeros("ClientInfo", client.header1, client.reserved, client.client_isp, client.client_ip);
  const SpeedTestParam param;
  EXPECT_EQ(param.socket, INVALID_SOCKET);
  ExpectZeros("SpeedTestParam", param.token, param.game_ip, param.game_port, param.accl_token,
              param.seq);
  const ProbeReply reply;
  ExpectZeros("ProbeReply", reply.len, reply.relay_idx, reply.seq, reply.delay, reply.judged,
              reply.booked);
  const RecoverySwitchConfig c;
  ExpectZeros("RecoverySwitchConfig", c.short_cycle, c.long_cycle, c.max_delay_amp, c.max_delay_avg,
              c.max_real_route_lost_, c.lost_calc_unit_size, c.max_link_except_rep_num,
              c.link_switch_min_inter, c.max_link_switch_count, c.data_link_short_cycle_pkg_,
              c.data_link_short_cycle_lost, c.data_link_long_cycle_pkg_,
              c.data_link_long_cycle_lost_);
}

TEST(RecordsBegin, WithoutAConnection) {
  const TcpTry attempt;
  EXPECT_EQ(attempt.socket, INVALID_SOCKET);
  ExpectZeros("TcpTry", attempt.to_node, attempt.is_overdue, attempt.elapsed_ms);
  const PendingReceive receive;
  ExpectZeros("PendingReceive", receive.token, receive.room);
  const ConnectTarget target{nullptr, 0};
  ExpectZeros("ConnectTarget", target.may_wait, target.local_port, target.requested,
              target.udp_connect, target.answer);
}

TEST(RecordsBegin, WithoutADatagram) {
  ExpectZeros("UdpFlow", UdpFlow().token);
  const AcclLinkInfo link;
  EXPECT_EQ(link.seq, 1u) << "the first datagram's number";
  ExpectZeros("AcclLinkInfo", link.accl_token);
  const UdpPackage package;
  ExpectZeros("UdpPackage", package.capacity, package.valid_len);
  EXPECT_EQ(StoredPackage().socket, kOwnSocket);
  const ping_request_t ping;
  ExpectZeros("ping_request_t", ping.req_time, ping.lag, ping.ip, ping.size);
}

TEST(RecordsBegin, AsTheirMessage) {
  const ProtoRelayOpen open;
  EXPECT_EQ(u32{open.magic}, kProtoRelayMagic);
  EXPECT_EQ(open.type, kProtoRelayTypeOpen);
  ExpectZeros("ProtoRelayOpen", u32{open.token}, u32{open.tick},
              std::uintptr_t{open.event_or_result}, std::uintptr_t{open.send_size_or_queue},
              std::uintptr_t{open.recv_size_or_queue});
  const ProtoRelayClose close;
  EXPECT_EQ(u32{close.magic}, kProtoRelayMagic);
  EXPECT_EQ(close.type, kProtoRelayTypeClose);
  ExpectZeros("ProtoRelayClose", u32{close.token}, u32{close.tick});
}

TEST(RecordsBegin, WithoutSettings) {
  const TestSettings settings;
  ExpectZeros("TestSettings", settings.proxy_port, settings.net_mode);
  ExpectZeros("ProcessInfo", common::ProcessInfo().lsp_catalog_id);
}

}  // namespace
}  // namespace moru_vyr::lsp
