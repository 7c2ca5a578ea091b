#include "tracker/socket_qos_record.h"

#include <windows.h>

namespace moru_vyr::lsp {

void UpdateTimes(SocketQosRecord* record) noexcept {
  const u32 now = GetTickCount();
  record->life = now > record->create_tick ? now - record->create_tick : 0;
  const bool has_received = record->last_recv_tick > 0 && now >= record->last_recv_tick;
  record->idle = has_received ? now - record->last_recv_tick : 0;
}

}  // namespace moru_vyr::lsp
