// One client's connection: its request, the answer, the connection to the game server, and then
// the bytes in both directions, until both sides have ended.
#pragma once
#include <string>

#include "node/event.h"
#include "node/node_context.h"
#include "node/pipe.h"
#include "node/poller.h"
#include "node/request_reader.h"
#include "node/socket.h"

namespace node {

class Connection {
 public:
  Connection(NodeContext* node, u64 id, Socket client, const Address& peer, u64 now);

  // Adds what to wait for. Lowers `*due` to the next moment at which something has to be done.
  void Want(Poller* poller, u64 now, u64* due) const;
  // Does what can be done without waiting.
  void Step(const Poller& poller, u64 now);
  // Ends it from outside.
  void Close(const std::string& reason, u64 now);
  void Reset(const std::string& reason, u64 now);

  bool closed() const { return state_ == State::kClosed; }
  u64 bytes_to_server() const { return up_.sent(); }
  u64 bytes_to_client() const { return down_.sent(); }
  // What it is doing, for queries at the control port.
  Event Describe() const;

 private:
  enum class State { kRequest, kServing, kMute, kRefused, kClosed };
  enum class Server { kNone, kConnecting, kConnected, kFailed };
  enum class Answer { kOpen, kGoing, kSent };  // not decided, partly sent, completely sent

  void ReadRequest(u64 now);
  void OnRequest(u64 now);
  void ConnectToServer(u64 now);
  void WatchServer(const Readiness& ready, u64 now);
  void OnServerConnected(u64 now);
  void OnServerFailed(int error, u64 now);
  void BeginAnswer(int result, u64 now);
  void Begin(std::string bytes, u64 now);
  void SendAnswer(u64 now);
  void OnAnswered(u64 now);
  void Discard(u64 now);
  void Serve(const Readiness& client, const Readiness& server, u64 now);
  bool Carry(Pipe* pipe, SOCKET from, SOCKET to, bool readable, u32 delay_ms, u64 now);
  void CheckEnd(u64 now);
  u64 Budget() const;
  bool carrying() const { return answer_ == Answer::kSent && server_state_ == Server::kConnected; }
  u64 OwnDue(u64 now) const;
  Event Tell(const char* name) const;
  void Emit(const Event& event) const { node_->emit(event); }
  void End(const char* how, const std::string& reason, u64 now);

  NodeContext* const node_;
  const u64 id_;
  const Address peer_;
  const u64 accepted_at_;
  Socket client_;
  Socket server_;
  State state_ = State::kRequest;
  Server server_state_ = Server::kNone;
  Answer answer_ = Answer::kOpen;
  RequestReader reader_;
  Address game_ = {};
  u64 deadline_ = Pipe::kNever;  // of the request, or of a refused client's close
  u64 request_at_ = 0;
  u64 connect_by_ = Pipe::kNever;
  u64 active_at_ = 0;  // when a byte was last carried
  std::string answer_bytes_;
  std::size_t answer_sent_ = 0;
  u64 answer_due_ = Pipe::kNever;  // of its next piece
  bool answer_blocked_ = false;
  u8 result_ = 0;  // in the answer
  u32 token_ = 0;
  Pipe up_;    // client to server
  Pipe down_;  // server to client
};

}  // namespace node
