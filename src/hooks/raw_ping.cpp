#include "hooks/raw_ping.h"

#include "common/log.h"
#include "icmp/icmp_vm.h"

namespace moru_vyr::lsp {

bool HoldPing(SOCKET s, const WSABUF* buffers, DWORD count, LPDWORD sent) noexcept {
  if (count == 0 || buffers == nullptr) return false;
  const u32 length = static_cast<u32>(buffers[0].len);
  if (!GetIcmpVM().CheckinConnectionPingRequest(s, buffers[0].buf, length)) return false;
  LSP_LOG(0, "[RAW]CheckinConnectionPingRequest: buffer_len=%d, socket=%Id",
          static_cast<int>(length), s);
  if (sent != nullptr) *sent = length;
  return true;
}

bool AnswerPing(SOCKET s, const WSABUF* buffers, DWORD count, LPDWORD received) noexcept {
  if (count == 0 || buffers == nullptr) return false;
  u32 length = static_cast<u32>(buffers[0].len);
  u32 ignored_ip = 0;
  if (!GetIcmpVM().CheckoutPingResponse(s, buffers[0].buf, &length, &ignored_ip)) return false;
  LSP_LOG(0, "[RAW]CheckoutPingResponse: buffer_len=%d, socket=%Id", static_cast<int>(length), s);
  if (received != nullptr) *received = length;
  return true;
}

}  // namespace moru_vyr::lsp
