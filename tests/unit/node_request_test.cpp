// The node reads untrusted requests, in pieces of any size, strictly.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "node/request_reader.h"
#include "tests/support/wire_bytes.h"

namespace {

using node::RequestReader;
using State = RequestReader::State;
using test::Bytes;
using test::Hex;
using test::Value;

// The golden examples of docs/wire.md.
Bytes Request(int version) {
  Bytes bytes = Hex(
      "78 db 39 64 00 49 00 03 00 00 00 00 00 00 01 00 00 00 00 00 00 27 11 00 00 00 07 cb 00 71"
      "09 69 87 00 11 22 33 44 55 66 77 88 99 aa bb cc dd ee ff 00 00 00 00 00 00 00 00 00 00 00"
      "00 00 00 00 2a 00 00 00 05 00 00 00 07");
  constexpr std::size_t kSizes[] = {49, 65, 73};
  bytes.resize(kSizes[version - 1]);
  bytes[5] = static_cast<common::u8>(bytes.size());
  bytes[7] = static_cast<common::u8>(version);
  return bytes;
}

// Feeds at most `piece` bytes at a time; the reader must not ask for more than there should be.
State Feed(RequestReader* reader, const Bytes& bytes, std::size_t piece, std::size_t* used) {
  State state = State::kMore;
  *used = 0;
  while (state == State::kMore && *used < bytes.size()) {
    const std::size_t count = std::min({piece, reader->Wanted(), bytes.size() - *used});
    EXPECT_GT(count, 0u);
    std::memcpy(reader->Place(), bytes.data() + *used, count);
    *used += count;
    state = reader->Took(count);
  }
  return state;
}

State Read(const Bytes& bytes, std::string* problem = nullptr) {
  RequestReader reader;
  std::size_t used = 0;
  const State state = Feed(&reader, bytes, bytes.size(), &used);
  if (problem != nullptr) *problem = reader.problem();
  return state;
}

TEST(NodeRequest, EveryVersionIsReadInPiecesOfAnySize) {
  for (const int version : {1, 2, 3}) {
    Bytes bytes = Request(version);
    const std::size_t size = bytes.size();
    bytes.resize(size + 5, 0xEE);  // what follows the request stays where it is
    for (std::size_t piece = 1; piece <= bytes.size(); ++piece) {
      RequestReader reader;
      std::size_t used = 0;
      ASSERT_EQ(Feed(&reader, bytes, piece, &used), State::kDone) << version << " by " << piece;
      EXPECT_EQ(used, size);
      EXPECT_EQ(reader.version(), version);
      EXPECT_EQ(Value(reader.request().body.game_ip), 0xcb007109u);
      EXPECT_EQ(Value(reader.request().body.game_port), 27015u);
      EXPECT_EQ(Value(reader.request().body.uin), 10001u);
      EXPECT_EQ(Value(reader.request().body.game_idc), version >= 2 ? 42u : 0u);
      EXPECT_EQ(Value(reader.request().body.game_id), version >= 3 ? 0x500000007u : 0u);
    }
  }
}

TEST(NodeRequest, EveryTruncationNeedsMoreBytes) {
  for (const int version : {1, 2, 3}) {
    const Bytes whole = Request(version);
    for (std::size_t size = 0; size < whole.size(); ++size)
      EXPECT_EQ(Read(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size))),
                State::kMore);
  }
}

TEST(NodeRequest, OnlyTheLengthOfTheVersionIsAccepted) {
  for (const int version : {1, 2, 3}) {
    const std::size_t right = Request(version).size();
    for (std::size_t claimed = 0; claimed <= 0xFFFF; claimed += claimed < 2000 ? 1 : 991) {
      if (claimed == right) continue;
      Bytes bytes = Request(version);
      bytes[4] = static_cast<common::u8>(claimed >> 8);
      bytes[5] = static_cast<common::u8>(claimed);
      bytes.resize(10);
      ASSERT_EQ(Read(bytes), State::kBad) << version << ", " << claimed;
    }
  }
}

TEST(NodeRequest, AVersionOfTheFutureIsReadAsTheNewest) {
  for (const unsigned version : {0u, 4u, 0xFFFFu}) {
    for (const std::size_t size : {73u, 74u, 1024u}) {
      Bytes bytes = Request(3);
      bytes.resize(size, 0xAA);
      bytes[4] = static_cast<common::u8>(size >> 8);
      bytes[5] = static_cast<common::u8>(size);
      bytes[6] = static_cast<common::u8>(version >> 8);
      bytes[7] = static_cast<common::u8>(version);
      RequestReader reader;
      std::size_t used = 0;
      EXPECT_EQ(Feed(&reader, bytes, 100, &used), State::kDone) << version << ", " << size;
      EXPECT_EQ(used, size);
      EXPECT_EQ(reader.version(), version);
      EXPECT_EQ(Value(reader.request().body.game_id), 0x500000007u);
    }
    Bytes bytes = Request(3);
    bytes[7] = 9;
    bytes[5] = 72;
    EXPECT_EQ(Read(bytes), State::kBad);
    bytes[4] = 4;  // 1025 bytes: more than there is room for
    bytes[5] = 1;
    EXPECT_EQ(Read(bytes), State::kBad);
  }
}

TEST(NodeRequest, AWrongMagicIsSeenWithTheHeader) {
  for (std::size_t at = 0; at < 4; ++at) {
    Bytes bytes = Request(3);
    bytes[at] ^= 1;
    bytes.resize(10);
    std::string problem;
    EXPECT_EQ(Read(bytes, &problem), State::kBad);
    EXPECT_EQ(problem, "wrong magic");
  }
}

TEST(NodeRequest, TheGameServerMustBeOne) {
  const struct {
    Bytes ip;
    unsigned port;
    State state;
  } cases[] = {{Hex("cb007109"), 0, State::kBad},      {Hex("00000000"), 80, State::kBad},
               {Hex("e0000001"), 80, State::kBad},     {Hex("ffffffff"), 80, State::kBad},
               {Hex("dfffffff"), 65535, State::kDone}, {Hex("7f000001"), 1, State::kDone}};
  for (const auto& one : cases) {
    Bytes bytes = Request(3);
    std::copy(one.ip.begin(), one.ip.end(), bytes.begin() + 27);
    bytes[31] = static_cast<common::u8>(one.port >> 8);
    bytes[32] = static_cast<common::u8>(one.port);
    EXPECT_EQ(Read(bytes), one.state) << test::ToHex(one.ip) << " " << one.port;
  }
}

// A datagram holds one request and nothing else; there is no more to come.
TEST(NodeRequest, ADatagramMustBeExactlyOne) {
  for (const int version : {1, 2, 3}) {
    const Bytes right = Request(version);
    const auto take = [](const Bytes& bytes) {
      RequestReader reader;
      return reader.TakeDatagram(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    };
    EXPECT_EQ(take(right), State::kDone);
    for (std::size_t size = 0; size < right.size(); ++size)
      EXPECT_EQ(take(Bytes(right.begin(), right.begin() + static_cast<std::ptrdiff_t>(size))),
                State::kBad)
          << size;
    Bytes longer = right;
    longer.push_back(0);
    EXPECT_EQ(take(longer), State::kBad);
    EXPECT_EQ(take(Bytes(2000, 0)), State::kBad);
  }
}

}  // namespace
