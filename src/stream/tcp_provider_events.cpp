// The sockets' events: each finds its session and does what the session's verdict says.
#include "common/log.h"
#include "stream/tcp_provider.h"

namespace moru_vyr::lsp {

TcpSession* TcpProvider::FindBy(SOCKET (TcpSession::*of)() const noexcept,
                                SOCKET socket) const noexcept {
  for (const auto& session : sessions_)
    if ((session.get()->*of)() == socket) return session.get();
  return nullptr;
}

TcpSession* TcpProvider::FindRemote(SOCKET socket) const noexcept {
  for (const auto& session : sessions_)
    if (session->remote_socket() == socket || session->HasTry(socket)) return session.get();
  return nullptr;
}

void TcpProvider::OnLocalReadable(SOCKET socket) noexcept {
  if (TcpSession* const session = FindBy(&TcpSession::local_socket, socket)) {
    CloseObsoleteSession(session, session->HandleLocalReadable());
  } else {
    LSP_LOG(4, "[TCP] TcpProvider::OnLocalReadable, failed to find socket=%Id", socket);
  }
}

void TcpProvider::OnLocalWritable(SOCKET socket) noexcept {
  if (TcpSession* const session = FindBy(&TcpSession::local_socket, socket)) {
    CloseObsoleteSession(session, session->DoLocalWrite() ? kKeepSession : kCloseSession);
  } else {
    LSP_LOG(4, "[TCP]TcpProvider::OnLocalWritable, failed to find socket=%Id", socket);
  }
}

void TcpProvider::OnLocalExcpetion(SOCKET socket) noexcept {
  LSP_LOG(4, "[TCP]TcpProvider::OnLocalExcpetion. socket=%Id", socket);
}

void TcpProvider::OnLocalClose(SOCKET socket) noexcept {
  LSP_LOG(4, "[TCP]TcpProvider::OnLocalClose. socket=%Id", socket);
}

void TcpProvider::OnRemoteReadable(SOCKET socket) noexcept {
  if (TcpSession* const session = FindRemote(socket)) {
    CloseObsoleteSession(session, session->HandleRemote(socket, &TcpSession::HandleRemoteReadable));
  } else {
    LSP_LOG(4, "[TCP]TcpProvider::OnRemoteReadable, failed to find socket=%Id", socket);
  }
}

void TcpProvider::OnRemoteWritable(SOCKET socket) noexcept {
  if (TcpSession* const session = FindRemote(socket)) {
    CloseObsoleteSession(session, session->HandleRemote(socket, &TcpSession::HandleRemoteWritable));
  } else {
    LSP_LOG(4, "[TCP]TcpProvider::OnRemoteWritable, failed to find socket=%Id", socket);
  }
}

void TcpProvider::OnRemoteExcpetion(SOCKET socket) noexcept {
  TcpSession* const session = FindRemote(socket);
  if (session == nullptr) {
    // Kept: the text of the writable event.
    LSP_LOG(4, "[TCP]TcpProvider::OnRemoteWritable, failed to find socket=%Id", socket);
    return;
  }
  int pending = 0;
  int size = sizeof pending;
  if (getsockopt(socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&pending), &size) ==
      SOCKET_ERROR) {
    LSP_LOG(4, "[TCP] getsockopt failed");
  }
  LSP_LOG(4, "[TCP]TcpProvider::OnRemoteExcpetion. socket=%Id, error=%d, token=%u", socket, pending,
          session->token());
  session->NoteConnectError(socket, pending);
  CloseObsoleteSession(session, session->HandleRemote(socket, &TcpSession::HandleConnectFailure));
}

void TcpProvider::OnRemoteClose(SOCKET socket) noexcept {
  LSP_LOG(0, "[TCP]TcpProvider::OnRemoteClose. socket=%Id", socket);
}

}  // namespace moru_vyr::lsp
