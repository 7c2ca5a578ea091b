#pragma once

// A second reading of docs/wire.md, written from that text alone and sharing no line with
// src/protocol: what both readings agree on, the document says. It decodes what a packet capture
// shows; it never encodes.
//
// Values come out in the machine's own byte order; addresses with the first octet highest.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace wire {

using Bytes = std::span<const std::uint8_t>;

// As the document prints it: 36 characters, upper case.
using Guid = std::string;

struct PreviousNode {
  std::uint16_t number = 0;
  std::uint16_t port = 0;
  std::uint32_t address = 0;
  std::uint32_t token = 0;
};

struct Opening {
  std::uint16_t declared_length = 0;  // of the whole record, this opening included
  std::uint16_t version = 0;          // as it is in the bytes, even 0 or above 3
  std::uint16_t reserved = 0;
};

struct Request {
  Opening opening;
  std::size_t length = 0;  // what the version makes it
  bool moves_a_flow = false;
  std::uint32_t flags = 0;
  std::uint8_t retry = 0;
  std::uint64_t user = 0;
  std::uint32_t game_low = 0;
  std::uint32_t server_address = 0;
  std::uint16_t server_port = 0;
  Guid guid;
  PreviousNode previous;  // zero before version 2
  std::uint32_t data_centre = 0;
  std::uint64_t game = 0;  // zero before version 3
};

struct Answer {
  Opening opening;
  std::size_t length = 0;  // bytes of the record; over TCP the game's stream begins behind them
  std::uint8_t result = 0;
  std::uint32_t token = 0;
  std::uint32_t provider = 0;
  std::uint32_t client_address = 0;
  std::uint32_t data_address = 0;
  std::uint16_t data_port = 0;
  PreviousNode previous;  // zero before version 2
};

struct Probe {
  std::uint32_t number = 0;
  std::uint64_t sent_at = 0;  // ms since 1 January 1970
};

enum class Kind { kData, kEnd, kProbe };

struct Datagram {
  Kind kind = Kind::kData;
  std::uint8_t version = 0;
  std::uint8_t flags = 0;
  std::uint8_t relay = 0;
  std::uint32_t number = 0;
  std::uint32_t token = 0;
  std::uint32_t peer_address = 0;
  std::uint16_t peer_port = 0;
  std::uint8_t reserved = 0;
  std::uint8_t lost = 0;
  std::size_t payload_at = 0;
  bool dropped = false;  // the payload would begin behind the end: no receiver takes it
  Bytes payload;         // into the bytes handed in
  Probe probe;           // of a probe
};

// Each takes the bytes of one record or datagram and gives kFine, or what is wrong with them; what
// is decoded is then of no use.
enum Verdict : int {
  kFine = 0,
  kTooShort = -3,
  kWrongLength = -5,
  kWrongMagic = -6,
};

Verdict Decode(Bytes bytes, Opening* opening);

// A request, from a stream or a datagram.
Verdict Decode(Bytes bytes, Request* request);

// The answer in a datagram: the version decides how much is read.
Verdict Decode(Bytes bytes, Answer* answer);

// The answer at the head of a node's stream, under the rules for streams: a declared length of 11
// to 41, one layout whatever the version, fields behind the declared length zero.
Verdict DecodeStreamAnswer(Bytes bytes, Answer* answer);

// A datagram after the negotiation, either way.
Verdict Decode(Bytes bytes, Datagram* datagram);

}  // namespace wire
