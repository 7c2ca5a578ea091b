// One relayed connection of the game: what it sends goes to a node or to the game server, and what
// comes back goes to the game, unchanged and in order.
//
// The game is connected at once; its first bytes wait until the far side is ready. A node that is
// silent, refuses or gives a bad answer costs time: one other node is tried, then the game server
// directly. Four failures end the connection instead: a connect that the network refuses, a request
// that cannot be sent, one that would block, and a node that closes while the last error says
// "would block".
//
// With fast fallback, a way that has not answered in time goes on beside the next one. The members
// hold the latest way, `tries_` the others, until one carries and the rest are closed.
//
// Where the game's connect is postponed, the session starts before the game is connected, and lets
// it connect once the far side is ready; if that cannot be reached, the connect fails.
//
// Created on the application's thread, used by the worker alone after its accept. The provider owns
// it, and closes its sockets when it ends. Addresses and ports are in network order. Nothing
// throws. Event handlers return whether the session goes on.
#pragma once
#include <winsock2.h>

#include <memory>
#include <utility>

#include "abi/acc_decision_info.h"
#include "common/types.h"
#include "protocol/session_guid.h"
#include "relay/relay_interfaces.h"
#include "stream/block_buffer.h"
#include "stream/tcp_negotiation.h"

namespace moru_vyr::lsp {

class TcpProvider;
class TcpSession;
struct PostponedConnect;

enum class TcpState : u32 {
  Created,      // waiting for its accept
  Accepted,     // the local socket is known
  Connecting,   // to a node or to the game server
  Negotiating,  // with a node
  Relaying,
  Failed,  // a failure is being handled, or nothing more will be done
};

// One of the two sockets that a session joins, which it serves as its delegate, and the data that
// it is still to get.
struct TcpSide : IRelaySocketDelegate {
  TcpSide(TcpSession* owner, bool remote, BlockPool* pool) noexcept
      : session(*owner), is_remote(remote), owed(pool) {}

  TcpSession& session;
  const bool is_remote;  // the Tracker watches it, and the log names it
  SOCKET socket = INVALID_SOCKET;
  bool sock_deleteing = false;  // the side is finished; its socket may still be open
  bool missed_bytes = false;    // some data for it was dropped: nothing may follow that
  bool at_end = false;          // it will send nothing more, and may still receive
  bool held_back = false;       // it is not read: there is no room for its bytes
  bool told_end = false;        // it has been told that the other side is at its end
  bool has_more = false;        // its last read was full, so there may be more. Only if mended
  bool awaits_room = false;     // it is not written to before it is writable. Only if mended
  BlockBuffer owed;             // filled by reading the other side, drained by writing to this one
};

// A way to the far side that is under way beside the latest one. Only with fast fallback. The
// remote side is the delegate of its socket, since the two may change places.
struct TcpTry {
  SOCKET socket = INVALID_SOCKET;  // INVALID_SOCKET: there is none here
  TcpState state = TcpState::Created;
  bool to_node = false;
  bool is_overdue = false;  // it did not answer in time
  u32 elapsed_ms = 0;
  RouteProxyInfo proxy;
  TcpNegotiation negotiation;
};

class TcpSession {
 public:
  TcpSession(TcpProvider* provider, u32 token) noexcept;  // the provider outlives it
  ~TcpSession();
  TcpSession(const TcpSession&) = delete;
  TcpSession& operator=(const TcpSession&) = delete;

  // The address that the game asked for, and the port from which it asked.
  void SetGame(u16 port, const sockaddr_in& server) noexcept;
  // The accepted socket of the connection to the listener.
  void SetLocalSocket(SOCKET socket) noexcept;
  // Makes the remote one. False on failure.
  bool OpenRemoteSocket() noexcept;

  // The game's connect waits for this session; null: it does not. Before the first event.
  void SetPostponed(std::shared_ptr<PostponedConnect> connect) noexcept {
    postponed_ = std::move(connect);
  }
  bool IsPostponed() const noexcept { return postponed_ != nullptr; }
  bool ExpectsGame() const noexcept;      // the game was told to connect, and may still come
  bool IsGivenUpByGame() const noexcept;  // the game closed its socket, or no longer waits
  // The game has connected, and that is the accepted socket.
  void MeetGame(SOCKET local) noexcept;
  // The error with which the connect of one of the session's sockets failed.
  void NoteConnectError(SOCKET socket, int error) noexcept;

  // Asks the route policy where the remote socket should connect.
  void DecideRemoteAddr() noexcept;
  // Starts connecting it. False if that failed at once.
  bool Connect() noexcept;
  // After a connect that failed at once. Whether there is another way, which is under way then.
  bool TakeAnotherWay() noexcept;
  // All ways have failed. True if the session goes on anyway.
  bool GiveUp() noexcept;

  void OnUpdate(u32 elapsed_ms) noexcept;
  // Whether bytes from the game wait for room in the far side's socket.
  bool OwesServer() const noexcept;
  // Whether both sides have ended, and long enough ago for the last bytes to have been sent.
  bool IsObsolete() noexcept;
  // Whether one side reset its connection, and the other is to see the same.
  bool is_reset() const noexcept { return is_reset_; }

