// A second reader of what travels between client and node, written from docs/wire.md alone: it
// shares no line, no type and no constant with src/protocol. Where the two disagree, one of them
// or the document is wrong.
#pragma once
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace wire {

using Datagram = std::vector<std::uint8_t>;

struct LastNode {
  std::uint16_t node_id = 0;
  std::uint16_t port = 0;
  std::string ip = "0.0.0.0";
  std::uint32_t token = 0;
};

struct Request {
  std::uint16_t length = 0;
  std::uint16_t version = 0;  // as it is read: 1 to 3
  bool moves_flow = false;
  std::uint8_t retry = 0;
  std::uint64_t user = 0;
  std::uint32_t game_low = 0;
  std::string game_ip;
  std::uint16_t game_port = 0;
  std::string guid;
  LastNode last_node;
  std::uint32_t game_idc = 0;
  std::uint64_t game = 0;
};

struct Response {
  std::uint16_t length = 0;
  std::uint16_t version = 0;
  std::uint8_t result = 0;
  std::uint32_t token = 0;
  std::uint32_t client_isp = 0;
  std::string client_ip;
  std::string data_ip;
  std::uint16_t data_port = 0;
  LastNode last_node;
};

struct Wrapped {
  std::uint8_t version = 0;
  std::uint8_t flags = 0;
  std::uint8_t relay = 0;
  std::uint32_t seq = 0;
  std::uint32_t token = 0;
  std::string game_ip;
  std::uint16_t game_port = 0;
  std::uint8_t lost = 0;
  std::uint8_t payload_at = 0;
};

struct Probe {
  std::uint32_t seq = 0;
  std::uint64_t sent_ms = 0;
};

// Each answers 0, or the error that section 5 of the document gives for these bytes.
int Decode(const Datagram& bytes, Request* out);
int Decode(const Datagram& bytes, Response* out);
int Decode(const Datagram& bytes, Wrapped* out);
// Whether it is the answer to a probe.
bool Decode(const Datagram& bytes, Wrapped* header, Probe* out);

}  // namespace wire
