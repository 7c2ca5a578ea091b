// A relayed datagram socket from its request at the control port to its close, through every state
// of its flow (asking, carried, direct, moving to another node), while the nodes, a stranger and
// the game send what the input says. Whatever they send,
// - the game gets only what a node's data port has sent for it, unwrapped, or, once the flow is
//   direct, what anyone has sent; each no more often than it was sent, and under its own source,
// - a node gets the game's datagrams only, each once, under the token that this node gave, and with
//   a number of its own,
// - once the game has gone, nothing of the session is left, and meanwhile its memory is bounded.
#include <atomic>
#include <iterator>
#include <map>
#include <set>
#include <utility>
#include <vector>

#include "hand_script.h"
#include "protocol/nego_request.h"
#include "protocol/udp_accl_header.h"
#include "udp/udp_provider.h"
#include "udp/udp_remote_session.h"

namespace {

using namespace fuzz;

constexpr u32 kToken = 9;
constexpr std::size_t kHeaderSize = sizeof(UdpAcclHeader);

struct Datagram {
  std::string bytes;
  sockaddr_in from = {};
};

bool Take(SOCKET s, Datagram* out) {
  char bytes[4096];
  int size = sizeof out->from;
  const int n = recvfrom(s, bytes, sizeof bytes, 0, Raw(&out->from), &size);
  if (n < 0) return false;
  out->bytes.assign(bytes, static_cast<std::size_t>(n));
  return true;
}

void SendTo(SOCKET s, const std::string& bytes, const sockaddr_in& to) {
  if (to.sin_port == 0) return;
  sendto(s, bytes.data(), static_cast<int>(bytes.size()), 0, Raw(&to), sizeof to);
}

using Source = std::pair<u32, u16>;  // network order
Source SourceOf(const sockaddr_in& from) {
  return {static_cast<u32>(from.sin_addr.s_addr), from.sin_port};
}

struct Node {
  SOCKET nego = INVALID_SOCKET, data = INVALID_SOCKET;
  sockaddr_in asker = {};                 // the source of the last request
  sockaddr_in peer = {};                  // and of the last datagram to either port
  std::map<u32, int> tokens;              // given so far, and how often
  std::set<std::pair<u32, u32>> numbers;  // token and number of each datagram with data
  std::vector<std::string> probes;        // not yet answered
};

class Flow : public HandScript {
 public:
  explicit Flow(Input* input)
      : HandScript(input, Setting::From(input), {.steps = 160, .memory = 4 << 20}) {
    for (int i = 0; i < 2; ++i) {
      nodes_[i].nego = OpenSocket(SOCK_DGRAM, "127.0.0.1", kNodePorts[i]);
      nodes_[i].data = OpenSocket(SOCK_DGRAM, "127.0.0.1", kNodePorts[i] + 100);
    }
    for (int i = 0; i < 3; ++i) servers_[i] = OpenSocket(SOCK_DGRAM, kServer, kServerPort + i);
    stranger_ = OpenSocket(SOCK_DGRAM, "127.0.0.1", 7300);
    game_ = OpenSocket(SOCK_DGRAM, "127.0.0.1", 0);
    event_ = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    Require(provider_->Init(&relay_.loop, &relay_.route), "the control port");
    Asks(At(kServer, kServerPort));
    Require(relay_port_.sin_port != 0, "a socket gets a relay");
  }

 private:
  void Step() override {
    switch (in_.Byte() % 13) {
      case 0:
        return PassTime(u32{in_.Byte()} * 4);
      case 1:
        return PassTime(u32{in_.Byte()} * 40);
      case 2:
        return GameSends(in_.Byte(), in_.Word());
      case 3:
        return Answers(ChosenNode());
      case 4: {
        Node& node = ChosenNode();
        return Says(&node, in_.Bytes(in_.Byte()));
      }
      case 5:
        return NodeSends(&ChosenNode());
      case 6: {
        Node& node = ChosenNode();
        return NodeSendsRaw(&node, in_.Bytes(in_.Byte()));
      }
      case 7:
        return StrangerSends();
      case 8:
        return AnswersProbes(&ChosenNode());
      case 9:
        return Fires();
      case 10:
        return Asks(Destination(in_.Byte()));
      case 11:
        return Closes();
      default:
        server_sends_ = !server_sends_;
        return;
    }
  }

