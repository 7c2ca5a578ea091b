// A client of the reference node that builds its datagrams byte by byte, and a game server that
// answers datagrams.
#pragma once
#include <map>
#include <vector>

#include "tests/scenario/node_world.h"

namespace node_test {

inline constexpr int kRequestVersion = 3;

// A received datagram of a flow, parsed.
struct Wrapped {
  std::string bytes;
  std::string from;  // "198.51.100.20:40001"
  unsigned version = 0, head_len = 0, flags = 0, relay_idx = 0;
  unsigned seq = 0, token = 0, lost = 0;
  std::string source;   // the game's address, from the header
  std::string payload;  // what follows head_len bytes

  bool came() const { return !bytes.empty() || !from.empty(); }
};

std::string AddressText(const sockaddr_in& address);
// Empty if nothing arrived in time.
Wrapped ReceiveWrapped(SOCKET s, int ms);

class RawFlow {
 public:
  // A socket on a free port, or on a given one.
  explicit RawFlow(int port = 0);

  // Sends these bytes to the node's negotiation port.
  void Asks(const std::string& request = RequestBytes(kRequestVersion));
  // The bytes of the answer, from any sender; empty if none arrived in time. Stores its token and
  // data address.
  std::string Answer(int ms = 1000, std::string* from = nullptr);
  // Does both, and returns whether the node accepted.
  bool Opens(const std::string& request = RequestBytes(kRequestVersion));

  // Sends a datagram with a header of 20 bytes to the data port.
  void Sends(const std::string& payload, int port = kServerPort, const char* ip = kServer);
  void SendsNumbered(unsigned seq, const std::string& payload);
  void Probes(unsigned seq);
  void Ends();
  void SendsBytes(const std::string& bytes);
  std::string Header(unsigned flags, unsigned seq, const char* ip = kServer,
                     int port = kServerPort) const;
  Wrapped Receives(int ms = 1000) { return ReceiveWrapped(s, ms); }
  // Receives datagrams until none arrives for that long.
  std::vector<Wrapped> ReceivesAll(int ms);

  SOCKET s;
  unsigned token = 0;
  std::string data_ip;
  int data_port = 0;
  unsigned next_seq = 1;
};

class NodeFlowWorld : public NodeWorld {
 protected:
  // Starts a game server that sends each datagram back; `heard` records the datagrams and their
  // senders.
  void StartEcho(int port = kServerPort);

  struct Heard {
    std::string from, text;
  };
  std::vector<Heard> heard;
};

// The same with a node. Runs the client's body once the echo server and the node are ready.
class NodeFlowRun : public NodeFlowWorld {
 protected:
  bool Runs(std::function<void()> body) {
    StartEcho();
    OnClient(std::move(body));
    return RunToTheEnd();
  }

  node::SimNode node{world, node_host};
};

}  // namespace node_test
