// The port at which datagram flows begin: receives requests, and answers when and how the behaviour
// says.
#pragma once
#include <vector>

#include "node/flow_table.h"
#include "node/poller.h"
#include "node/request_reader.h"

namespace node {

class Negotiation {
 public:
  Negotiation(NodeContext* node, FlowTable* flows) : node_(node), flows_(flows) {}

  // 0 or the error.
  int Listen(const Address& address);
  void Close();

  void Want(Poller* poller, u64* due) const;
  void Step(const Poller& poller, u64 now);

 private:
  static constexpr std::size_t kMostWaiting = 4096;  // answers

  struct Answer {
    u64 due = 0;
    u64 asked_at = 0;
    Address client = {};
    std::string bytes = {};
    Event event = {};
  };

  void Receive(u64 now);
  void OnRequest(const RequestReader& reader, const Address& client, u64 now);
  void Accept(const RequestReader& reader, const Address& client, u64 now);
  void CannotServe(const RequestReader& reader, const Address& client, int error, u64 now);
  void AnswerWith(u8 result, u32 token, u64 flow, const Address& client, u64 now);
  void Queue(std::string bytes, Event event, const Address& client, u64 now);
  void SendAnswers(u64 now);
  Address DataAddressFor(const Address& client) const;

  NodeContext* const node_;
  FlowTable* const flows_;
  Socket socket_;
  Socket other_;  // an address that no client knows
  std::vector<Answer> waiting_;
};

}  // namespace node
