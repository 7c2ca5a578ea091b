#include "node/connection.h"

#include <algorithm>

#include "node/answer.h"

namespace node {
namespace {

Readiness ReadinessOf(const Poller& poller, const Socket& socket) {
  return socket.open() ? poller.Of(socket.get()) : Readiness{};
}

}  // namespace

Connection::Connection(NodeContext* node, u64 id, Socket client, const Address& peer, u64 now)
    : node_(node), id_(id), peer_(peer), accepted_at_(now), client_(std::move(client)) {
  Emit(Tell("accepted").With("client", peer_.Text()));
  switch (node_->behaviour->on_accept) {
    case Behaviour::kClose:
      Close("as told, after the accept", now);
      break;
    case Behaviour::kReset:
      Reset("as told, after the accept", now);
      break;
    case Behaviour::kMute:
      state_ = State::kMute;
      break;
    default:
      deadline_ = now + node_->limits.request_ms;
  }
}

// --- waiting --------------------------------------------------------------------------------

u64 Connection::OwnDue(u64 now) const {
  u64 due = deadline_;
  if (answer_ == Answer::kGoing && !answer_blocked_) due = std::min(due, answer_due_);
  if (state_ != State::kServing) return due;
  if (server_state_ == Server::kConnecting) due = std::min(due, connect_by_);
  if (carrying()) {
    if (Budget() == 0) due = now;
    due = std::min({due, up_.NextDue(now), down_.NextDue(now)});
    if (up_.ended() || down_.ended()) due = std::min(due, active_at_ + node_->limits.half_close_ms);
  }
  return due;
}

void Connection::Want(Poller* poller, u64 now, u64* due) const {
  if (closed()) return;
  *due = std::min(*due, OwnDue(now));
  Readiness client, server;
  if (state_ == State::kServing) {
    client.read = up_.WantsRead();
    client.write = answer_ == Answer::kGoing ? answer_blocked_ && answer_due_ <= now
                                             : carrying() && down_.WantsWrite(now);
    if (server_state_ == Server::kConnecting) server.write = server.except = true;
    if (carrying()) {
      server.read = down_.WantsRead();
      server.write = up_.WantsWrite(now);
    }
  } else {
    client.read = true;
    client.write = answer_ == Answer::kGoing && answer_blocked_;
  }
  poller->Want(client_.get(), client);
  if (server_.open()) poller->Want(server_.get(), server);
}

void Connection::Step(const Poller& poller, u64 now) {
  if (closed()) return;
  // Both are checked before anything is done: if a handle is closed and its number reused, the new
  // socket must not inherit the old one's readiness.
  const Readiness client = ReadinessOf(poller, client_);
  const Readiness server = ReadinessOf(poller, server_);
  switch (state_) {
    case State::kRequest:
      if (client.read) ReadRequest(now);
      if (state_ == State::kRequest && now >= deadline_) Close("no request in time", now);
      return;
    case State::kServing:
      return Serve(client, server, now);
    case State::kMute:
      if (client.write) answer_blocked_ = false;
      if (answer_ == Answer::kGoing) SendAnswer(now);
      if (client.read) Discard(now);
      return;
    case State::kRefused:
      if (client.read) Discard(now);
      if (!closed() && now >= deadline_) Close("refused; the client stayed", now);
      return;
    case State::kClosed:
      return;
  }
}

// --- the request ----------------------------------------------------------------------------

void Connection::ReadRequest(u64 now) {
  while (true) {
    const int count = recv(client_.get(), reader_.Place(), static_cast<int>(reader_.Wanted()), 0);
    if (count == SOCKET_ERROR) {
      const int error = WSAGetLastError();
      if (error != WSAEWOULDBLOCK) Reset("client error " + std::to_string(error), now);
      return;
    }
    if (count == 0) return Close("the client left within its request", now);
    switch (reader_.Took(static_cast<std::size_t>(count))) {
      case RequestReader::State::kMore:
        break;
      case RequestReader::State::kBad:
        Emit(Tell("bad_request").With("problem", reader_.problem()).With("bytes", reader_.size()));
        return Close("bad request", now);
      case RequestReader::State::kDone:
        return OnRequest(now);
    }
  }
}

void Connection::OnRequest(u64 now) {
  Event event = Tell("request");
  reader_.Describe(&event);
  Emit(event);
  game_ = reader_.game();
  request_at_ = now;
  deadline_ = Pipe::kNever;
  state_ = State::kServing;
  const Behaviour& behaviour = *node_->behaviour;
  switch (behaviour.on_request) {
    case Behaviour::kSilent:
      state_ = State::kMute;
      return;
    case Behaviour::kCloseThen:
      return Close("as told, after the request", now);
    case Behaviour::kResetThen:
      return Reset("as told, after the request", now);
    case Behaviour::kGarbage:
      state_ = State::kMute;
      return Begin(MakeGarbage(static_cast<std::size_t>(behaviour.garbage_bytes)), now);
    default:
      break;
  }
  if (behaviour.result != 0) return BeginAnswer(static_cast<int>(behaviour.result), now);
  ConnectToServer(now);
  if (!closed() && behaviour.answer_when == Behaviour::kAtOnce && answer_ == Answer::kOpen)
    BeginAnswer(0, now);
}

// --- the game server ------------------------------------------------------------------------

void Connection::ConnectToServer(u64 now) {
  server_state_ = Server::kConnecting;
  if (node_->behaviour->server == Behaviour::kHang) return;
  if (node_->behaviour->server == Behaviour::kRefuse) return OnServerFailed(WSAECONNREFUSED, now);
  if (node_->IsOwn(game_)) return OnServerFailed(WSAEACCES, now);
  connect_by_ = now + node_->limits.connect_ms;
  server_ = Socket::Stream();
  if (!server_.open()) return OnServerFailed(WSAGetLastError(), now);
  if (node_->source_ip != 0) {
    const sockaddr_in source = Address{node_->source_ip, 0}.Raw();
    if (bind(server_.get(), reinterpret_cast<const struct sockaddr*>(&source), sizeof source) != 0)
      return OnServerFailed(WSAGetLastError(), now);
  }
  const int error = StartConnect(server_.get(), game_);
  if (error == 0) return OnServerConnected(now);
  if (error != WSAEWOULDBLOCK) OnServerFailed(error, now);
}

void Connection::WatchServer(const Readiness& ready, u64 now) {
  if (ready.except) return OnServerFailed(PendingError(server_.get()), now);
  if (ready.write) {
    const int error = PendingError(server_.get());
    return error == 0 ? OnServerConnected(now) : OnServerFailed(error, now);
  }
  if (now >= connect_by_) OnServerFailed(WSAETIMEDOUT, now);
}

void Connection::OnServerConnected(u64 now) {
  server_state_ = Server::kConnected;
  active_at_ = now;
  Emit(Tell("connected")
           .With("server", game_.Text())
           .With("from", server_.Local().Text())
           .With("after_ms", now - request_at_));
  if (answer_ == Answer::kOpen) BeginAnswer(0, now);
}

void Connection::OnServerFailed(int error, u64 now) {
  server_state_ = Server::kFailed;
  server_.Close();
  Emit(Tell("server_failed").With("server", game_.Text()).With("error", static_cast<u64>(error)));
  if (answer_ != Answer::kOpen) return Reset("the game server cannot be reached", now);
  if (node_->behaviour->refused_result == 0) return Close("the game server cannot be reached", now);
  BeginAnswer(static_cast<int>(node_->behaviour->refused_result), now);
}

// --- the answer -----------------------------------------------------------------------------

void Connection::BeginAnswer(int result, u64 now) {
  token_ = node_->MakeToken();
  result_ = static_cast<u8>(result);
  Begin(MakeAnswer(*node_->behaviour, result_, token_, node_->own, peer_), now);
  if (result_ != 0) server_.Close();
}

void Connection::Begin(std::string bytes, u64 now) {
  answer_bytes_ = std::move(bytes);
  answer_ = Answer::kGoing;
  answer_due_ = request_at_ + static_cast<u64>(node_->behaviour->answer_delay_ms);
  if (answer_due_ <= now) SendAnswer(now);
}

void Connection::SendAnswer(u64 now) {
  while (answer_due_ <= now && answer_sent_ < answer_bytes_.size() && !answer_blocked_) {
    const std::size_t left = answer_bytes_.size() - answer_sent_;
    const auto split = static_cast<std::size_t>(node_->behaviour->split_bytes);
    const std::size_t piece = split == 0 ? left : std::min(left, split);
    const int count =
        send(client_.get(), answer_bytes_.data() + answer_sent_, static_cast<int>(piece), 0);
    if (count == SOCKET_ERROR) {
      const int error = WSAGetLastError();
      if (error != WSAEWOULDBLOCK) return Reset("client error " + std::to_string(error), now);
      answer_blocked_ = true;
      return;
    }
    answer_sent_ += static_cast<std::size_t>(count);
    if (split != 0) answer_due_ = now + static_cast<u64>(node_->behaviour->split_gap_ms);
  }
  if (answer_due_ > now && answer_sent_ < answer_bytes_.size()) return;
  if (answer_sent_ == answer_bytes_.size()) OnAnswered(now);
}

void Connection::OnAnswered(u64 now) {
  answer_ = Answer::kSent;
  answer_due_ = Pipe::kNever;
  if (state_ == State::kMute) {
    Emit(Tell("answered").With("garbage", answer_bytes_.size()));
    return;
  }
  Emit(Tell("answered")
           .With("result", result_)
           .With("version", static_cast<u64>(node_->behaviour->answer_version))
           .With("isp", static_cast<u64>(node_->behaviour->isp))
           .With("token", token_)
           .With("bytes", answer_bytes_.size())
           .With("after_ms", now - request_at_));
  if (result_ == 0) return;
  state_ = State::kRefused;
  deadline_ = now + node_->limits.end_ms;
  shutdown(client_.get(), SD_SEND);
}

// Data from a client that has been refused is dropped; only its close matters.
void Connection::Discard(u64 now) {
  char bytes[4096];
  const int count = recv(client_.get(), bytes, sizeof bytes, 0);
  if (count > 0) return;
  if (count == 0) return Close(result_ != 0 ? "refused" : "the client left", now);
  const int error = WSAGetLastError();
  if (error != WSAEWOULDBLOCK) Reset("client error " + std::to_string(error), now);
}

// --- the bytes ------------------------------------------------------------------------------

void Connection::Serve(const Readiness& client, const Readiness& server, u64 now) {
  if (client.write) answer_blocked_ = false;
  if (server_state_ == Server::kConnecting && server_.open()) WatchServer(server, now);
  if (!closed() && answer_ == Answer::kGoing) SendAnswer(now);
  if (closed() || state_ != State::kServing) return;

  const Behaviour& behaviour = *node_->behaviour;
  const auto to_server = static_cast<u32>(behaviour.delay_to_server_ms);
  const auto to_client = static_cast<u32>(behaviour.delay_to_client_ms);
  if (!carrying()) {
    // Early bytes wait for the server; a client that ends now has given up.
    const int error = client.read ? up_.Read(client_.get(), now, to_server) : 0;
    if (error != 0) return Reset("client error " + std::to_string(error), now);
    if (up_.ended() && answer_ != Answer::kSent)
      Close("the client left before it had its answer", now);
    return;
  }
  if (!Carry(&up_, client_.get(), server_.get(), client.read, to_server, now)) return;
  if (!Carry(&down_, server_.get(), client_.get(), server.read, to_client, now)) return;
  CheckEnd(now);
}

bool Connection::Carry(Pipe* pipe, SOCKET from, SOCKET to, bool readable, u32 delay_ms, u64 now) {
  const u64 sent = pipe->sent();
  const char* const source = pipe == &up_ ? "client" : "server";
  const char* const destination = pipe == &up_ ? "server" : "client";
  // After an error of the source, what it sent before is still delivered as far as possible; the
  // reset that follows is the only way to tell the other side that there was more.
  const int read_error = readable ? pipe->Read(from, now, delay_ms) : 0;
  const int write_error = pipe->Write(to, now, Budget());
  if (pipe->sent() != sent) active_at_ = now;
  if (read_error != 0) {
    Reset(std::string(source) + " error " + std::to_string(read_error), now);
  } else if (write_error != 0) {
    Reset(std::string(destination) + " error " + std::to_string(write_error), now);
  } else if (Budget() == 0) {
    Reset("as told, after so many bytes", now);
  }
  return !closed();
}

u64 Connection::Budget() const {
  const std::int64_t most = node_->behaviour->reset_after_bytes;
  if (most < 0) return Pipe::kNever;
  const u64 carried = up_.sent() + down_.sent();
  return carried >= static_cast<u64>(most) ? 0 : static_cast<u64>(most) - carried;
}

void Connection::CheckEnd(u64 now) {
  if (up_.finished() && down_.finished()) return Close("both sides ended", now);
  const bool half = up_.ended() || down_.ended();
  if (half && now - active_at_ >= node_->limits.half_close_ms)
    Reset("one side ended long ago, the other is silent", now);
}

// --- the end --------------------------------------------------------------------------------

void Connection::Close(const std::string& reason, u64 now) {
  if (closed()) return;
  client_.Close();
  server_.Close();
  End("closed", reason, now);
}

void Connection::Reset(const std::string& reason, u64 now) {
  if (closed()) return;
  client_.Abort();
  server_.Abort();
  End("reset", reason, now);
}

void Connection::End(const char* how, const std::string& reason, u64 now) {
  state_ = State::kClosed;
  Emit(Tell("closed")
           .With("how", how)
           .With("reason", reason)
           .With("bytes_to_server", up_.sent())
           .With("bytes_to_client", down_.sent())
           .With("after_ms", now - accepted_at_));
}

Event Connection::Tell(const char* name) const { return Event{name}.With("connection", id_); }

Event Connection::Describe() const {
  static constexpr const char* kStates[] = {"request", "serving", "mute", "refused", "closed"};
  Event event = Tell("connection");
  event.With("client", peer_.Text())
      .With("state", carrying() ? "carrying" : kStates[static_cast<int>(state_)]);
  if (game_.port != 0) event.With("game", game_.Text());
  return event.With("bytes_to_server", up_.sent()).With("bytes_to_client", down_.sent());
}

}  // namespace node
