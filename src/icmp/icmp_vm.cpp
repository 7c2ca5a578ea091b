#include "icmp/icmp_vm.h"

#include <windows.h>

#include <cstring>
#include <exception>

#include "common/log.h"
#include "icmp/icmp_checksum.h"
#include "icmp/ping_reply.h"
#include "route/route.h"

namespace moru_vyr::lsp {
namespace {

constexpr u8 kEchoRequest = 8;
constexpr u32 kChecksumOffset = 2;
constexpr u32 kMinReplyRoom = 28;
// Replies come this much early, to make up for the game's own polling.
constexpr u32 kEarlyMs = 5;

bool IsValidEchoRequest(const char* buffer, u32 length) noexcept {
  // Guard: summed in a copy, since another thread may be sending from the same buffer.
  u8 message[kMaxIcmpSize];
  std::memcpy(message, buffer, length);
  if (message[0] != kEchoRequest) return false;
  u16 checksum;
  std::memcpy(&checksum, message + kChecksumOffset, sizeof checksum);
  std::memset(message + kChecksumOffset, 0, sizeof checksum);
  return IcmpChecksum(message, length) == checksum;
}

// Kept: no care is taken of the tick counter's wrap, so around it a reply comes at once or, for a
// request just before it, only once the counter has come round.
bool IsDue(const ping_request_t& request, u32 now) noexcept {
  return now >= request.req_time + request.lag - kEarlyMs;
}

enum class Oldest { kNone, kNull, kNotReady, kDue };
struct Wait {
  u32 req_time;
  u32 lag;
};

// Takes the oldest request off the queue if its time has come. Requests behind it wait, even if
// their own lag is shorter.
Oldest TakeOldest(raw_request_t& entry, u32 now, ping_request_t** taken, Wait* wait) noexcept {
  const common::Lock hold(entry.lock);
  if (entry.requests.empty()) return Oldest::kNone;
  ping_request_t* const request = entry.requests.front();
  if (request != nullptr && !IsDue(*request, now)) {
    *wait = {request->req_time, request->lag};
    return Oldest::kNotReady;
  }
  entry.requests.pop_front();
  *taken = request;
  return request != nullptr ? Oldest::kDue : Oldest::kNull;
}

}  // namespace

void CIcmpVM::AddRawSocket(SOCKET s, u32 ip) noexcept {
  try {
    auto entry = std::make_shared<raw_request_t>(ip);
    const common::Lock hold(sockets_lock_);
    if (raw_sockets_.try_emplace(s, std::move(entry)).second) return;
  } catch (const std::exception&) {
    return;  // out of memory: this socket's pings go to the network
  }
  LSP_LOG(0, "[RAW]AddRawSocket, repeated. ip=%d, socket=%Id", static_cast<int>(ip), s);
}

void CIcmpVM::RemoveRawSocket(SOCKET s) noexcept {
  LSP_LOG(0, "RemoveRawSocket:  socket=%Id", s);
  std::shared_ptr<raw_request_t> entry;  // dies after the lock is released
  const common::Lock hold(sockets_lock_);
  const auto found = raw_sockets_.find(s);
  if (found == raw_sockets_.end()) return;
  entry = std::move(found->second);
  raw_sockets_.erase(found);
}

std::shared_ptr<raw_request_t> CIcmpVM::Find(SOCKET s) noexcept {
  const common::Lock hold(sockets_lock_);
  const auto found = raw_sockets_.find(s);
  return found != raw_sockets_.end() ? found->second : nullptr;
}

bool CIcmpVM::CheckinConnectionPingRequest(SOCKET s, const char* buffer, u32 length) noexcept {
  const auto entry = Find(s);
  if (entry == nullptr) {
    LSP_LOG(0, "[RAW]CheckinConnectionPingRequest, no request for socket=%Id", s);
    return false;
  }
  LSP_LOG(0, "[RAW]CheckinConnectionPingRequest, socket=%Id", s);
  return CheckinPingRequest(s, *entry, buffer, length);
}

bool CIcmpVM::CheckinPingRequest(SOCKET s, raw_request_t& entry, const char* buffer,
                                 u32 length) noexcept {
  if (buffer == nullptr || length < kMinIcmpSize || length > kMaxIcmpSize) return false;
  const u32 lag = GetRoute()->GetServerLag(entry.ip);
  if (lag == 0) return false;  // a server that is not accelerated
  LSP_LOG(0, "[RAW]CheckinPingRequest, lag value=%d, socket=%Id", static_cast<int>(lag), s);
  if (!IsValidEchoRequest(buffer, length)) return false;
  ping_request_t* const request = pool_.AllocPingRequest();
  if (request == nullptr) return false;
  request->lag = lag;
  request->ip = entry.ip;
  request->size = length;
  request->req_time = GetTickCount();
  std::memcpy(request->data, buffer, length);
  try {
    const common::Lock hold(entry.lock);
    entry.requests.push_back(request);
    return true;
  } catch (const std::exception&) {
    pool_.FreePingRequestCache(request);
    return false;
  }
}

ping_request_t* CIcmpVM::TakeDueRequest(SOCKET s, raw_request_t& entry) noexcept {
  ping_request_t* request = nullptr;
  Wait wait{};
  switch (TakeOldest(entry, GetTickCount(), &request, &wait)) {
    case Oldest::kNone:
      LSP_LOG(0, "[RAW] CheckoutPingResponse: No Request in Queue, socket=%Id", s);
      return nullptr;
    case Oldest::kNull:
      LSP_LOG(0, "[RAW] CheckoutPingResponse: req is null, socket=%Id", s);
      return nullptr;
    case Oldest::kNotReady:
      LSP_LOG(0, "[RAW] CheckoutPingResponse:not ready, req_time=%u, lag=%u, socket=%Id",
              wait.req_time, wait.lag, s);
      return nullptr;
    case Oldest::kDue:
      break;
  }
  return request;
}

bool CIcmpVM::CheckoutPingResponse(SOCKET s, char* buffer, u32* length, u32* from_ip) noexcept {
  if (buffer == nullptr || length == nullptr || *length < kMinReplyRoom) {
    LSP_LOG(0, "[RAW] CheckoutPingResponse: Invalid Param");
    return false;
  }
  const auto entry = Find(s);
  if (entry == nullptr) {
    LSP_LOG(0, "[RAW]CheckoutPingResponse, no request for socket=%Id", s);
    return false;
  }
  ping_request_t* const request = TakeDueRequest(s, *entry);
  if (request == nullptr) return false;
  if (from_ip != nullptr) *from_ip = request->ip;
  *length = ForgePingReply(*request, reinterpret_cast<u8*>(buffer), *length);
  pool_.FreePingRequestCache(request);
  return true;
}

CIcmpVM& GetIcmpVM() {
  static CIcmpVM& vm = *new CIcmpVM;
  return vm;
}

}  // namespace moru_vyr::lsp
