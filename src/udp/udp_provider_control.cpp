// The control port: what arrives there, and how a request is handled.
//
// Any process of the machine can send here, so a message that is not exactly one of ours is
// dropped, without a log line.
#include <cstring>

#include "common/log.h"
#include "common/net_text.h"
#include "udp/udp_provider.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kTypeOffset = offsetof(ProtoRelayOpen, type);

static_assert(offsetof(ProtoRelayClose, type) == kTypeOffset);

// Whether the datagram is one whole message of that kind.
template <class Message>
bool Read(const UdpPackage& package, Message* message) noexcept {
  if (package.valid_len != sizeof *message) return false;
  std::memcpy(static_cast<void*>(message), package.data, sizeof *message);
  return true;
}

}  // namespace

void UdpProvider::OnReadable(SOCKET socket) noexcept {
  UdpPackage package;
  while (ReadPackage(socket, &package)) {
    if (socket == local_socket_) HandleLocalMessage(package);
  }
}

// A datagram that is too long ends this read with an error; reading goes on when the socket is next
// readable.
bool UdpProvider::ReadPackage(SOCKET socket, UdpPackage* package) noexcept {
  const int error = recv_buffer_.Receive(socket, package);
  if (error == 0) return true;
  if (error != WSAEWOULDBLOCK) {
    LSP_LOG(0, "UdpProvider::ReadPackage recvfrom failed, error = %d", error);
  }
  return false;
}

void UdpProvider::HandleLocalMessage(const UdpPackage& package) noexcept {
  if (package.addr.sin_port == 0) return;
  if (package.addr.sin_addr.s_addr != htonl(INADDR_LOOPBACK)) return;
  if (package.valid_len <= kTypeOffset) return;
  u32 magic = 0;
  std::memcpy(&magic, package.data, sizeof magic);
  if (magic != kProtoRelayMagic) return;
  switch (package.data[kTypeOffset]) {
    case kProtoRelayTypeOpen:
      if (ProtoRelayOpen request; Read(package, &request)) HandleOpenRequest(request, package.addr);
      break;
    case kProtoRelayTypeClose:
      if (ProtoRelayClose request; Read(package, &request)) CloseSession(request.token);
      break;
    default:
      break;
  }
}

void UdpProvider::HandleOpenRequest(const ProtoRelayOpen& request,
                                    const sockaddr_in& game_addr) noexcept {
  sockaddr_in relay = {};
  ProtoRelayOpen answer = ProtoRelayOpen::Answer(request.token, false, relay, nullptr, nullptr);
  UdpSession* session = FindWithPorts(request.token, game_addr);
  if (session == nullptr) session = CreateSession(request, game_addr);
  // Kept: a session that has no address for the game is refused and stays.
  if (session != nullptr && session->GetRelayAddrFor(request.address(), &relay)) {
    const bool queued = !session->HasPeerPorts();
    answer =
        ProtoRelayOpen::Answer(request.token, true, relay, queued ? session->send_queue() : nullptr,
                               queued ? session->recv_queue() : nullptr);
  }
  ResponseCreateSessionResult(answer, game_addr, request.event());
}

// A socket whose addresses have ports of their own asks again for each address.
UdpSession* UdpProvider::FindWithPorts(u32 token, const sockaddr_in& game_addr) const noexcept {
  const auto found = sessions_.find(token);
  if (found == sessions_.end()) return nullptr;
  UdpSession* const session = found->second.get();
  return session->HasPeerPorts() && session->IsOf(game_addr) ? session : nullptr;
}

// The requester waits half a second. After that the event's handle is closed, or names something
// else.
void UdpProvider::ResponseCreateSessionResult(const ProtoRelayOpen& answer,
                                              const sockaddr_in& game_addr, HANDLE event) noexcept {
  BOOL ev_result = FALSE;
  DWORD ev_error = 0;
  if (event != nullptr && event != INVALID_HANDLE_VALUE) {
    StoreCreateResult(answer);  // first: the requester must find it when it wakes
    ev_result = SetEvent(event);
    if (!ev_result) ev_error = GetLastError();
  }
  LSP_LOG(5,
          ev_result ? "[UDP] UdpProvider::ResponseCreateSessionResult ok, addr=%s:%u, success=%s, "
                      "ev_result=%d, ev_error=%u, socket=%Id, token=%u"
                    : "[UDP] UdpProvider::ResponseCreateSessionResult invalid, addr=%s:%u, "
                      "success=%s, ev_result=%d, ev_error=%u, socket=%Id, token=%u",
          common::IpToString(game_addr.sin_addr.s_addr).c_str(), ntohs(game_addr.sin_port),
          answer.opened() ? "true" : "false", ev_result, static_cast<u32>(ev_error), local_socket_,
          u32{answer.token});
}

void UdpProvider::StoreCreateResult(const ProtoRelayOpen& answer) noexcept {
  common::Lock hold(result_lock_);
  try {
    create_results_[u32{answer.token}] = answer;
  } catch (...) {  // the requester finds none, and sends directly
  }
}

bool UdpProvider::GetCreateResult(u32 token, ProtoRelayOpen* out) noexcept {
  if (out == nullptr) return false;
  common::Lock hold(result_lock_);
  const auto found = create_results_.find(token);
  if (found == create_results_.end()) return false;
  *out = found->second;
  create_results_.erase(found);
  return true;
}

}  // namespace moru_vyr::lsp