  Node& ChosenNode() { return nodes_[in_.Byte() % 2]; }

  static sockaddr_in Destination(u8 which) {
    if (which % 4 == 3) return At(kUnlisted, kServerPort);
    return At(kServer, kServerPort + which % 4);
  }

  sockaddr_in Control() const {
    sockaddr_in control;
    provider_->GetLocalAddr(&control);
    return control;
  }

  // The game's socket asks at the control port.
  void Asks(const sockaddr_in& destination) {
    const ProtoRelayOpen request = ProtoRelayOpen::Request(kToken, destination, event_, game_);
    SendTo(game_, {reinterpret_cast<const char*>(&request), sizeof request}, Control());
    relay_.loop.Turn();
    ProtoRelayOpen answer;
    if (!provider_->GetCreateResult(kToken, &answer) || !answer.opened()) return;
    relay_port_ = answer.address();
    Require(relay_port_.sin_addr.s_addr == htonl(INADDR_LOOPBACK), "the relay is on this host");
    if (answer.send_queue() != nullptr) send_queue_ = answer.send_queue();
    if (answer.recv_queue() != nullptr) recv_queue_ = answer.recv_queue();
    ports_[SourceOf(destination)] = relay_port_;
  }

  void GameSends(u8 where, u16 amount) {
    const sockaddr_in to = Destination(where);
    std::string bytes = "g" + std::to_string(++number_) + ":";
    bytes += Pattern(number_, amount % 1500);
    const auto queue = provider_->UseQueue(send_queue_, kToken);
    if (queue != nullptr) {
      queue->Push(bytes.data(), static_cast<u32>(bytes.size()), &to);
    } else {
      const auto port = ports_.find(SourceOf(to));
      if (port == ports_.end()) return;
      relay_port_ = port->second;
    }
    game_sent_.insert(bytes);
    if (SourceOf(to) == SourceOf(At(kUnlisted, kServerPort))) unseen_.insert(bytes);
    SendTo(game_, bytes, relay_port_);
  }

  void Answers(Node& node) {
    NegoResponse response = AnyAnswer(++given_);
    response.body.last_node.node_id = kLastNode;
    std::string wire = Packed(response);
    ChangeSome(&wire);
    wire.resize(wire.size() - in_.Byte() % 64 / 8);
    Says(&node, wire);
  }

  // From the port of negotiation. Whatever it is, it may be taken for an answer. The address of the
  // data port stays, because this node has no other.
  void Says(Node* node, std::string wire) {
    constexpr std::size_t kTokenAt = 11, kDataAt = 23, kAnswer = 29;
    if (wire.size() >= kAnswer) {
      const sockaddr_in data = NameOf(node->data);
      std::memcpy(wire.data() + kDataAt, &data.sin_addr.s_addr, 4);
      std::memcpy(wire.data() + kDataAt + 4, &data.sin_port, 2);
      u32 token = 0;
      std::memcpy(&token, wire.data() + kTokenAt, sizeof token);
      ++node->tokens[ntohl(token)];
    }
    AllowDirect(wire, NameOf(node->nego));
    SendTo(node->nego, wire, node->asker);
  }

  // A datagram as nodes make it, but for a few bytes.
  void NodeSends(Node* node) {
    UdpAcclHeader header;
    header.seq = in_.Word();
    header.flags = in_.Byte() % 4 == 0 ? in_.Byte() : u8{0};
    header.relay_idx = in_.Byte() % 4;
    header.accl_token = given_;
    header.game_ip = ntohl(static_cast<u32>(inet_addr(kServer)));
    header.game_port = static_cast<u16>(kServerPort + in_.Byte() % 3);
    header.lost = in_.Byte();
    std::string wire = Packed(header);
    ++number_;
    const std::string payload = "n" + std::to_string(number_) + ":" + Pattern(number_, in_.Byte());
    // The header is sometimes longer, most of all about as long as the whole datagram.
    const std::size_t lengths[] = {0, in_.Byte(), payload.size() - 1, payload.size(),
                                   payload.size() + 1};
    wire[1] = static_cast<char>(kHeaderSize + lengths[in_.Byte() % std::size(lengths)]);
    if (in_.Byte() % 8 == 0) wire[in_.Byte() % kHeaderSize] = static_cast<char>(in_.Byte());
    wire += payload;
    NodeSendsRaw(node, wire);
  }

