#include "node/data_path.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace node {

using namespace moru_vyr::lsp;

namespace {

constexpr u64 kUnknownEventMs =
    1000;  // a flood of stray datagrams must not become a flood of events

// From the block of addresses that belong to nobody.
constexpr Address kNobody = {0xC0000242, 666};
constexpr char kUnaskedText[] = "nobody asked for this";

void EmitFirst(NodeContext* node, const Flow& flow, const char* direction, u64 now) {
  Event event = flow.Tell("first_data");
  event.With("direction", direction).With("token", flow.token);
  flow.DescribeOrigin(&event);
  node->emit(event.With("after_ms", now - flow.opened_at));
}

}  // namespace

DataPath::DataPath(NodeContext* node, FlowTable* flows)
    : node_(node), flows_(flows), in_(kLongestHeader + kRoom), out_(kLongestHeader + kRoom) {}

int DataPath::Listen(const Address& address) {
  int error = 0;
  socket_ = Socket::Datagram(address, &error);
  if (error == 0) other_ = Socket::Datagram({address.ip, 0}, &error);
  return error;
}

void DataPath::Close() {
  socket_.Close();
  other_.Close();
}

void DataPath::Want(Poller* poller, u64 now, u64* due) const {
  poller->Want(socket_.get(), {.read = true});
  const auto unasked = static_cast<u64>(node_->behaviour->unasked_ms);
  for (const auto& flow : flows_->all()) {
    poller->Want(flow->upstream.get(), {.read = true});
    if (unasked != 0) *due = std::min(*due, flow->next_unasked == 0 ? now : flow->next_unasked);
  }
  *due = std::min(*due, line_.NextDue());
}

void DataPath::Step(const Poller& poller, u64 now) {
  for (const auto& flow : flows_->all()) {
    if (poller.Of(flow->upstream.get()).read) ReceiveFromServers(flow.get(), now);
    SendUnasked(flow.get(), now);
  }
  Delayed(now);
  if (poller.Of(socket_.get()).read) ReceiveFromClients(now);
}

void DataPath::Delayed(u64 now) {
  for (Parcel parcel; line_.Take(now, &parcel);) {
    Flow* const flow = flows_->Find(parcel.flow);
    if (flow == nullptr) continue;
    if (!parcel.is_copy) --flow->held[parcel.lane];
    const char* const bytes = parcel.bytes.data();
    const std::size_t size = parcel.bytes.size();
    ClientDatagram datagram;
    if (parcel.lane == Flow::kDataDown || parcel.lane == Flow::kProbeDown) {
      Depart(flow, bytes, size);
    } else if (ReadDatagram(bytes, size, &datagram) == nullptr) {
      Arrive(flow, datagram, bytes, size, now);
    }
  }
}

void DataPath::Hold(Flow* flow, u64 due, Parcel parcel) {
  const Flow::LaneName lane = parcel.lane;
  const bool is_copy = parcel.is_copy;
  if (line_.Add(due, std::move(parcel)) && !is_copy) ++flow->held[lane];
}

bool DataPath::CrossHop(Flow* flow, int times, u64* extra_ms) {
  if (node_->behaviour->relays < 2) return true;
  const Impairment hop = ImpairmentOf(*node_->behaviour, Flow::kHop);
  bool lost = false;
  for (int i = 0; i < times; ++i) lost = flow->lanes[Flow::kHop].Rolls(hop.loss) || lost;
  *extra_ms += static_cast<u64>(times) * hop.delay_ms;
  return !lost;
}

// --- from clients ---------------------------------------------------------------------------

void DataPath::ReceiveFromClients(u64 now) {
  for (int i = 0; i < kInARow; ++i) {
    std::size_t size = 0;
    Address client;
    const int error = ReceiveFrom(socket_.get(), in_.data(), in_.size(), &size, &client);
    if (error == WSAEWOULDBLOCK) return;
    if (error == 0) OnDatagram(in_.data(), size, client, now);
  }
}

void DataPath::DropUnknown(const char* problem, const Address& client, u64 now) {
  ++unknown_;
  if (now < tell_unknown_at_) return;
  node_->emit(Event{"dropped"}
                  .With("problem", problem)
                  .With("client", client.Text())
                  .With("datagrams", unknown_));
  unknown_ = 0;
  tell_unknown_at_ = now + kUnknownEventMs;
}

void DataPath::OnDatagram(const char* bytes, std::size_t size, const Address& client, u64 now) {
  ClientDatagram datagram;
  const char* const problem = ReadDatagram(bytes, size, &datagram);
  if (problem != nullptr) return DropUnknown(problem, client, now);
  Flow* const flow = flows_->Find(datagram.header.accl_token, client);
  if (flow == nullptr) return DropUnknown("no flow of this client has its token", client, now);

  const bool probe = datagram.header.flags == kUdpAcclSpeedTest;
  const Flow::LaneName lane = probe ? Flow::kProbeUp : Flow::kDataUp;
  const Fate fate =
      flow->lanes[lane].Decide(ImpairmentOf(*node_->behaviour, lane), now, node_->clock.Since(now));
  u64 extra_ms = 0;
  // The first of two relays answers a probe itself, so a probe crosses the hop only later.
  if (fate.copies == 0 || (!probe && !CrossHop(flow, 1, &extra_ms))) {
    ++(probe ? flow->counts.dropped_probes : flow->counts.dropped_up);
    return;
  }
  const u64 id = flow->id;
  for (int i = 0; i < fate.copies; ++i) {
    if (fate.due[i] + extra_ms > now) {
      Hold(flow, fate.due[i] + extra_ms, {id, lane, i > 0, std::string(bytes, size)});
    } else if (Flow* const still = flows_->Find(id)) {  // the first copy may have ended it
      Arrive(still, datagram, bytes, size, now);
    }
  }
}

