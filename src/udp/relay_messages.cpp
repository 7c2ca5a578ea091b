#include "udp/relay_messages.h"

#include "common/log.h"

namespace moru_vyr::lsp {
namespace {

// 0 where it cannot be read.
int BufferSize(SOCKET socket, int option) noexcept {
  int size = 0;
  int length = sizeof size;
  getsockopt(socket, SOL_SOCKET, option, reinterpret_cast<char*>(&size), &length);
  return size;
}

}  // namespace

ProtoRelayOpen ProtoRelayOpen::Request(u32 token, const sockaddr_in& first_destination,
                                       HANDLE event, SOCKET game_socket) noexcept {
  const int send_size = BufferSize(game_socket, SO_SNDBUF);
  const int recv_size = BufferSize(game_socket, SO_RCVBUF);
  LSP_LOG(5, "ProtoRelayOpen, sock_send_buf_size=%d, sock_recv_buf_size=%d, socket=%Id, token=%u",
          send_size, recv_size, game_socket, token);
  ProtoRelayOpen request;
  request.token = token;
  request.tick = GetTickCount();
  request.addr = first_destination;
  request.event_or_result = reinterpret_cast<std::uintptr_t>(event);
  request.send_size_or_queue = static_cast<u32>(send_size);
  request.recv_size_or_queue = static_cast<u32>(recv_size);
  return request;
}

ProtoRelayOpen ProtoRelayOpen::Answer(u32 token, bool success, const sockaddr_in& relay,
                                      UdpPackageQueue* send_queue,
                                      UdpPackageQueue* recv_queue) noexcept {
  ProtoRelayOpen answer;
  answer.token = token;
  answer.tick = GetTickCount();
  answer.addr = relay;
  answer.event_or_result = success ? kProtoRelayOpened : kProtoRelayRefused;
  answer.send_size_or_queue = reinterpret_cast<std::uintptr_t>(send_queue);
  answer.recv_size_or_queue = reinterpret_cast<std::uintptr_t>(recv_queue);
  return answer;
}

ProtoRelayClose ProtoRelayClose::Request(u32 token) noexcept {
  ProtoRelayClose request;
  request.token = token;
  request.tick = GetTickCount();
  return request;
}

}  // namespace moru_vyr::lsp