  void NodeSendsRaw(Node* node, const std::string& wire) {
    if (node->peer.sin_port == 0) return;
    // By the bytes alone: the header says where the payload begins, and whose it is.
    if (wire.size() >= kHeaderSize) {
      const std::size_t begin = static_cast<u8>(wire[1]);
      u32 ip = 0;
      u16 port = 0;
      std::memcpy(&ip, wire.data() + 12, sizeof ip);
      std::memcpy(&port, wire.data() + 16, sizeof port);
      if (begin >= kHeaderSize && begin <= wire.size()) Allow(wire.substr(begin), {ip, port});
    }
    AllowDirect(wire, NameOf(node->data));
    SendTo(node->data, wire, node->peer);
  }

  void StrangerSends() {
    UdpAcclHeader header;
    header.seq = in_.Word();
    header.accl_token = given_;
    std::string wire = in_.Byte() % 2 == 0 ? Packed(header) : in_.Bytes(in_.Byte());
    wire += "s" + std::to_string(++number_);
    AllowDirect(wire, NameOf(stranger_));
    sockaddr_in relay = nodes_[0].peer;
    if (relay.sin_port == 0) relay = relay_port_;
    SendTo(stranger_, wire, relay);
  }

  void Allow(const std::string& payload, const Source& source) { ++allowed_[{payload, source}]; }
  void AllowDirect(const std::string& whole, const sockaddr_in& from) {
    ++allowed_if_direct_[{whole, SourceOf(from)}];
  }

  void AnswersProbes(Node* node) {
    const u8 relay_idx = in_.Byte() % 4;
    const bool is_late = in_.Byte() % 4 == 0;
    for (std::string& probe : node->probes) {
      probe[3] = static_cast<char>(relay_idx);
      if (is_late && probe.size() > kHeaderSize) probe[probe.size() - 2] ^= 1;
      NodeSendsRaw(node, probe);
    }
    node->probes.clear();
  }

  // Asks for another node, as the judge of the link does: of a flow that a node carries.
  void Fires() {
    if (is_closed_) return;
    RecoverySwitchRecord report;
    report.used = report.need_switch = 1;
    report.game_id = 7;
    for (const auto& [s, delegate] : relay_.loop.delegates) {
      auto* const session = dynamic_cast<UdpRemoteSession*>(delegate);
      if (session == nullptr || nodes_[0].numbers.size() + nodes_[1].numbers.size() == 0) continue;
      session->FireSwitch(report);
      return;
    }
  }

  void PassTime(u32 ms) {
    Sleep(ms);
    relay_.loop.Turn();
    provider_->OnUpdate(ms);
  }

  void Pump() override {
    relay_.loop.Turn();
    Datagram one;
    for (Node& node : nodes_) {
      while (Take(node.nego, &one)) TakeRequest(&node, one);
      while (Take(node.data, &one)) TakeWrapped(&node, one);
    }
    for (const SOCKET server : servers_) {
      while (Take(server, &one)) TakeAtServer(server, one);
    }
    relay_.loop.Turn();
    while (Take(game_, &one)) TakeAtGame(one);
  }

  void TakeAtServer(SOCKET server, const Datagram& one) {
    Require(game_sent_.contains(one.bytes), "the server gets what the game sent");
    is_direct_ = true;
    if (!server_sends_) return;
    AllowDirect(one.bytes, NameOf(server));
    SendTo(server, one.bytes, one.from);
  }

  static void TakeRequest(Node* node, const Datagram& one) {
    NegoRequest request;
    const auto* const bytes = reinterpret_cast<const u8*>(one.bytes.data());
    Require(one.bytes.size() == sizeof request &&
                request.Unpack({bytes, one.bytes.size()}) == sizeof request,
            "a request");
    node->asker = node->peer = one.from;
  }

