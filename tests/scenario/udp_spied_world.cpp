#include "tests/scenario/udp_spied_world.h"

#include <cstring>

#include "engine/relay_mgr.h"
#include "hooks/downcall_table.h"
#include "udp/relay_messages.h"
#include "udp/udp_package_queue.h"

namespace udp_test {

using namespace moru_vyr::lsp;  // NOLINT

namespace {

std::string TextOf(const struct sockaddr* to) {
  if (to == nullptr) return "";
  sockaddr_in address = {};
  std::memcpy(&address, to, sizeof address);
  return std::string(inet_ntoa(address.sin_addr)) + ":" + std::to_string(ntohs(address.sin_port));
}

}  // namespace

UdpSpiedWorld* UdpSpiedWorld::spy_ = nullptr;

UdpSpiedWorld::UdpSpiedWorld(u32 mended) : UdpWorld(mended) { spy_ = this; }

UdpSpiedWorld::~UdpSpiedWorld() {
  if (real_ != nullptr) NextProvider().lpWSPSendTo = real_;
}

WSPPROC_TABLE& UdpSpiedWorld::NextProvider() { return *GetDowncallTable(kProtocolUdp, nullptr); }

void UdpSpiedWorld::Starts(common::u32 log_level) {
  UdpWorld::Starts(log_level);
  real_ = NextProvider().lpWSPSendTo;
  NextProvider().lpWSPSendTo = SpySendTo;
}

int WSPAPI UdpSpiedWorld::SpySendTo(SOCKET s, LPWSABUF buffers, DWORD count, LPDWORD sent_bytes,
                                    DWORD flags, const struct sockaddr* to, int to_size,
                                    LPWSAOVERLAPPED overlapped,
                                    LPWSAOVERLAPPED_COMPLETION_ROUTINE completion,
                                    LPWSATHREADID thread, LPINT error) {
  SentDatagram one{s, GetCurrentThreadId() == GetRelayMgr().GetWorkerThreadId(), "", TextOf(to)};
  for (DWORD i = 0; i < count; ++i) one.text.append(buffers[i].buf, buffers[i].len);
  spy_->sent.push_back(one);
  // A provider may read as much of the address as the length says there is.
  if (to != nullptr)
    spy_->address_bytes_ =
        std::string(reinterpret_cast<const char*>(to), static_cast<size_t>(to_size));
  if (const int wanted = spy_->fails(one)) {
    *error = wanted;
    return SOCKET_ERROR;
  }
  const int result = spy_->real_(s, buffers, count, sent_bytes, flags, to, to_size, overlapped,
                                 completion, thread, error);
  if (result == 0 && sent_bytes != nullptr) *sent_bytes = static_cast<DWORD>(spy_->says(one));
  return result;
}

std::string UdpSpiedWorld::ControlAddress() {
  sockaddr_in control = {};
  GetRelayMgr().GetUdpLocalAddr(&control);
  return TextOf(Raw(control));
}

std::vector<std::string> UdpSpiedWorld::GameSent() const {
  std::vector<std::string> texts;
  for (const SentDatagram& one : sent) {
    if (one.by_relay) continue;
    if (one.to == ControlAddress()) {
      texts.push_back(one.text.size() == sizeof(ProtoRelayOpen)    ? "open"
                      : one.text.size() == sizeof(ProtoRelayClose) ? "close"
                                                                   : "odd");
    } else {
      const bool to_relay = one.to.rfind("127.0.0.1:", 0) == 0;
      texts.push_back((to_relay ? "relay" : one.to) + ":" + one.text);
    }
  }
  return texts;
}

std::vector<std::string> UdpSpiedWorld::RelaySent() const {
  std::vector<std::string> texts;
  for (const SentDatagram& one : sent) {
    if (one.by_relay) texts.push_back(one.text);
  }
  return texts;
}

SocketRecord UdpSpiedWorld::RecordOf(SOCKET s) { return GetSocketMap().Get(s); }

std::string UdpSpiedWorld::TakeLoneEntry(SOCKET s, const UdpPackageQueue* queue) {
  const auto live = GetRelayMgr().UseQueue(queue, RecordOf(s).token);
  if (live == nullptr) return "no queue";
  sockaddr_in address = {};
  return live->FindAddrThenRemove("?", 1, &address) ? TextOf(Raw(address)) : "none";
}

}  // namespace udp_test
