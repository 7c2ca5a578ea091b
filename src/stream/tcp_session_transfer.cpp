// How a session moves bytes: each read goes straight into a buffer, each write straight out of it.
//
// A side that ends while bytes are still owed to the other leaves the session alive until they are
// delivered. What was meant for the ended side is dropped. Both directions are the same code; they
// differ in what the log says, and in the Tracker's count of what the remote socket carries.
#include "common/log.h"
#include "route/mending.h"
#include "stream/tcp_provider.h"
#include "stream/tcp_session.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kReadSize = 8192;
constexpr u32 kLargeReadSize = 65536;
constexpr u32 kMostPieces = 8;  // of one stream in one pass; then the others have their turn

// The Tracker is told the last error together with each call's result. Not every system clears it
// on success, and with an old one the bytes would not be counted.
void ForgetLastError() noexcept { WSASetLastError(0); }

bool PassesOnReset() noexcept { return GetMending().PassesOnReset(); }

bool ReadsLargePieces() noexcept { return GetMending().ReadsLargePieces(); }

bool SendsOnlyIntoRoom() noexcept { return GetMending().SendsOnlyIntoRoom(); }

u32 ReadSize() noexcept { return ReadsLargePieces() ? kLargeReadSize : kReadSize; }

bool MayHaveMore(const TcpSide& from, const TcpSide& to) noexcept {
  return from.has_more && from.socket != INVALID_SOCKET && !to.awaits_room && !to.sock_deleteing;
}

bool IsLoss(int error) noexcept {
  return error == WSAECONNABORTED || error == WSAECONNRESET || error == WSAENETRESET ||
         error == WSAECONNREFUSED || error == WSAETIMEDOUT || error == WSAENETUNREACH ||
         error == WSAEHOSTUNREACH;
}

// Some systems hand a connection's error to the select that reports it, and then show an orderly
// end. But the socket may still hold the error; and it has lost its peer, which an orderly end
// leaves to a side that has not ended itself. 0: it is an orderly end.
int ErrorBehindEnd(const TcpSide& side) noexcept {
  if (!PassesOnReset()) return 0;
  int error = 0;
  int size = sizeof error;
  getsockopt(side.socket, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&error), &size);
  if (IsLoss(error)) return error;
  sockaddr_in peer = {};
  size = sizeof peer;
  const bool has_peer =
      getpeername(side.socket, reinterpret_cast<sockaddr*>(&peer), &size) != SOCKET_ERROR;
  return !has_peer && !side.told_end && WSAGetLastError() == WSAENOTCONN ? WSAECONNRESET : 0;
}

// What recv says, and its error.
int Receive(const TcpSide& side, u8* place, u32 size, int* error) noexcept {
  ForgetLastError();
  const int n = recv(side.socket, reinterpret_cast<char*>(place), static_cast<int>(size), 0);
  *error = WSAGetLastError();
  const int behind = n == 0 ? ErrorBehindEnd(side) : 0;
  if (behind == 0) return n;
  *error = behind;
  return SOCKET_ERROR;
}

// A send to a side whose earlier bytes were dropped.
int FailAsEnded() noexcept {
  WSASetLastError(WSAENOTSOCK);
  return SOCKET_ERROR;
}

}  // namespace

bool TcpSession::Forward(TcpSide* from, TcpSide* to) noexcept {
  for (u32 pieces = 1;; ++pieces) {
    if (!Read(from, to)) return false;
    // In any other state the bytes wait.
    if (state_ == TcpState::Relaying && !(to->is_remote ? DoRemoteWrite() : Write(to, from))) {
      return false;
    }
    if (pieces == kMostPieces || !MayHaveMore(*from, *to)) return true;
  }
}

bool TcpSession::DoRemoteWrite() noexcept {
  if (remote_.sock_deleteing || remote_.socket == INVALID_SOCKET) {
    LSP_LOG(4, "[TCP]DoRemoteWrite,invalid status,remote_sock_deleteing_=%s,socket=%Id, token=%u",
            remote_.sock_deleteing ? "true" : "false", remote_.socket, token_);
    return true;
  }
  return Write(&remote_, &local_);
}

