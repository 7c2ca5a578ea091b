// The figures of a watched socket: its traffic, and the results of its probes. Nothing here
// allocates.
#include <winsock2.h>

#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

// A record's figures of one direction.
struct Traffic {
  u32 &bytes, &packets, &last_tick, &errors, &last_error, &first_error;
};

// Such a call counts neither as one nor as an error. Each stretch of reading ends with one.
bool MeansLater(int error) noexcept {
  return error == WSAEWOULDBLOCK || error == WSA_IO_PENDING || error == WSAEINPROGRESS;
}

void CountCall(const Traffic& traffic, u32 bytes, int error) noexcept {
  if (error != 0) {
    ++traffic.errors;
    traffic.last_error = static_cast<u32>(error);
    if (traffic.first_error == 0) traffic.first_error = static_cast<u32>(error);
    return;
  }
  traffic.bytes += bytes;
  ++traffic.packets;
  traffic.last_tick = GetTickCount();
}

}  // namespace

void Tracker::RecordSend(SOCKET socket, u32 bytes, int error) noexcept {
  if (MeansLater(error)) return;
  SocketQosRecord* const r = Find(socket);
  if (r == nullptr) return;
  CountCall({r->total_sent_bytes, r->total_sent_packets, r->last_send_tick, r->total_sent_errors,
             r->curr_send_error_code, r->first_send_error_code},
            bytes, error);
}

void Tracker::RecordRecv(SOCKET socket, u32 bytes, int error) noexcept {
  if (MeansLater(error)) return;
  SocketQosRecord* const r = Find(socket);
  if (r == nullptr) return;
  CountCall({r->total_recv_bytes, r->total_recv_packets, r->last_recv_tick, r->total_recv_errors,
             r->curr_recv_error_code, r->first_recv_error_code},
            bytes, error);
}

bool Tracker::GetSpeedTestResult(SOCKET socket, SpeedStats* out) noexcept {
  const SocketQosRecord* const record = Find(socket);
  if (record == nullptr) return false;
  *out = record->speed_test;
  return true;
}

bool Tracker::SetSpeedTestResult(SOCKET socket, const SpeedStats* stats) noexcept {
  SocketQosRecord* const record = Find(socket);
  if (record == nullptr) return false;
  record->speed_test = *stats;
  UpdateLoss(&record->speed_test.frontend, false);
  UpdateLoss(&record->speed_test.backend, false);
  return true;
}

bool Tracker::GetPacketCounts(SOCKET socket, u32* sent, u32* received) noexcept {
  const SocketQosRecord* const record = Find(socket);
  if (record == nullptr) return false;
  *sent = record->total_sent_packets;
  *received = record->total_recv_packets;
  return true;
}

}  // namespace moru_vyr::lsp
