#include "node/node.h"

#include <windows.h>

#include <algorithm>

namespace node {
namespace {

// After a failed accept or select, so that a node out of handles does not spin.
constexpr u32 kRestMs = 100;
constexpr int kAcceptsInARow = 32;
constexpr int kPortTries = 10;

u64 UnixTimeMs() {
  constexpr u64 kUnixEpoch = 116444736000000000;  // in the file time's units of 100 ns
  FILETIME time = {};
  GetSystemTimeAsFileTime(&time);
  const u64 ticks = u64{time.dwHighDateTime} << 32 | time.dwLowDateTime;
  return (ticks - kUnixEpoch) / 10000;
}

// The error of a listening socket whose own address cannot be found; 0 if it was. Clients of such a
// node would be told port 0.
int ErrorOfName(const Address& name) { return name.port != 0 ? 0 : WSAGetLastError(); }

std::string CannotListen(const Address& address, int error) {
  std::string reason = "error " + std::to_string(error);
  if (error == WSAEADDRINUSE) reason = "the port is taken";
  if (error == WSAEADDRNOTAVAIL) reason = "this machine has no such address";
  if (error == WSAEACCES) reason = "no permission, or another program owns the port";
  return "cannot listen on " + address.Text() + ": " + reason;
}

}  // namespace

Node::Node(NodeOptions options, EventSink sink, Behaviour* behaviour)
    : options_(std::move(options)),
      sink_(std::move(sink)),
      own_behaviour_(options_.behaviour),
      behaviour_(behaviour != nullptr ? behaviour : &own_behaviour_),
      control_(MakeControlTarget()) {
  context_.behaviour = behaviour_;
  context_.limits = options_.limits;
  context_.metrics = options_.metrics.value_or(Address{});
  context_.emit = [this](const Event& event) { Emit(event); };
}

Node::~Node() {
  CloseAll(false, "the node ends");
  flows_.CloseAll("the node ends", Now());
}

bool Node::Start(std::string* problem) {
  if (!StartPorts(problem)) return false;
  const Address& own = context_.own;
  context_.source_ip = options_.source_ip.value_or(own.loopback() ? 0 : own.ip);
  if (options_.control && !StartControl(*options_.control, problem)) return false;
  Event event{"listening"};
  event.With("address", own.Text()).With("data", context_.data.Text());
  if (control_.listening()) event.With("control", context_.control.Text());
  if (options_.metrics) event.With("metrics", options_.metrics->Text());
  Emit(event);
  return true;
}

bool Node::StartPorts(std::string* problem) {
  int error = 0;
  // If any port will do, one that is free for connections may be taken for datagrams.
  for (int tries = options_.listen.port == 0 ? kPortTries : 1; tries > 0; --tries) {
    Address address = options_.listen;
    if (TryPorts(&address, &error)) return true;
    *problem = CannotListen(address, error);
  }
  return false;
}

bool Node::TryPorts(Address* address, int* error) {
  listener_ = Socket::Listener(*address, error);
  if (*error != 0) return false;
  context_.own = listener_.Local();
  *error = ErrorOfName(context_.own);
  if (*error != 0) return false;
  *address = context_.own;
  *error = negotiation_.Listen(*address);
  if (*error != 0) return false;
  *address = {address->ip, options_.data_port};
  *error = data_.Listen(*address);
  if (*error != 0) return false;
  context_.data = data_.Local();
  *error = ErrorOfName(context_.data);
  return *error == 0;
}

bool Node::StartControl(const Address& address, std::string* problem) {
  int error = control_.Listen(address);
  if (error == 0) {
    context_.control = control_.Local();
    error = ErrorOfName(context_.control);
  }
  if (error != 0) *problem = CannotListen(address, error);
  return error == 0;
}

ControlTarget Node::MakeControlTarget() {
  return {.behaviour = behaviour_,
          .initial = options_.behaviour,
          .connections =
              [this] {
                std::vector<Event> all;
                for (const auto& connection : connections_)
                  if (!connection->closed()) all.push_back(connection->Describe());
                return all;
              },
          .close_all = [this](bool reset) { return CloseAll(reset, "as told, by a command"); },
          .flows =
              [this] {
                std::vector<Event> all;
                for (const auto& flow : flows_.all()) all.push_back(flow->Describe("flow"));
                return all;
              },
          .forget_flows = [this] { return flows_.CloseAll("as told, by a command", Now()); },
          .stop = [this] { stop_asked_ = true; }};
}

void Node::Emit(const Event& event) {
  Event numbered{event.name};
  numbered.With("number", ++events_).With("time_ms", UnixTimeMs());
  numbered.fields.insert(numbered.fields.end(), event.fields.begin(), event.fields.end());
  sink_(numbered);
}

u64 Node::WantAll(u64 now, u64 due) {
  poller_.Clear();
  if (now < accept_again_at_) {
    due = std::min(due, accept_again_at_);
  } else {
    poller_.Want(listener_.get(), {.read = connections_.size() < context_.limits.connections});
  }
  control_.Want(&poller_);
  if (behaviour_->freeze != 0) return due;
  for (const auto& connection : connections_) connection->Want(&poller_, now, &due);
  negotiation_.Want(&poller_, &due);
  data_.Want(&poller_, now, &due);
  return std::min(due, flows_.NextIdle());
}

void Node::Step(u32 most_ms) {
  u64 now = Now();
  const u64 due = WantAll(now, now + most_ms);
  if (!poller_.Wait(static_cast<u32>(due > now ? due - now : 0))) {
    Emit(Event{"error"}.With("what", "select").With("error", static_cast<u64>(WSAGetLastError())));
    Sleep(kRestMs);
    return;
  }
  now = Now();
  // A new connection comes last: its handle may be one that was closed a moment ago, and what
  // the poller knows of that handle is not about it. (For a datagram socket that costs no more
  // than a read of nothing.)
  const bool somebody = poller_.Of(listener_.get()).read;
  if (behaviour_->freeze == 0) {
    for (const auto& connection : connections_) connection->Step(poller_, now);
    data_.Step(poller_, now);
    negotiation_.Step(poller_, now);
    flows_.CloseIdle(now);
  }
  control_.Step(poller_);
  connections_.remove_if([](const auto& connection) { return connection->closed(); });
  if (somebody) Accept(now);
}

void Node::Accept(u64 now) {
  for (int i = 0; i < kAcceptsInARow && connections_.size() < context_.limits.connections; ++i) {
    sockaddr_in raw = {};
    int size = sizeof raw;
    Socket client(accept(listener_.get(), reinterpret_cast<struct sockaddr*>(&raw), &size));
    if (!client.open()) {
      const int error = WSAGetLastError();
      if (error == WSAEWOULDBLOCK) return;
      // A client that was gone before it was accepted is no error.
      if (error == WSAECONNRESET || error == WSAECONNABORTED) continue;
      Emit(Event{"error"}.With("what", "accept").With("error", static_cast<u64>(error)));
      accept_again_at_ = now + kRestMs;
      return;
    }
    if (PrepareStream(client.get()) != 0) continue;
    connections_.push_back(std::make_unique<Connection>(&context_, next_id_++, std::move(client),
                                                        Address::Of(raw), now));
  }
  connections_.remove_if([](const auto& connection) { return connection->closed(); });
}

StreamBytes Node::OpenStreamBytes() const {
  StreamBytes all;
  for (const auto& connection : connections_) {
    if (connection->closed()) continue;  // its last event has told
    all.to_server += connection->bytes_to_server();
    all.to_client += connection->bytes_to_client();
  }
  return all;
}

FlowCounts Node::OpenFlowCounts() const {
  FlowCounts all;
  for (const auto& flow : flows_.all())
    for (const FlowCountRow& row : FlowCountRows()) all.*row.member += flow->counts.*row.member;
  return all;
}

u64 Node::CloseAll(bool reset, const std::string& reason) {
  const u64 now = Now();
  u64 count = 0;
  for (const auto& connection : connections_) {
    if (connection->closed()) continue;
    ++count;
    if (reset) {
      connection->Reset(reason, now);
    } else {
      connection->Close(reason, now);
    }
  }
  return count;
}

}  // namespace node