bool TcpSession::Read(TcpSide* from, TcpSide* to) noexcept {
  const u32 size = ReadSize();
  from->has_more = false;
  for (;;) {
    u8* place = nullptr;
    if (!to->owed.Reserve(&place, size)) return WaitForRoom(from, to);
    int error = 0;
    const int n = Receive(*from, place, size, &error);
    if (from->is_remote) GetTracker().RecordRecv(from->socket, static_cast<u32>(n), error);
    if (n == 0 && GetMending().PassesOnHalfClose()) {
      StopSending(from);
      return true;
    }
    if (n == 0) {
      const bool keep = EndSide(from, *to);
      CloseSocket(from);
      return keep;
    }
    if (n == SOCKET_ERROR) {
      if (error == WSAEWOULDBLOCK) return true;
      LSP_LOG(4,
              from->is_remote ? "[TCP]DoRemoteRead. err=%d, socket=%Id, token=%u"
                              : "[TCP]DoLocalRead. err=%d, socket=%Id, token=%u",
              error, from->socket, token_);
      NoteReset(error);
      CloseSocketAfter(error, from);
      return false;
    }
    LSP_LOG(0,
            from->is_remote
                ? "[TCP]DoRemoteRead. Read acc/game server data, len=%d, socket=%Id, token=%u"
                : "[TCP]DoLocalRead. Read game client data, len=%d, socket=%Id, token=%u",
            n, from->socket, token_);
    to->owed.Commit(static_cast<u32>(n));
    half_closed_ms_ = 0;
    if (!ReadsLargePieces()) continue;
    from->has_more = static_cast<u32>(n) == size;
    return true;  // this piece is passed on before the next one is read
  }
}

bool TcpSession::Write(TcpSide* to, TcpSide* from) noexcept {
  if (!SendOwed(to, from)) return false;
  LetGo(from, to);
  if (from->at_end && to->owed.IsEmpty()) PassOnEnd(to, *from);
  if (from->sock_deleteing && to->owed.IsEmpty()) {
    LSP_LOG(4,
            to->is_remote ? "DoRemoteWrite, buffer is empty. Marking session obsolete, token=%u"
                          : "DoLocalWrite, buffer is empty. Marking session obsolete, token=%u",
            token_);
    to->sock_deleteing = true;
    obsolete_tick_ = GetTickCount();
  }
  return true;
}

bool TcpSession::SendOwed(TcpSide* to, TcpSide* from) noexcept {
  u8* bytes = nullptr;
  u32 size = 0;
  while (!to->awaits_room && to->owed.Peek(&bytes, &size)) {
    ForgetLastError();
    const int n = to->missed_bytes ? FailAsEnded()
                                   : send(to->socket, reinterpret_cast<const char*>(bytes),
                                          static_cast<int>(size), 0);
    const int error = WSAGetLastError();
    if (to->is_remote) GetTracker().RecordSend(to->socket, static_cast<u32>(n), error);
    if (n > 0) {
      LSP_LOG(0,
              to->is_remote
                  ? "[TCP]DoRemoteWrite. Send data to acc/game server, len=%d, socket=%Id, token=%u"
                  : "[TCP]DoLocalWrite. Send data to game client, len=%d, socket=%Id, token=%u",
              n, to->socket, token_);
      // Guard: a provider below says that it took more than it was given.
      if (!to->owed.Consume(static_cast<u32>(n))) return false;
      // A part only: the next send would block.
      if (static_cast<u32>(n) < size && SendsOnlyIntoRoom()) AwaitRoom(to);
      continue;
    }
    // Guard: a send that takes nothing without an error would keep the worker here forever.
    if (n == 0 || error == WSAEWOULDBLOCK) {
      AwaitRoom(to);
      break;
    }
    LSP_LOG(4,
            to->is_remote ? "[TCP]DoRemoteWrite. err=%d, socket=%Id, token=%u"
                          : "[TCP]DoLocalWrite. err=%d, socket=%Id, token=%u",
            error, to->socket, token_);
    NoteReset(error);
    const bool keep = EndSide(to, *from);
    CloseSocketAfter(error, to);
    return keep;
  }
  return true;
}

