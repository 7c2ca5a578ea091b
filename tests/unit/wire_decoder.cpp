#include "wire_decoder.h"

#include <cstdio>

namespace wire {
namespace {

constexpr std::uint32_t kMagic = 0x78DB3964;
constexpr std::uint32_t kProbeMagic = 0x253ABD8F;
constexpr std::size_t kOpeningBytes = 10;
constexpr std::size_t kDatagramHeaderBytes = 20;
constexpr std::size_t kProbeBytes = 16;
constexpr std::size_t kShortestStreamAnswer = 11;
constexpr std::size_t kLongestStreamAnswer = 41;
constexpr std::uint8_t kEndFlag = 4;
constexpr std::uint8_t kProbeFlag = 8;
constexpr std::uint32_t kMovesAFlow = 2;

std::uint64_t BigEndian(Bytes bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < width; ++i) {
    value = value << 8 | bytes[at + i];
  }
  return value;
}

std::uint64_t LittleEndian(Bytes bytes, std::size_t at, std::size_t width) {
  std::uint64_t value = 0;
  for (std::size_t i = width; i > 0; --i) {
    value = value << 8 | bytes[at + i - 1];
  }
  return value;
}

std::uint8_t U8(Bytes b, std::size_t at) { return b[at]; }
std::uint16_t U16(Bytes b, std::size_t at) {
  return static_cast<std::uint16_t>(BigEndian(b, at, 2));
}
std::uint32_t U32(Bytes b, std::size_t at) {
  return static_cast<std::uint32_t>(BigEndian(b, at, 4));
}
std::uint64_t U64(Bytes b, std::size_t at) { return BigEndian(b, at, 8); }

Guid ReadGuid(Bytes bytes, std::size_t at) {
  Guid text;
  for (std::size_t i = 0; i < 16; ++i) {
    // data1, data2 and data3 are big-endian, so their digits stand in the order of their bytes.
    text += i == 4 || i == 6 || i == 8 || i == 10 ? "-" : "";
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02X", static_cast<unsigned>(bytes[at + i]));
    text += digits;
  }
  return text;
}

PreviousNode ReadPreviousNode(Bytes bytes, std::size_t at) {
  return {U16(bytes, at), U16(bytes, at + 2), U32(bytes, at + 4), U32(bytes, at + 8)};
}

int VersionRead(std::uint16_t version) { return version == 0 || version > 3 ? 3 : version; }

std::size_t RequestLength(int version) { return version == 1 ? 49 : version == 2 ? 65 : 73; }

std::size_t AnswerLength(int version) { return version == 1 ? 29 : 41; }

// The layout of version 2, which version 1 is a head of.
void ReadAnswer(Bytes record, Answer* answer) {
  answer->result = U8(record, 10);
  answer->token = U32(record, 11);
  answer->provider = U32(record, 15);
  answer->client_address = U32(record, 19);
  answer->data_address = U32(record, 23);
  answer->data_port = U16(record, 27);
  answer->previous = ReadPreviousNode(record, 29);
}

// The first `length` bytes, and zeros behind them.
std::array<std::uint8_t, kLongestStreamAnswer> Padded(Bytes bytes, std::size_t length) {
  std::array<std::uint8_t, kLongestStreamAnswer> record{};
  for (std::size_t i = 0; i < length; ++i) {
    record[i] = bytes[i];
  }
  return record;
}

// A datagram that is marked as a probe and is none by its length or magic is taken as data.
Kind KindOf(const Datagram& datagram) {
  if ((datagram.flags & kProbeFlag) != 0) {
    const bool is_probe = datagram.payload.size() == kProbeBytes &&
                          LittleEndian(datagram.payload, 0, 4) == kProbeMagic;
    return is_probe ? Kind::kProbe : Kind::kData;
  }
  return (datagram.flags & kEndFlag) != 0 ? Kind::kEnd : Kind::kData;
}

}  // namespace

Verdict Decode(Bytes bytes, Opening* opening) {
  if (bytes.size() < kOpeningBytes) return kTooShort;
  *opening = {U16(bytes, 4), U16(bytes, 6), U16(bytes, 8)};
  return U32(bytes, 0) == kMagic ? kFine : kWrongMagic;
}

Verdict Decode(Bytes bytes, Request* request) {
  const Verdict verdict = Decode(bytes, &request->opening);
  if (verdict != kFine) return verdict;
  if (bytes.size() < request->opening.declared_length) return kWrongLength;
  const int version = VersionRead(request->opening.version);
  request->length = RequestLength(version);
  if (bytes.size() < request->length) return kTooShort;
  request->flags = U32(bytes, 10);
  request->moves_a_flow = (request->flags & kMovesAFlow) != 0;
  request->retry = U8(bytes, 14);
  request->user = U64(bytes, 15);
  request->game_low = U32(bytes, 23);
  request->server_address = U32(bytes, 27);
  request->server_port = U16(bytes, 31);
  request->guid = ReadGuid(bytes, 33);
  if (version >= 2) {
    request->previous = ReadPreviousNode(bytes, 49);
    request->data_centre = U32(bytes, 61);
  }
  if (version >= 3) request->game = U64(bytes, 65);
  return kFine;
}

Verdict Decode(Bytes bytes, Answer* answer) {
  const Verdict verdict = Decode(bytes, &answer->opening);
  if (verdict != kFine) return verdict;
  // Modulo 65536, as the document has it for answers alone.
  if (bytes.size() % 65536 < answer->opening.declared_length) return kWrongLength;
  answer->length = AnswerLength(VersionRead(answer->opening.version));
  if (bytes.size() < answer->length) return kTooShort;
  ReadAnswer(Padded(bytes, answer->length), answer);
  return kFine;
}

Verdict DecodeStreamAnswer(Bytes bytes, Answer* answer) {
  const Verdict verdict = Decode(bytes, &answer->opening);
  if (verdict != kFine) return verdict;
  answer->length = answer->opening.declared_length;
  if (answer->length < kShortestStreamAnswer || answer->length > kLongestStreamAnswer) {
    return kWrongLength;
  }
  if (bytes.size() < answer->length) return kTooShort;
  ReadAnswer(Padded(bytes, answer->length), answer);
  return kFine;
}

Verdict Decode(Bytes bytes, Datagram* datagram) {
  if (bytes.size() < 4) return kTooShort;
  datagram->payload_at = U8(bytes, 1);
  if (datagram->payload_at < kDatagramHeaderBytes) return kWrongLength;
  if (bytes.size() < kDatagramHeaderBytes) return kTooShort;
  datagram->version = 1;  // whatever the byte says
  datagram->flags = U8(bytes, 2);
  datagram->relay = U8(bytes, 3);
  datagram->number = U32(bytes, 4);
  datagram->token = U32(bytes, 8);
  datagram->peer_address = U32(bytes, 12);
  datagram->peer_port = U16(bytes, 16);
  datagram->reserved = U8(bytes, 18);
  datagram->lost = U8(bytes, 19);
  datagram->dropped = datagram->payload_at > bytes.size();
  if (!datagram->dropped) datagram->payload = bytes.subspan(datagram->payload_at);
  datagram->kind = KindOf(*datagram);
  if (datagram->kind == Kind::kProbe) {
    datagram->probe.number = static_cast<std::uint32_t>(LittleEndian(datagram->payload, 4, 4));
    datagram->probe.sent_at = LittleEndian(datagram->payload, 8, 8);
  }
  return kFine;
}

}  // namespace wire
