// Input to the reference node's datagram ports: requests, datagrams of flows, and the numbers in
// them. Everything is read within its bounds, and what was read can be written again.
#include <cstring>
#include <string>
#include <vector>

#include "check.h"
#include "node/datagram.h"
#include "node/loss_meter.h"
#include "node/request_reader.h"

namespace {

using fuzz::Require;
using node::ClientDatagram;
using node::RequestReader;

// A datagram is read as a stream of the same bytes that ends with them.
void Request(const std::string& bytes) {
  RequestReader reader;
  const auto state = reader.TakeDatagram(bytes.data(), bytes.size());
  Require(state != RequestReader::State::kMore, "a datagram is a whole request or none");
  if (state == RequestReader::State::kBad) {
    return Require(*reader.problem() != '\0', "a refusal has a reason");
  }
  Require(reader.size() == bytes.size() && reader.game().server(), "all of it, to a server");
  node::Event event;
  reader.Describe(&event);
  Require(event.Text("guid").size() == 36, "the identifier is readable");
}

void Data(const std::string& bytes) {
  // An exact copy, so that the sanitizer catches a read beyond it.
  const std::vector<char> exact(bytes.begin(), bytes.end());
  ClientDatagram datagram;
  if (node::ReadDatagram(exact.data(), exact.size(), &datagram) != nullptr) return;
  Require(datagram.payload + datagram.payload_size == exact.data() + exact.size(),
          "the payload is the rest");
  Require(exact.size() - datagram.payload_size >= 20, "behind a whole header");
  const std::string payload(datagram.payload, datagram.payload_size);
  node::Behaviour behaviour;
  behaviour.head_len = static_cast<std::int64_t>(exact.size() - payload.size());
  for (const auto header :
       {node::Behaviour::kWellFormed, node::Behaviour::kShortHeader, node::Behaviour::kPastEnd,
        node::Behaviour::kCut, node::Behaviour::kEmpty, node::Behaviour::kVersion}) {
    behaviour.header = header;
    std::vector<char> out(node::kLongestHeader + payload.size());
    const std::size_t size =
        node::WriteDatagram(behaviour, datagram.header, payload.data(), payload.size(), out.data());
    Require(size <= out.size(), "what is written has room");
    if (header != node::Behaviour::kWellFormed) continue;
    ClientDatagram again;
    Require(node::ReadDatagram(out.data(), size, &again) == nullptr, "and can be read");
    Require(std::memcmp(&again.header, &datagram.header, sizeof again.header) == 0,
            "with the same header");
    Require(std::string(again.payload, again.payload_size) == payload, "and payload");
  }
}

// Each five bytes are a number and the time since the previous one.
void Numbers(const std::string& bytes) {
  node::LossMeter meter;
  node::u64 now = 0;
  for (std::size_t at = 0; at + 5 <= bytes.size(); at += 5) {
    node::u32 seq = 0;
    std::memcpy(&seq, bytes.data() + at, sizeof seq);
    now += static_cast<unsigned char>(bytes[at + 4]);
    meter.Note(seq, now);
    Require(meter.Percent(now) <= node::LossMeter::kNotKnown, "a share or nothing known");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  Request(bytes);
  Data(bytes);
  Numbers(bytes);
  return 0;
}
