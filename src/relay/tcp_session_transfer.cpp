// How a session moves bytes: each read goes straight into a buffer, each write straight out of it.
//
// A side that ends while bytes are still owed to the other leaves the session alive until they
// are delivered. What was meant for the ended side is dropped: nobody is left to take it.
#include "common/log.h"
#include "relay/tcp_provider.h"
#include "relay/tcp_session.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr int kReadSize = 8192;

// What the Tracker is told with each call's result is the last error as it stands then. Not every
// system clears it on success, and what an earlier call left would have the bytes uncounted.
void ForgetLastError() noexcept { WSASetLastError(0); }

// A send to a side that is finished, whose socket is closed or has failed before.
int FailAsEnded() noexcept {
  WSASetLastError(WSAENOTSOCK);
  return SOCKET_ERROR;
}

}  // namespace

bool TcpSession::DoLocalRead() noexcept {
  for (;;) {
    u8* place = nullptr;
    // A full buffer holds the game back: its bytes stay in the system until there is room.
    if (!local_to_remote_.Reserve(&place, kReadSize)) return true;
    const int n = recv(local_socket_, reinterpret_cast<char*>(place), kReadSize, 0);
    const int error = WSAGetLastError();
    if (n == 0) {
      const bool owes = !local_to_remote_.IsEmpty() && !remote_sock_deleteing_;
      if (owes) {
        local_sock_deleteing_ = true;
        remote_to_local_.Clear();
      }
      CloseSocket(&local_socket_);
      return owes;
    }
    if (n == SOCKET_ERROR) {
      if (error == WSAEWOULDBLOCK) return true;
      LSP_LOG(4, "[TCP]DoLocalRead. err=%d, socket=%Id, token=%u", error, local_socket_, token_);
      CloseSocketAfter(error, &local_socket_);
      return false;
    }
    LSP_LOG(0, "[TCP]DoLocalRead. Read game client data, len=%d, socket=%Id, token=%u", n,
            local_socket_, token_);
    local_to_remote_.Commit(static_cast<u32>(n));
  }
}

bool TcpSession::DoRemoteRead() noexcept {
  for (;;) {
    u8* place = nullptr;
    if (!remote_to_local_.Reserve(&place, kReadSize)) return true;
    ForgetLastError();
    const int n = recv(remote_socket_, reinterpret_cast<char*>(place), kReadSize, 0);
    const int error = WSAGetLastError();
    GetTracker().RecordRecv(remote_socket_, static_cast<u32>(n), error);
    if (n == 0) {
      const bool owes = !remote_to_local_.IsEmpty() && !local_sock_deleteing_;
      if (owes) {
        remote_sock_deleteing_ = true;
        local_to_remote_.Clear();
      }
      CloseSocket(&remote_socket_);
      return owes;
    }
    if (n == SOCKET_ERROR) {
      if (error == WSAEWOULDBLOCK) return true;
      LSP_LOG(4, "[TCP]DoRemoteRead. err=%d, socket=%Id, token=%u", error, remote_socket_, token_);
      CloseSocketAfter(error, &remote_socket_);
      return false;
    }
    LSP_LOG(0, "[TCP]DoRemoteRead. Read acc/game server data, len=%d, socket=%Id, token=%u", n,
            remote_socket_, token_);
    remote_to_local_.Commit(static_cast<u32>(n));
  }
}

