#include "node/negotiation.h"

#include <algorithm>
#include <array>

#include "node/answer.h"

namespace node {
namespace {

constexpr std::size_t kMostGarbage = 65000;  // what a datagram can hold

}  // namespace

int Negotiation::Listen(const Address& address) {
  int error = 0;
  socket_ = Socket::Datagram(address, &error);
  if (error == 0) other_ = Socket::Datagram({address.ip, 0}, &error);
  return error;
}

void Negotiation::Close() {
  socket_.Close();
  other_.Close();
}

void Negotiation::Want(Poller* poller, u64* due) const {
  poller->Want(socket_.get(), {.read = true});
  for (const Answer& answer : waiting_) *due = std::min(*due, answer.due);
}

void Negotiation::Step(const Poller& poller, u64 now) {
  if (poller.Of(socket_.get()).read) Receive(now);
  SendAnswers(now);
}

// --- the request ----------------------------------------------------------------------------

void Negotiation::Receive(u64 now) {
  std::array<char, RequestReader::kMaxRequest + 1> bytes;
  for (int i = 0; i < kInARow; ++i) {
    std::size_t size = 0;
    Address client;
    const int error = ReceiveFrom(socket_.get(), bytes.data(), bytes.size(), &size, &client);
    if (error == WSAEWOULDBLOCK) return;
    if (error != 0) continue;  // a datagram too long, or a client that is gone
    RequestReader reader;
    if (reader.TakeDatagram(bytes.data(), size) == RequestReader::State::kDone) {
      OnRequest(reader, client, now);
    } else {
      node_->emit(Event{"bad_request"}
                      .With("client", client.Text())
                      .With("problem", reader.problem())
                      .With("bytes", size));
    }
  }
}

void Negotiation::OnRequest(const RequestReader& reader, const Address& client, u64 now) {
  Event event = Event{"request"}.With("client", client.Text());
  reader.Describe(&event);
  node_->emit(event);
  const Behaviour& behaviour = *node_->behaviour;
  if (behaviour.on_accept != Behaviour::kServe) return;
  switch (behaviour.on_request) {
    case Behaviour::kAnswer:
      break;
    case Behaviour::kGarbage: {
      const auto wanted = static_cast<std::size_t>(behaviour.garbage_bytes);
      std::string bytes = MakeGarbage(std::min(wanted, kMostGarbage));
      Event answered = Event{"answered"}.With("garbage", bytes.size());
      return Queue(std::move(bytes), std::move(answered), client, now);
    }
    default:
      return;  // for a datagram, "close" and "reset" mean no answer
  }
  if (behaviour.result != 0)
    return AnswerWith(static_cast<u8>(behaviour.result), node_->MakeToken(), 0, client, now);
  Accept(reader, client, now);
}

void Negotiation::Accept(const RequestReader& reader, const Address& client, u64 now) {
  if (node_->behaviour->server == Behaviour::kRefuse)
    return CannotServe(reader, client, WSAECONNREFUSED, now);
  if (node_->IsOwn(reader.game())) return CannotServe(reader, client, WSAEACCES, now);
  int error = 0;
  Flow* const flow = flows_->Open(client, reader.request().body, now, &error);
  if (flow == nullptr) return CannotServe(reader, client, error, now);
  AnswerWith(0, flow->token, flow->id, client, now);
}

void Negotiation::CannotServe(const RequestReader& reader, const Address& client, int error,
                              u64 now) {
  node_->emit(Event{"server_failed"}
                  .With("client", client.Text())
                  .With("server", reader.game().Text())
                  .With("error", static_cast<u64>(error)));
  const auto result = static_cast<u8>(node_->behaviour->refused_result);
  if (result != 0) AnswerWith(result, node_->MakeToken(), 0, client, now);
}

// --- the answer -----------------------------------------------------------------------------

// A node that listens on all addresses tells each client the one that the system would use.
Address Negotiation::DataAddressFor(const Address& client) const {
  if (node_->data.ip != 0) return node_->data;
  int error = 0;
  const Socket probe = Socket::Datagram({0, 0}, &error);
  if (!probe.open() || StartConnect(probe.get(), client) != 0) return node_->data;
  return {probe.Local().ip, node_->data.port};
}

void Negotiation::AnswerWith(u8 result, u32 token, u64 flow, const Address& client, u64 now) {
  const Behaviour& behaviour = *node_->behaviour;
  std::string bytes = MakeAnswer(behaviour, result, token, DataAddressFor(client), client);
  Event event{"answered"};
  if (flow != 0) event.With("flow", flow);
  event.With("client", client.Text())
      .With("result", result)
      .With("version", static_cast<u64>(behaviour.answer_version))
      .With("isp", static_cast<u64>(behaviour.isp))
      .With("token", token)
      .With("bytes", bytes.size());
  Queue(std::move(bytes), std::move(event), client, now);
}

void Negotiation::Queue(std::string bytes, Event event, const Address& client, u64 now) {
  if (waiting_.size() >= kMostWaiting) return;
  const u64 due = now + static_cast<u64>(node_->behaviour->answer_delay_ms);
  waiting_.push_back({.due = due,
                      .asked_at = now,
                      .client = client,
                      .bytes = std::move(bytes),
                      .event = std::move(event)});
}

void Negotiation::SendAnswers(u64 now) {
  const Behaviour& behaviour = *node_->behaviour;
  const Socket& from = behaviour.answer_from == Behaviour::kOther ? other_ : socket_;
  for (Answer& answer : waiting_) {
    if (answer.due > now) continue;
    for (std::int64_t i = 0; i < behaviour.answers; ++i)
      SendTo(from.get(), answer.bytes.data(), answer.bytes.size(), answer.client);
    node_->emit(answer.event.With("after_ms", now - answer.asked_at));
  }
  std::erase_if(waiting_, [now](const Answer& answer) { return answer.due <= now; });
}

}  // namespace node