void DataPath::Arrive(Flow* flow, const ClientDatagram& datagram, const char* bytes,
                      std::size_t size, u64 now) {
  flow->active_at = now;
  switch (datagram.header.flags) {
    case kUdpAcclEnd:
      return flows_->Close(flow, "the client ended it", now);
    case kUdpAcclSpeedTest:
      return AnswerProbe(flow, bytes, size, now);
    default:
      flow->lost_by_client = datagram.header.lost;
      flow->upload.Note(datagram.header.seq, now);
      return Forward(flow, datagram, now);
  }
}

void DataPath::Forward(Flow* flow, const ClientDatagram& datagram, u64 now) {
  const Address server = {datagram.header.game_ip, datagram.header.game_port};
  FlowCounts& counts = flow->counts;
  if (node_->behaviour->server != Behaviour::kConnect || !server.server() || node_->IsOwn(server)) {
    ++counts.undelivered;
    return;
  }
  flow->WritesTo(server.ip);
  if (SendTo(flow->upstream.get(), datagram.payload, datagram.payload_size, server) != 0) {
    ++counts.undelivered;
    return;
  }
  if (counts.datagrams_to_server++ == 0) EmitFirst(node_, *flow, "to_server", now);
  counts.bytes_to_server += datagram.payload_size;
}

// --- to clients -----------------------------------------------------------------------------

void DataPath::ReceiveFromServers(Flow* flow, u64 now) {
  for (int i = 0; i < kInARow; ++i) {
    std::size_t size = 0;
    Address source;
    char* const payload = out_.data() + kLongestHeader;
    const int error = ReceiveFrom(flow->upstream.get(), payload, kRoom, &size, &source);
    if (error == WSAEWOULDBLOCK) return;
    if (error != 0) continue;
    if (flow->HasWrittenTo(source.ip)) {
      Wrap(flow, source, payload, size, now);
    } else {
      ++flow->counts.strays;
    }
  }
}

void DataPath::SendUnasked(Flow* flow, u64 now) {
  const auto every = static_cast<u64>(node_->behaviour->unasked_ms);
  if (every == 0 || now < flow->next_unasked) return;
  flow->next_unasked = now + every;
  Wrap(flow, kNobody, kUnaskedText, sizeof kUnaskedText - 1, now);
}

void DataPath::Wrap(Flow* flow, const Address& source, const char* payload, std::size_t size,
                    u64 now) {
  const Behaviour& behaviour = *node_->behaviour;
  UdpAcclHeader header;
  header.seq = flow->next_seq++;
  header.accl_token = flow->token;
  header.game_ip = source.ip;
  header.game_port = source.port;
  header.lost = behaviour.lost < 0 ? flow->upload.Percent(now) : static_cast<u8>(behaviour.lost);
  if (flow->counts.datagrams_to_client++ == 0) EmitFirst(node_, *flow, "to_client", now);
  flow->counts.bytes_to_client += size;
  const std::size_t whole = WriteDatagram(behaviour, header, payload, size, out_.data());
  u64 extra_ms = 0;
  if (!CrossHop(flow, 1, &extra_ms)) {
    ++flow->counts.dropped_down;
    return;
  }
  Return(flow, Flow::kDataDown, out_.data(), whole, extra_ms, now);
}

void DataPath::AnswerProbe(Flow* flow, const char* bytes, std::size_t size, u64 now) {
  const Behaviour& behaviour = *node_->behaviour;
  ++flow->counts.probes;
  ClientDatagram probe;
  if (ReadDatagram(bytes, size, &probe) != nullptr) return;
  const auto answer = [&](u8 relay_idx, u64 extra_ms) {
    UdpAcclHeader header = probe.header;
    header.relay_idx = behaviour.relay_idx < 0 ? relay_idx : static_cast<u8>(behaviour.relay_idx);
    ++flow->counts.probe_answers;
    const std::size_t whole =
        WriteDatagram(behaviour, header, probe.payload, probe.payload_size, out_.data());
    Return(flow, Flow::kProbeDown, out_.data(), whole, extra_ms, now);
  };
  if (behaviour.relays < 2) return answer(0, 0);
  answer(1, 0);
  u64 extra_ms = 0;
  if (CrossHop(flow, 2, &extra_ms)) answer(2, extra_ms);
}

void DataPath::Return(Flow* flow, Flow::LaneName lane, const char* bytes, std::size_t size,
                      u64 extra_ms, u64 now) {
  const Fate fate =
      flow->lanes[lane].Decide(ImpairmentOf(*node_->behaviour, lane), now, node_->clock.Since(now));
  if (fate.copies == 0)
    ++(lane == Flow::kProbeDown ? flow->counts.dropped_probe_answers : flow->counts.dropped_down);
  for (int i = 0; i < fate.copies; ++i) {
    if (fate.due[i] + extra_ms > now) {
      Hold(flow, fate.due[i] + extra_ms, {flow->id, lane, i > 0, std::string(bytes, size)});
    } else {
      Depart(flow, bytes, size);
    }
  }
}

void DataPath::Depart(Flow* flow, const char* bytes, std::size_t size) {
  const Socket& from = node_->behaviour->data_from == Behaviour::kOther ? other_ : socket_;
  if (SendTo(from.get(), bytes, size, flow->client) != 0) ++flow->counts.undelivered;
}

}  // namespace node
