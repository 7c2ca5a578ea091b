// The report of a socket's traffic, which makes its record itself.
#include <winsock2.h>

#include "common/log.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "tracker/report_slot.h"
#include "tracker/reports.h"

namespace moru_vyr::lsp {
namespace {

void CopyTraffic(const SocketQosRecord& from, CommInfoRecord* to) noexcept {
  to->total_sent_bytes = from.total_sent_bytes;
  to->total_sent_packets = from.total_sent_packets;
  to->total_sent_errors = from.total_sent_errors;
  to->first_send_error_code = from.first_send_error_code;
  to->curr_send_error_code = from.curr_send_error_code;
  to->total_recv_bytes = from.total_recv_bytes;
  to->total_recv_packets = from.total_recv_packets;
  to->total_recv_errors = from.total_recv_errors;
  to->first_recv_error_code = from.first_recv_error_code;
  to->curr_recv_error_code = from.curr_recv_error_code;
  to->create_tick = from.create_tick;
  to->life = from.life;
  to->idle = from.idle;
}

void CopyRoute(const SocketQosRecord& from, CommInfoRecord* to) noexcept {
  to->game_idc = from.game_idc;
  common::SetFieldText(to->game_ip, common::FieldText(from.game_ip));
  to->game_port = from.game_port;
  to->proxy_idc = from.proxy_idc;
  common::SetFieldText(to->proxy_ip, common::FieldText(from.proxy_ip));
  to->proxy_port = from.proxy_port;
  common::SetFieldText(to->guid_str, from.guid);
  to->user_isp = from.user_isp;
  to->user_ip = from.user_ip;
  to->direct_delay = from.direct_delay;
  to->direct_lost = from.direct_lost;
  to->section1_delay = from.section1_delay;
  to->section1_lost = from.section1_lost;
  to->section2_delay = from.section2_delay;
}

FineStats Fine(const SpeedStatsHalf& half) noexcept {
  const DelayFigures& fine = half.fine;
  return {fine.avg, fine.max, fine.min, fine.amp, fine.count, half.total_send};
}
OverStats Over(const SpeedStatsHalf& half) noexcept {
  return {half.over.avg, half.over.max, half.over.min, half.over.count};
}
AllStats All(const SpeedStatsHalf& half) noexcept {
  return {half.all.avg, half.all.amp, half.all.count, half.all_send_count};
}

void CopySpeedTest(const SpeedStats& from, CommInfoRecord* to) noexcept {
  to->frontend_fine = Fine(from.frontend);
  to->backend_fine = Fine(from.backend);
  to->frontend_over = Over(from.frontend);
  to->backend_over = Over(from.backend);
  to->frontend_all = All(from.frontend);
  to->backend_all = All(from.backend);
  to->topology_type = from.topology_type;
}

CommInfoRecord MakeRecord(const SocketQosRecord& socket) noexcept {
  CommInfoRecord record;
  record.game_id = GetAccConfig()->game_id;
  record.socket_type = socket.socket_type <= 2 ? socket.socket_type : 0;
  CopyTraffic(socket, &record);
  CopyRoute(socket, &record);
  CopySpeedTest(socket.speed_test, &record);
  record.ended = socket.continuous ? 0 : 1;
  common::SetFieldText(record.recovery_info, socket.recovery_info);
  return record;
}

void LogTraffic(int level, const char* data, const SocketQosRecord& s) noexcept {
  LSP_LOG(
      level,
      "[Tracker] ReportCommunicationStatistic %s data success. "
      "series_code=%s,guid_str=%s,socket_type=%d,proxy_ip=%s,proxy_port=%d,proxy_idc=%d,game_ip=%s,"
      "game_port=%d,game_idc=%d,total_recv_bytes=%d,total_recv_packets=%d,total_sent_bytes=%d,"
      "total_sent_packets=%d,total_recv_errors=%d,total_sent_errors=%d,first_recv_error_code=%d,"
      "first_send_error_code=%d,curr_recv_error_code=%d,curr_send_error_code=%d,life=%d "
      "ms,socket=%Id, token=%d",
      data, s.series_code, s.guid.c_str(), Int(s.socket_type), s.proxy_ip, int{s.proxy_port},
      Int(s.proxy_idc), s.game_ip, int{s.game_port}, Int(s.game_idc), Int(s.total_recv_bytes),
      Int(s.total_recv_packets), Int(s.total_sent_bytes), Int(s.total_sent_packets),
      Int(s.total_recv_errors), Int(s.total_sent_errors), Int(s.first_recv_error_code),
      Int(s.first_send_error_code), Int(s.curr_recv_error_code), Int(s.curr_send_error_code),
      Int(s.life), s.socket, Int(s.token));
}

// Kept: the backend's last figures have the frontend's name.
void LogSpeedTest(int level, const char* data, const SocketQosRecord& s) noexcept {
  const SpeedStatsHalf& front = s.speed_test.frontend;
  const SpeedStatsHalf& back = s.speed_test.backend;
  LSP_LOG(level,
          "[Tracker] ReportSpeedTestguid=%s, %s data,frontend_fine: delay_avg=%u, delay_max=%u, "
          "delay_min=%u, delay_amp=%u,total_send=%u,total_recv=%u,lost_avg=%.1f,backend_fine: "
          "delay_avg=%u, delay_max=%u, delay_min=%u, "
          "delay_amp=%u,total_send=%u,total_recv=%u,lost_avg=%.1f, "
          "-----------------------------------------frontend_over: delay_avg=%u, delay_max=%u, "
          "delay_min=%u, count=%ubackend_over: delay_avg=%u, delay_max=%u, delay_min=%u, "
          "count=%u-----------------------------------------frontend_all: delay_avg=%u, "
          "delay_amp=%u, recv_count=%u, send_count=%ufrontend_all: delay_avg=%u, delay_amp=%u, "
          "recv_count=%u, send_count=%u-----------------------------------------topology_type=%u, "
          "socket=%Id, token=%d",
          s.guid.c_str(), data, front.fine.avg, front.fine.max, front.fine.min, front.fine.amp,
          front.total_send, front.fine.count, front.lost_avg, back.fine.avg, back.fine.max,
          back.fine.min, back.fine.amp, back.total_send, back.fine.count, back.lost_avg,
          front.over.avg, front.over.max, front.over.min, front.over.count, back.over.avg,
          back.over.max, back.over.min, back.over.count, front.all.avg, front.all.amp,
          front.all.count, front.all_send_count, back.all.avg, back.all.amp, back.all.count,
          back.all_send_count, s.speed_test.topology_type, s.socket, Int(s.token));
}

}  // namespace

void ReportCommunicationStatistic(const SocketQosRecord& socket) noexcept {
  CommunicationSlot slot;
  if (!slot.has_region()) {
    LSP_LOG(4,
            "[Tracker] ReportCommunicationStatistic failed, mem_addr=null,socket=%Id, "
            "token=%d",
            socket.socket, Int(socket.token));
    return;
  }
  if (!slot.is_free()) {
    LSP_LOG(4,
            "[Tracker] ReportCommunicationStatistic failed. can't find free position., "
            "socket=%Id, token=%d",
            socket.socket, Int(socket.token));
    return;
  }
  const CommInfoRecord record = MakeRecord(socket);
  LSP_LOG(0, "[Tracker] Report recovery switch info=%s, guid=%s, socket=%Id, token=%d",
          record.recovery_info, socket.guid.c_str(), socket.socket, Int(socket.token));
  slot.Write(record);
  const int level = socket.continuous ? 0 : 5;
  const char* const data = socket.continuous ? "continuous" : "ended";
  LogTraffic(level, data, socket);
  LogSpeedTest(level, data, socket);
}

}  // namespace moru_vyr::lsp