  void TakeWrapped(Node* node, const Datagram& one) {
    UdpAcclHeader header;
    const auto* const bytes = reinterpret_cast<const u8*>(one.bytes.data());
    Require(header.Unpack({bytes, one.bytes.size()}) == kHeaderSize, "a header");
    Require(node->tokens.contains(header.accl_token), "the token that this node gave");
    node->peer = one.from;
    if (header.flags == kUdpAcclSpeedTest) {
      node->probes.push_back(one.bytes);
    } else if (header.flags == kUdpAcclData) {
      const std::string payload = one.bytes.substr(kHeaderSize);
      Require(game_sent_.contains(payload), "a node gets what the game sent");
      Require(carried_.insert(payload).second, "and once");
      unseen_.erase(payload);
      const bool is_new = node->numbers.emplace(header.accl_token, header.seq).second;
      Require(is_new || node->tokens[header.accl_token] > 1, "a number of its own");
    } else {
      Require(header.flags == kUdpAcclEnd && one.bytes.size() == kHeaderSize, "an end");
    }
  }

  void TakeAtGame(const Datagram& one) {
    sockaddr_in source = {};
    if (const auto queue = provider_->UseQueue(recv_queue_, kToken); queue != nullptr) {
      Require(
          queue->FindAddrThenRemove(one.bytes.data(), static_cast<u32>(one.bytes.size()), &source),
          "the game learns the source");
    } else if (const auto ports = provider_->UsePeerPorts(kToken); ports != nullptr) {
      Require(ports->FindPeer(one.from.sin_port, &source), "the port stands for the source");
    } else {
      return;  // the session has ended
    }
    const auto found = allowed_.find({one.bytes, SourceOf(source)});
    if (found != allowed_.end() && found->second > 0) {
      --found->second;
      return;
    }
    const auto direct = allowed_if_direct_.find({one.bytes, SourceOf(source)});
    Require(MayBeDirect() && direct != allowed_if_direct_.end() && direct->second > 0,
            "the game gets what was sent for it");
    --direct->second;
  }

  // Nobody reads at the unlisted address: what has come to no node may have gone there.
  bool MayBeDirect() const { return is_direct_ || !unseen_.empty(); }

  void Closes() {
    is_closed_ = true;
    const ProtoRelayClose close = ProtoRelayClose::Request(kToken);
    SendTo(game_, {reinterpret_cast<const char*>(&close), sizeof close}, Control());
  }

  void End() override {
    for (int i = 0; i < 60 && relay_.loop.delegates.size() > 1; ++i) {
      // Again, because what waits for a node may keep the session for a while.
      if (i % 20 == 0) Closes();
      PassTime(500);
      Pump();
    }
    Require(relay_.loop.delegates.size() == 1, "no session stays when its socket has gone");
    Require(provider_->UseQueue(send_queue_, kToken) == nullptr, "nor its queues");
    provider_->Uninit();
    provider_.reset();
    for (const SOCKET s : {nodes_[0].nego, nodes_[0].data, nodes_[1].nego, nodes_[1].data,
                           servers_[0], servers_[1], servers_[2], stranger_, game_}) {
      closesocket(s);
    }
    CloseHandle(event_);
  }

  const std::atomic<bool> stopping_{false};
  std::unique_ptr<UdpProvider> provider_ = std::make_unique<UdpProvider>(stopping_);
  Node nodes_[2];
  SOCKET servers_[3] = {}, stranger_ = INVALID_SOCKET, game_ = INVALID_SOCKET;
  HANDLE event_ = nullptr;
  sockaddr_in relay_port_ = {};
  std::map<Source, sockaddr_in> ports_;  // of the relay, by destination
  UdpPackageQueue* send_queue_ = nullptr;
  UdpPackageQueue* recv_queue_ = nullptr;
  u32 number_ = 0;   // makes each datagram another one
  u32 given_ = 100;  // the last token that a node gave
  bool is_direct_ = false;
  bool is_closed_ = false;
  bool server_sends_ = true;
  std::set<std::string> game_sent_;
  std::set<std::string> unseen_;  // of these, for the unlisted address, and not come to a node
  std::set<std::string> carried_;
  std::map<std::pair<std::string, Source>, int> allowed_;
  std::map<std::pair<std::string, Source>, int> allowed_if_direct_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  return RunScript<Flow>(data, size);
}