  // Closes the ways beside the latest.
  void CloseTries() noexcept;

  SOCKET local_socket() const noexcept { return local_.socket; }
  SOCKET remote_socket() const noexcept { return remote_.socket; }
  u16 game_socket_port() const noexcept { return game_socket_port_; }
  u32 token() const noexcept { return token_; }
  void set_state(TcpState state) noexcept { state_ = state; }

 private:
  // tcp_session_events.cpp
  struct LocalSide final : TcpSide {
    using TcpSide::TcpSide;
    void OnReadable(SOCKET from) noexcept override;
    void OnWritable(SOCKET to) noexcept override;
    void OnException(SOCKET of) noexcept override;
    void OnClose(SOCKET of) noexcept override;
  };
  struct RemoteSide final : TcpSide {
    using TcpSide::TcpSide;
    void OnReadable(SOCKET from) noexcept override;
    void OnWritable(SOCKET to) noexcept override;
    void OnException(SOCKET of) noexcept override;
    void OnClose(SOCKET of) noexcept override;
  };

  // Ends an event. Destroys the session unless it is kept.
  void Conclude(bool keep) noexcept;
  // No connect is under way and none will follow, so what the game sends can never leave.
  bool IsGivenUp() const noexcept;
  void LimitHalfClose(u32 elapsed_ms) noexcept;

  // tcp_session_postponed.cpp
  void LetGameConnect() noexcept;
  void LimitPostponed(u32 elapsed_ms) noexcept;

  // tcp_session_fallback.cpp
  bool StartNegotiation() noexcept;
  bool FinishNegotiation() noexcept;
  bool LeaveNode(u32 reason) noexcept;
  bool OnNegotiationFailed(u32 reason) noexcept;
  bool TakeNextWay() noexcept;
  bool ChangeAcclServer() noexcept;
  bool ConnectToNewNode() noexcept;
  bool ChangeToGameSrv() noexcept;
  bool CreateRemoteSocket() noexcept;
  void TargetSelectedProxy() noexcept;

  // tcp_session_race.cpp
  bool PutForward(SOCKET socket) noexcept;
  u32 AnswerLimitMs() const noexcept;
  bool OnAnswerOverdue() noexcept;
  bool Resume(bool in_time) noexcept;
  void WinRace() noexcept;
  void UpdateTries(u32 elapsed_ms) noexcept;
  void Exchange(TcpTry* other) noexcept;
  void RecordTimeOut(TcpTry* of) noexcept;
  void CloseTry(TcpTry* ended) noexcept;

  // tcp_session_transfer.cpp
  bool Forward(TcpSide* from, TcpSide* to) noexcept;
  bool DoRemoteWrite() noexcept;
  bool Read(TcpSide* from, TcpSide* to) noexcept;
  bool Write(TcpSide* to, TcpSide* from) noexcept;
  bool SendOwed(TcpSide* to, TcpSide* from) noexcept;
  void AwaitRoom(TcpSide* to) noexcept;
  void AskForRoom() noexcept;
  bool WaitForRoom(TcpSide* from, TcpSide* to) noexcept;
  void HoldBack(TcpSide* from, const TcpSide& to) noexcept;
  void LetGo(TcpSide* from, TcpSide* to) noexcept;
  bool EndSide(TcpSide* ended, const TcpSide& other) noexcept;
  void StopSending(TcpSide* side) noexcept;
  void PassOnEnd(TcpSide* to, const TcpSide& from) noexcept;
  void NoteReset(int error) noexcept;
  void CloseSocket(TcpSide* side) noexcept;
  void CloseSocketAfter(int error, TcpSide* side) noexcept;

  u32 game_ip_ = 0;  // what the game asked for
  u16 game_port_ = 0;
  u32 remote_ip_ = 0;  // what the remote socket connects to
  u16 remote_port_ = 0;
  u16 game_socket_port_ = 0;
  LocalSide local_;          // towards the game
  RemoteSide remote_;        // towards a node or the game server
  u32 connect_elapsed_ = 0;  // milliseconds of connecting and negotiating
  TcpState state_ = TcpState::Created;
  u32 half_closed_ms_ = 0;  // since a side's end, or the last byte after it
  u32 obsolete_tick_ = 0;   // when the session was marked as finished; 0: never
  const u32 token_;
  const SessionGuid guid_;
  bool use_acc_ = true;        // the remote side is a node
  bool direct_tried_ = false;  // the game server itself has been tried
  bool is_reset_ = false;
  std::shared_ptr<PostponedConnect> postponed_;  // until the game has come
  int connect_error_ = 0;                        // the game server's, else a node's
  u32 expected_ms_ = 0;                          // since the game was told to connect
  AccDecisionInfo decision_;
  TcpNegotiation negotiation_;
  u8 node_changes_ = 0;
  TcpTry tries_[2];                // two nodes, while the game server is tried
  TcpTry* put_forward_ = nullptr;  // the place of the way that was the latest before this event
  TcpProvider* const provider_;
  u32 nego_count_ = 0;
};

}  // namespace moru_vyr::lsp
