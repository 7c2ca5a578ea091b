// The sockets' events: what each means in each state of the session. An event may end the session,
// and the side with it, so Conclude comes last.
#include "common/log.h"
#include "stream/tcp_session.h"

namespace moru_vyr::lsp {

void TcpSession::LocalSide::OnReadable(SOCKET from) noexcept {
  if (from != socket) {
    LSP_LOG(4, "[TCP] TcpProvider::OnLocalReadable, failed to find socket=%Id", from);
    return;
  }
  session.Conclude(session.Forward(this, &session.remote_));
}

void TcpSession::LocalSide::OnWritable(SOCKET to) noexcept {
  if (to != socket) {
    LSP_LOG(4, "[TCP]TcpProvider::OnLocalWritable, failed to find socket=%Id", to);
    return;
  }
  awaits_room = false;
  session.Conclude(session.Write(this, &session.remote_));
}

// Kept: the log has the name, spelled so.
void TcpSession::LocalSide::OnException(SOCKET of) noexcept {
  LSP_LOG(4, "[TCP]TcpProvider::OnLocalExcpetion. socket=%Id", of);
}

void TcpSession::LocalSide::OnClose(SOCKET of) noexcept {
  LSP_LOG(4, "[TCP]TcpProvider::OnLocalClose. socket=%Id", of);
}

void TcpSession::RemoteSide::OnReadable(SOCKET from) noexcept {
  if (!session.PutForward(from)) {
    LSP_LOG(4, "[TCP]TcpProvider::OnRemoteReadable, failed to find socket=%Id", from);
    return;
  }
  bool keep = false;
  switch (session.state_) {
    case TcpState::Relaying:
      keep = session.Forward(this, &session.local_);
      break;
    case TcpState::Negotiating:
      keep = session.FinishNegotiation();
      break;
    case TcpState::Connecting:
      keep = true;  // the writable event, which follows, is the one that counts
      break;
    default:
      break;
  }
  session.Conclude(keep);
}

void TcpSession::RemoteSide::OnWritable(SOCKET to) noexcept {
  if (!session.PutForward(to)) {
    LSP_LOG(4, "[TCP]TcpProvider::OnRemoteWritable, failed to find socket=%Id", to);
    return;
  }
  bool keep = false;
  switch (session.state_) {
    case TcpState::Connecting:
      LSP_LOG(4, "[TCP]TcpSession::HandleRemoteWritable, connection is successful. token=%u",
              session.token_);
      if (session.use_acc_) {
        keep = session.StartNegotiation();
      } else {
        session.WinRace();
        keep = session.DoRemoteWrite();
      }
      break;
    case TcpState::Relaying:
      awaits_room = false;
      keep = session.DoRemoteWrite();
      break;
    default:
      break;  // Kept: so a request that would have blocked ends the session. It was never sent.
  }
  session.Conclude(keep);
}

// Kept: a connect that the network refuses ends the connection. Only time and a node's answer
// lead to another try.
void TcpSession::RemoteSide::OnException(SOCKET of) noexcept {
  if (!session.PutForward(of)) {
    // Kept: the text of the writable event.
    LSP_LOG(4, "[TCP]TcpProvider::OnRemoteWritable, failed to find socket=%Id", of);
    return;
  }
  int pending = 0;
  int size = sizeof pending;
  if (getsockopt(of, SOL_SOCKET, SO_ERROR, reinterpret_cast<char*>(&pending), &size) ==
      SOCKET_ERROR) {
    LSP_LOG(4, "[TCP] getsockopt failed");
  }
  LSP_LOG(4, "[TCP]TcpProvider::OnRemoteExcpetion. socket=%Id, error=%d, token=%u", of, pending,
          session.token_);
  session.NoteConnectError(of, pending);
  if (session.state_ != TcpState::Connecting) {
    LSP_LOG(4, "[TCP]HandleConnectFailure. state mismatched, cur state=%d, token=%u",
            static_cast<int>(session.state_), session.token_);
    session.Conclude(true);
    return;
  }
  LSP_LOG(4, "[TCP]HandleConnectFailure. Connection Failed, token=%u", session.token_);
  const bool keep = session.LeaveNode(kNegoUnreachable) || session.Resume(false);
  if (!keep) {
    session.state_ = TcpState::Failed;
    session.GiveUp();
  }
  session.Conclude(keep);
}

void TcpSession::RemoteSide::OnClose(SOCKET of) noexcept {
  LSP_LOG(0, "[TCP]TcpProvider::OnRemoteClose. socket=%Id", of);
}

}  // namespace moru_vyr::lsp