bool TcpSession::DoLocalWrite() noexcept {
  u8* bytes = nullptr;
  u32 size = 0;
  while (remote_to_local_.Peek(&bytes, &size)) {
    // One that has missed bytes gets none of those behind them, though its socket may be open.
    const int n = local_sock_deleteing_ ? FailAsEnded()
                                        : send(local_socket_, reinterpret_cast<const char*>(bytes),
                                               static_cast<int>(size), 0);
    const int error = WSAGetLastError();
    if (n > 0) {
      LSP_LOG(0, "[TCP]DoLocalWrite. Send data to game client, len=%d, socket=%Id, token=%u", n,
              local_socket_, token_);
      if (!remote_to_local_.Consume(static_cast<u32>(n))) return false;  // more than was given
      continue;
    }
    // A send that takes nothing without an error would keep the worker here for ever.
    if (n == 0 || error == WSAEWOULDBLOCK) {
      provider_->SessionMgr()->EnableWrite(local_socket_);
      break;
    }
    LSP_LOG(4, "[TCP]DoLocalWrite. err=%d, socket=%Id, token=%u", error, local_socket_, token_);
    const bool owes = !local_to_remote_.IsEmpty() && !remote_sock_deleteing_;
    if (owes) {
      local_sock_deleteing_ = true;
      remote_to_local_.Clear();
    }
    CloseSocketAfter(error, &local_socket_);
    if (!owes) return false;
    break;
  }
  if (remote_sock_deleteing_ && remote_to_local_.IsEmpty()) {
    LSP_LOG(4, "DoLocalWrite, buffer is empty. Marking session obsolete, token=%u", token_);
    local_sock_deleteing_ = true;
    obsolete_tick_ = GetTickCount();
  }
  return true;
}

bool TcpSession::DoRemoteWrite() noexcept {
  if (remote_sock_deleteing_ || remote_socket_ == INVALID_SOCKET) {
    LSP_LOG(4, "[TCP]DoRemoteWrite,invalid status,remote_sock_deleteing_=%s,socket=%Id, token=%u",
            remote_sock_deleteing_ ? "true" : "false", remote_socket_, token_);
    return true;
  }
  u8* bytes = nullptr;
  u32 size = 0;
  while (local_to_remote_.Peek(&bytes, &size)) {
    ForgetLastError();
    const int n =
        send(remote_socket_, reinterpret_cast<const char*>(bytes), static_cast<int>(size), 0);
    const int error = WSAGetLastError();
    GetTracker().RecordSend(remote_socket_, static_cast<u32>(n), error);
    if (n > 0) {
      LSP_LOG(0, "[TCP]DoRemoteWrite. Send data to acc/game server, len=%d, socket=%Id, token=%u",
              n, remote_socket_, token_);
      if (!local_to_remote_.Consume(static_cast<u32>(n))) return false;
      continue;
    }
    if (n == 0 || error == WSAEWOULDBLOCK) {
      provider_->SessionMgr()->EnableWrite(remote_socket_);
      break;
    }
    LSP_LOG(4, "[TCP]DoRemoteWrite. err=%d, socket=%Id, token=%u", error, remote_socket_, token_);
    const bool owes = !remote_to_local_.IsEmpty() && !local_sock_deleteing_;
    if (owes) {
      remote_sock_deleteing_ = true;
      local_to_remote_.Clear();
    }
    CloseSocketAfter(error, &remote_socket_);
    if (!owes) return false;
    break;
  }
  if (local_sock_deleteing_ && local_to_remote_.IsEmpty()) {
    LSP_LOG(4, "DoRemoteWrite, buffer is empty. Marking session obsolete, token=%u", token_);
    remote_sock_deleteing_ = true;
    obsolete_tick_ = GetTickCount();
  }
  return true;
}

void TcpSession::CloseSocket(SOCKET* socket) noexcept {
  if (*socket == INVALID_SOCKET) return;
  if (IRelaySocketMgr* const mgr = provider_->SessionMgr()) mgr->RemoveSocket(*socket);
  closesocket(*socket);
  if (socket == &remote_socket_) GetTracker().RemoveFromWatchList(*socket);
  *socket = INVALID_SOCKET;
}

// After these the connection is gone. Any other error leaves the socket to the session's end.
void TcpSession::CloseSocketAfter(int error, SOCKET* socket) noexcept {
  if (error == WSAECONNABORTED || error == WSAECONNRESET || error == WSAENETRESET) {
    CloseSocket(socket);
  }
}

}  // namespace moru_vyr::lsp
