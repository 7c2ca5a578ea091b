// How the node reads and writes the datagrams of a flow, how it evaluates their numbers, and its
// random impairments.
#include "node/datagram.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <algorithm>
#include <numeric>
#include <vector>

#include "node/clock.h"
#include "node/delay_line.h"
#include "node/lane.h"
#include "node/loss_meter.h"
#include "tests/support/wire_bytes.h"
#include "tests/unit/wire_decoder.h"

namespace {

using node::Behaviour;
using node::ClientDatagram;
using node::Clock;
using node::DelayLine;
using node::Fate;
using node::Impairment;
using node::Lane;
using node::LossMeter;
using node::Parcel;
using node::u32;
using node::u64;
using test::Hex;
using test::Value;

std::string Text(const test::Bytes& bytes) { return {bytes.begin(), bytes.end()}; }

const char* Read(const std::string& bytes, ClientDatagram* datagram) {
  return node::ReadDatagram(bytes.data(), bytes.size(), datagram);
}

// --- reading ----------------------------------------------------------------------------------

// The golden examples of docs/wire.md.
TEST(NodeDatagram, IsReadAsTheProtocolHasIt) {
  const std::string data = Text(Hex("01140000000000070102030 4cb007109698700 0368656c6c6f"));
  ClientDatagram datagram;
  ASSERT_EQ(Read(data, &datagram), nullptr);
  EXPECT_EQ(Value(datagram.header.seq), 7u);
  EXPECT_EQ(Value(datagram.header.accl_token), 0x01020304u);
  EXPECT_EQ(Value(datagram.header.game_ip), 0xcb007109u);
  EXPECT_EQ(Value(datagram.header.game_port), 27015u);
  EXPECT_EQ(Value(datagram.header.lost), 3u);
  EXPECT_EQ(std::string(datagram.payload, datagram.payload_size), "hello");

  const std::string longer = Text(Hex("0118000000000008 01020304cb00710969870065 deadbeef 6869"));
  ASSERT_EQ(Read(longer, &datagram), nullptr);
  EXPECT_EQ(std::string(datagram.payload, datagram.payload_size), "hi");

  const std::string end = Text(Hex("0114040000000009 01020304cb0071096987 0000"));
  ASSERT_EQ(Read(end, &datagram), nullptr);
  EXPECT_EQ(datagram.payload_size, 0u);
}

TEST(NodeDatagram, IsRefusedIfItIsMalformed) {
  std::string bytes = Text(Hex("0114000000000007 01020304cb00710969870003")) + "hello";
  ClientDatagram datagram;
  for (std::size_t size = 0; size < 20; ++size)
    EXPECT_STREQ(Read(bytes.substr(0, size), &datagram), "shorter than a header");
  bytes[1] = 19;
  EXPECT_STREQ(Read(bytes, &datagram), "its header is too short");
  bytes[1] = 26;
  EXPECT_STREQ(Read(bytes, &datagram), "its header ends beyond it");
  bytes[1] = 25;
  EXPECT_EQ(Read(bytes, &datagram), nullptr);
  bytes[0] = 9;  // a version of the future is read as this one
  EXPECT_EQ(Read(bytes, &datagram), nullptr);
  EXPECT_EQ(bytes[0], 9);
  for (int flags = 0; flags < 256; ++flags) {
    bytes[2] = static_cast<char>(flags);
    const bool known = flags == 0 || flags == 4 || flags == 8;
    EXPECT_EQ(Read(bytes, &datagram) == nullptr, known) << flags;
  }
}

// --- writing ----------------------------------------------------------------------------------

std::string Written(const Behaviour& behaviour, const std::string& payload) {
  moru_vyr::lsp::UdpAcclHeader header;
  header.seq = 7;
  header.accl_token = 0x01020304;
  header.game_ip = 0xcb007109;
  header.game_port = 27015;
  header.lost = 3;
  std::vector<char> out(node::kLongestHeader + payload.size());
  // Where the payload stands when it was read right behind the room for a header.
  std::copy(payload.begin(), payload.end(), out.begin() + node::kLongestHeader);
  const std::size_t size = node::WriteDatagram(behaviour, header, out.data() + node::kLongestHeader,
                                               payload.size(), out.data());
  EXPECT_LE(size, out.size());
  return {out.data(), size};
}

TEST(NodeDatagram, IsWrittenAsTheProtocolHasIt) {
  const std::string header = Text(Hex("0114000000000007 01020304cb00710969870003"));
  EXPECT_EQ(Written({}, "hello"), header + "hello");
  EXPECT_EQ(Written({}, ""), header);
  Behaviour behaviour;
  for (const std::int64_t head_len : {20, 21, 24, 254, 255}) {
    behaviour.head_len = head_len;
    const std::string bytes = Written(behaviour, "hello");
    ClientDatagram datagram;
    ASSERT_EQ(Read(bytes, &datagram), nullptr);
    EXPECT_EQ(std::string(datagram.payload, datagram.payload_size), "hello") << head_len;
    EXPECT_EQ(bytes.size(), static_cast<std::size_t>(head_len) + 5);
  }
}

TEST(NodeDatagram, AgreesWithTheProtocolsOtherDecoder) {
  Behaviour behaviour;
  behaviour.head_len = 24;
  const std::string bytes = Written(behaviour, "hello");
  wire::Datagram read;
  const auto* const data = reinterpret_cast<const unsigned char*>(bytes.data());
  ASSERT_EQ(wire::Decode(wire::Bytes(data, bytes.size()), &read), wire::kFine);
  EXPECT_EQ(read.kind, wire::Kind::kData);
  EXPECT_FALSE(read.dropped);
  EXPECT_EQ(read.number, 7u);
  EXPECT_EQ(read.token, 0x01020304u);
  EXPECT_EQ(read.peer_address, 0xcb007109u);
  EXPECT_EQ(read.peer_port, 27015);
  EXPECT_EQ(read.lost, 3);
  EXPECT_EQ(std::string(read.payload.begin(), read.payload.end()), "hello");
}

TEST(NodeDatagram, ClaimsMoreThanItHasAtAnySize) {
  Behaviour behaviour;
  behaviour.header = Behaviour::kPastEnd;
  for (const std::size_t size : {0u, 10u, 234u, 235u, 2000u}) {
    const std::string bytes = Written(behaviour, std::string(size, 'x'));
    EXPECT_LT(bytes.size(), 255u);
    EXPECT_EQ(static_cast<unsigned char>(bytes[1]), 255);
  }
}

// --- chance -----------------------------------------------------------------------------------

TEST(NodeLane, AGoodLaneChangesNothing) {
  Lane lane(1);
  for (u64 now = 0; now < 1000; ++now) {
    const Fate fate = lane.Decide({}, now);
    ASSERT_EQ(fate.copies, 1);
    ASSERT_EQ(fate.due[0], now);
  }
}

TEST(NodeLane, SharesAreWhatTheySay) {
  Lane lane(1);
  int lost = 0, doubled = 0, late = 0;
  constexpr int kCount = 100'000;
  for (int i = 0; i < kCount; ++i) {
    const u64 now = static_cast<u64>(i) * 100;
    const Fate fate =
        lane.Decide({.loss = 20, .duplicate = 10, .reorder = 5, .reorder_by_ms = 50}, now);
    lost += fate.copies == 0 ? 1 : 0;
    doubled += fate.copies == 2 ? 1 : 0;
    late += fate.copies != 0 && fate.due[0] == now + 50 ? 1 : 0;
  }
  EXPECT_NEAR(lost, kCount * 0.2, kCount * 0.01);
  EXPECT_NEAR(doubled, kCount * 0.8 * 0.1, kCount * 0.01);
  EXPECT_NEAR(late, kCount * 0.8 * 0.05, kCount * 0.01);
  EXPECT_EQ(lane.Decide({.loss = 100}, 0).copies, 0);
}

TEST(NodeLane, JitterStaysInItsBoundsAndInOrder) {
  Lane lane(7);
  u64 last = 0;
  bool least = false, most = false;
  for (u64 i = 0; i < 10'000; ++i) {
    const u64 now = i * 100;
    const Fate fate = lane.Decide({.delay_ms = 10, .jitter_ms = 30}, now);
    ASSERT_GE(fate.due[0], now + 10);
    ASSERT_LE(fate.due[0], now + 40);
    ASSERT_GE(fate.due[0], last);
    last = fate.due[0];
    least = least || last == now + 10;
    most = most || last == now + 40;
  }
  EXPECT_TRUE(least && most);
}

// When a link improves, new datagrams do not overtake old ones.
TEST(NodeLane, OrderIsKeptWhenTheDelayShrinks) {
  Lane lane(1);
  EXPECT_EQ(lane.Decide({.delay_ms = 500}, 0).due[0], 500u);
  EXPECT_EQ(lane.Decide({}, 100).due[0], 500u);
  EXPECT_EQ(lane.Decide({}, 501).due[0], 501u);
}

// A datagram arrives while a millisecond goes by; what is delayed may not leave a part of one
// early.
TEST(NodeLane, ADelayBeginsAtTheArrivalAndNotAtTheMillisecondBeforeIt) {
  Lane lane(1);
  EXPECT_EQ(lane.Decide({.delay_ms = 6}, 100, 1).due[0], 107u);
  Lane open(1);
  EXPECT_EQ(open.Decide({}, 100, 1).due[0], 100u) << "without a delay it leaves at once";
}

TEST(NodeClock, RoundsThePresentUp) {
  const Clock clock;
  const u64 now = clock.Now();
  Sleep(3);
  const u64 later = clock.Now();
  EXPECT_GE(later, now + 2);
  EXPECT_GE(now + clock.Since(now), later);
}

TEST(NodeDelayLine, ReturnsByTimeAndThenByOrder) {
  DelayLine line;
  Parcel parcel;
  EXPECT_EQ(line.NextDue(), DelayLine::kNever);
  EXPECT_FALSE(line.Take(100, &parcel));
  for (const auto& [due, name] : {std::pair(30, "c"), {10, "a"}, {30, "d"}, {20, "b"}, {30, "e"}})
    ASSERT_TRUE(line.Add(static_cast<u64>(due), {.bytes = name}));
  EXPECT_EQ(line.NextDue(), 10u);
  EXPECT_FALSE(line.Take(9, &parcel));
  std::string order;
  while (line.Take(30, &parcel)) order += parcel.bytes;
  EXPECT_EQ(order, "abcde");
}

TEST(NodeDelayLine, HoldsSoMuchAndNoMore) {
  DelayLine line;
  std::size_t held = 0;
  while (line.Add(held, {.bytes = std::string(60'000, 'x')})) ++held;
  EXPECT_LE(held * 60'000, DelayLine::kMostBytes);
  EXPECT_GT(held * 60'000, DelayLine::kMostBytes * 9 / 10);
  Parcel parcel;
  while (line.Take(~u64{0} - 1, &parcel)) --held;
  EXPECT_EQ(held, 0u);
  EXPECT_TRUE(line.Add(0, {.bytes = "again"}));
}

// --- loss -------------------------------------------------------------------------------------

// One number each 10 ms, from `first` on; `lost` says which do not come.
template <class Lost>
u64 Feed(LossMeter* meter, u32 first, u32 count, u64 now, Lost lost) {
  for (u32 i = 0; i < count; ++i, now += 10)
    if (!lost(i)) meter->Note(first + i, now);
  return now;
}
constexpr auto kNone = [](u32) { return false; };

TEST(NodeLossMeter, HasNoResultForTooFewDatagrams) {
  LossMeter meter;
  EXPECT_EQ(meter.Percent(0), LossMeter::kNotKnown);
  meter.Note(1, 1000);
  EXPECT_EQ(meter.Percent(1000), LossMeter::kNotKnown);
  EXPECT_EQ(meter.Percent(2000), LossMeter::kNotKnown);
}

TEST(NodeLossMeter, ReturnsTheShareThatIsMissing) {
  const struct {
    u32 every, percent;
  } cases[] = {{1000000, 0}, {5, 20}, {4, 25}, {2, 50}, {10, 10}};
  for (const auto& one : cases) {
    LossMeter meter;
    const u64 now = Feed(&meter, 1, 400, 5000, [&](u32 i) { return i % one.every == 1; });
    EXPECT_NEAR(meter.Percent(now), one.percent, 1) << one.every;
  }
}

TEST(NodeLossMeter, TheFirstNumberIsOne) {
  LossMeter meter;
  const u64 now = Feed(&meter, 21, 20, 0, kNone);  // 20 of 40 have not come
  EXPECT_EQ(meter.Percent(now + 400), 50);
}

TEST(NodeLossMeter, RemembersFiveSecondsAndNoMore) {
  LossMeter meter;
  u64 now = Feed(&meter, 1, 600, 0, [](u32 i) { return i % 2 == 0; });
  EXPECT_NEAR(meter.Percent(now), 50, 1);
  now = Feed(&meter, 601, 500, now, kNone);
  EXPECT_NEAR(meter.Percent(now), 3, 1);  // of the 300 ms that were left out before
  now = Feed(&meter, 1101, 50, now, kNone);
  EXPECT_EQ(meter.Percent(now), 0);
  // Without datagrams nothing is known.
  EXPECT_NEAR(meter.Percent(now + 4000), 0, 0);
  EXPECT_EQ(meter.Percent(now + 6000), LossMeter::kNotKnown);
}

// At 2 percent a client may judge the link bad, which a single datagram must not cause.
TEST(NodeLossMeter, OneDatagramAtAGamesPaceIsOnePercent) {
  LossMeter meter;
  u64 now = 0;
  for (u32 seq = 1; seq <= 400; ++seq, now += 50) {
    if (seq == 200) continue;
    meter.Note(seq, now);
    const int percent = meter.Percent(now);
    if (seq < 100) continue;  // not five seconds yet
    EXPECT_LE(percent, 1) << seq;
    if (seq > 200 + 6 && seq < 300) {
      EXPECT_EQ(percent, 1) << seq;
    }
  }
}

TEST(NodeLossMeter, DuplicatesAndLateDatagramsAreNoLossAndNoGain) {
  LossMeter meter;
  u64 now = 0;
  for (u32 i = 0; i < 300; i += 2, now += 20) {
    meter.Note(i + 2, now);  // each pair the wrong way round, and everything twice
    meter.Note(i + 1, now + 1);
    meter.Note(i + 2, now + 2);
    meter.Note(i + 1, now + 2);
  }
  EXPECT_EQ(meter.Percent(now), 0);
  LossMeter lossy;
  for (u32 i = 1; i <= 300; ++i) {
    if (i % 4 == 0) continue;
    for (int twice = 0; twice < 2; ++twice) lossy.Note(i, u64{i} * 10);
  }
  EXPECT_NEAR(lossy.Percent(3000), 25, 1);
}

TEST(NodeLossMeter, NumbersCanWrapAndRestart) {
  LossMeter meter;
  u64 now = Feed(&meter, 0xFFFFFF00, 500, 0, [](u32 i) { return i % 10 == 3; });
  EXPECT_NEAR(meter.Percent(now), 10, 1);
  now = Feed(&meter, 1'000'000, 400, now, kNone);
  EXPECT_EQ(meter.Percent(now), 0);
  now = Feed(&meter, 1, 400, now, [](u32 i) { return i % 5 == 0; });
  EXPECT_NEAR(meter.Percent(now), 20, 1);
}

// Against a model that remembers everything.
TEST(NodeLossMeter, AgreesWithAModelOverRandomStreams) {
  for (int stream = 0; stream < 50; ++stream) {
    Lane chance(static_cast<u64>(stream));
    LossMeter meter;
    const Impairment link = {
        .loss = static_cast<u32>(stream), .duplicate = 10, .reorder = 10, .reorder_by_ms = 30};
    std::vector<std::pair<u64, u32>> arrivals;
    for (u32 seq = 1; seq <= 1000; ++seq) {
      const Fate fate = chance.Decide(link, u64{seq} * 10);
      for (int i = 0; i < fate.copies; ++i) arrivals.emplace_back(fate.due[i], seq);
    }
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [at, seq] : arrivals) meter.Note(seq, at);
    const u64 end = 10'010;
    // What was sent from 5300 to 300 ms before the running slot, give or take a slot.
    std::vector<bool> came(1001);
    for (const auto& [at, seq] : arrivals) came[seq] = true;
    const auto lost = std::count(came.begin() + 470, came.begin() + 970, false);
    EXPECT_NEAR(meter.Percent(end), static_cast<double>(lost) / 5, 2.0) << stream;
  }
}

}  // namespace