void TcpSession::AwaitRoom(TcpSide* to) noexcept {
  provider_->SessionMgr()->EnableWrite(to->socket);
  to->awaits_room = SendsOnlyIntoRoom();
}

// In case the sets had no place for the request.
void TcpSession::AskForRoom() noexcept {
  if (local_.awaits_room) provider_->SessionMgr()->EnableWrite(local_.socket);
  if (remote_.awaits_room) provider_->SessionMgr()->EnableWrite(remote_.socket);
}

// A full buffer holds the sender back: its bytes stay in the system until there is room. Guard:
// where there never will be, the sender would be held back forever, since its close comes behind
// the bytes that are not read, and select would return at once all that time. A remote side that
// has missed bytes takes no more, so what waits for it is dropped, and the game may still get what
// it is owed. A session that was given up serves no one, and ends.
bool TcpSession::WaitForRoom(TcpSide* from, TcpSide* to) noexcept {
  if (to->is_remote && to->missed_bytes) {
    to->owed.Clear();
  } else if (GetMending().RestsWhileFull()) {
    HoldBack(from, *to);
  }
  return !IsGivenUp();
}

// If nothing is owed, memory has run out and no write will make room: the next pass tries again.
void TcpSession::HoldBack(TcpSide* from, const TcpSide& to) noexcept {
  if (to.owed.IsEmpty()) return;
  from->held_back = true;
  provider_->SessionMgr()->StopReading(from->socket);
}

void TcpSession::LetGo(TcpSide* from, TcpSide* to) noexcept {
  u8* place = nullptr;
  if (!from->held_back || !to->owed.Reserve(&place, ReadSize())) return;
  from->held_back = false;
  provider_->SessionMgr()->ResumeReading(from->socket);
}

// The side is finished. Whether the session goes on, to deliver what the other side is owed.
bool TcpSession::EndSide(TcpSide* ended, const TcpSide& other) noexcept {
  const bool owes = !other.owed.IsEmpty() && !other.sock_deleteing;
  if (owes) {
    ended->sock_deleteing = true;
    ended->missed_bytes = true;
    ended->awaits_room = false;
    ended->owed.Clear();
  }
  return owes;
}

// Its socket stays, to receive.
void TcpSession::StopSending(TcpSide* side) noexcept {
  side->at_end = true;
  // Its end would be readable forever.
  provider_->SessionMgr()->StopReading(side->socket);
  LSP_LOG(4, "[TCP]TcpSession::StopSending, side=%s, socket=%Id, token=%u",
          side->is_remote ? "remote" : "local", side->socket, token_);
}

// All that `from` has sent is on its way. Once that is so for both, the session is over.
void TcpSession::PassOnEnd(TcpSide* to, const TcpSide& from) noexcept {
  if (to->told_end) return;
  to->told_end = true;
  shutdown(to->socket, SD_SEND);
  LSP_LOG(4, "[TCP]TcpSession::PassOnEnd, side=%s, socket=%Id, token=%u",
          to->is_remote ? "remote" : "local", to->socket, token_);
  if (!to->at_end || !from.told_end) return;
  local_.sock_deleteing = remote_.sock_deleteing = true;
  obsolete_tick_ = GetTickCount();
}

void TcpSession::NoteReset(int error) noexcept {
  if (IsLoss(error) && PassesOnReset()) is_reset_ = true;
}

void TcpSession::CloseSocket(TcpSide* side) noexcept {
  if (side->socket == INVALID_SOCKET) return;
  provider_->SessionMgr()->RemoveSocket(side->socket);
  closesocket(side->socket);
  if (side->is_remote) GetTracker().RemoveFromWatchList(side->socket);
  side->socket = INVALID_SOCKET;
}

// After these the connection is gone. Any other error leaves the socket to the session's end.
void TcpSession::CloseSocketAfter(int error, TcpSide* side) noexcept {
  if (error == WSAECONNABORTED || error == WSAECONNRESET || error == WSAENETRESET) {
    CloseSocket(side);
  }
}

}  // namespace moru_vyr::lsp
