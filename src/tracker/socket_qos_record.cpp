#include "tracker/socket_qos_record.h"

#include <windows.h>

namespace moru_vyr::lsp {
namespace {

constexpr u32 kInFlightMs = 2000;

}  // namespace

void UpdateTimes(SocketQosRecord* record) noexcept {
  const u32 now = GetTickCount();
  record->life = now > record->create_tick ? now - record->create_tick : 0;
  const bool has_received = record->last_recv_tick > 0 && now >= record->last_recv_tick;
  record->idle = has_received ? now - record->last_recv_tick : 0;
}

void UpdateLoss(SpeedStatsHalf* half, bool in_flight) noexcept {
  if (in_flight && GetTickCount() < half->last_send_tick + kInFlightMs && half->pending != 0 &&
      half->total_send != 0) {
    --half->total_send;
  }
  half->lost_avg = 0;
  if (half->total_send == 0 || half->total_send < half->total_recv) return;
  half->lost_avg = (half->total_send - half->total_recv) * 100.0 / half->total_send;
}

}  // namespace moru_vyr::lsp
