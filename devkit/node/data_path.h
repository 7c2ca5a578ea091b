// The port for the datagrams of all flows: wrapped towards clients, bare towards game servers, with
// the impairments of their lane.
#pragma once
#include <vector>

#include "node/datagram.h"
#include "node/delay_line.h"
#include "node/flow_table.h"
#include "node/poller.h"

namespace node {

class DataPath {
 public:
  DataPath(NodeContext* node, FlowTable* flows);

  // 0 or the error.
  int Listen(const Address& address);
  void Close();
  Address Local() const { return socket_.Local(); }

  void Want(Poller* poller, u64 now, u64* due) const;
  void Step(const Poller& poller, u64 now);

 private:
  static constexpr std::size_t kRoom = 64 * 1024;

  // From the client to the game server.
  void ReceiveFromClients(u64 now);
  void OnDatagram(const char* bytes, std::size_t size, const Address& client, u64 now);
  void Arrive(Flow* flow, const ClientDatagram& datagram, const char* bytes, std::size_t size,
              u64 now);
  void Forward(Flow* flow, const ClientDatagram& datagram, u64 now);
  void DropUnknown(const char* problem, const Address& client, u64 now);
  // From the game server to the client.
  void ReceiveFromServers(Flow* flow, u64 now);
  void SendUnasked(Flow* flow, u64 now);
  void Wrap(Flow* flow, const Address& source, const char* payload, std::size_t size, u64 now);
  void AnswerProbe(Flow* flow, const char* bytes, std::size_t size, u64 now);
  void Return(Flow* flow, Flow::LaneName lane, const char* bytes, std::size_t size, u64 extra_ms,
              u64 now);
  void Depart(Flow* flow, const char* bytes, std::size_t size);
  void Hold(Flow* flow, u64 due, Parcel parcel);
  // Passes the hop between two relays that many times, if there are two. False if it is lost there.
  bool CrossHop(Flow* flow, int times, u64* extra_ms);
  void Delayed(u64 now);

  NodeContext* const node_;
  FlowTable* const flows_;
  Socket socket_;
  Socket other_;  // an address that no client knows
  DelayLine line_;
  std::vector<char> in_;   // what was read, with room for a header in front
  std::vector<char> out_;  // what is written
  u64 unknown_ = 0;        // datagrams that belong to no flow, since the last event about it
  u64 tell_unknown_at_ = 0;
};

}  // namespace node
