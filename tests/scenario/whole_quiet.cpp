// What the whole world's game does while nobody plays: flows that say little, for up to an hour.
#include <algorithm>

#include "tests/scenario/whole_world.h"

namespace whole_test {
namespace {

constexpr uint32_t kHeartbeatMs = 30'000;
// A stream that says less has lost the other side's patience.
static_assert(kHeartbeatMs + 15'000 < kPatienceMs);
constexpr uint32_t kEndsBeforeMs = 60'000;  // a quiet stretch does

}  // namespace

void WholeWorld::PlanQuiet(const Stretch& stretch) {
  for (size_t n = 1 + Below(2); n > 0; --n) PlanHeartbeat(stretch);
  for (size_t n = 1 + Below(2); n > 0; --n) PlanQuietStream(stretch);
  if (Chance(70)) PlanQuietPinger(stretch);
}

void WholeWorld::PlanHeartbeat(const Stretch& stretch) {
  Talker& talker = talkers_.emplace_back();
  talker.starts_ms = static_cast<DWORD>(Below(20'000));
  talker.beat_ms = kHeartbeatMs;
  talker.pause_ms = static_cast<DWORD>(Below(2) * 2000);
  talker.look_ms = kIdleLookMs;
  talker.style = static_cast<Style>(Below(4));
  const size_t servers = 1 + static_cast<size_t>(Below(std::size(kServers)));
  const uint32_t most = (stretch.length_ms - kEndsBeforeMs) / (kHeartbeatMs + talker.pause_ms);
  for (size_t n = 2 + Below(most); n > 0; --n) PlanDatagram(servers, &talker);
}

void WholeWorld::PlanQuietStream(const Stretch& stretch) {
  Stream& stream = streams_.emplace_back();
  stream.id = streams_.size() - 1;
  DrawStream({.servers = {std::begin(kServers), std::end(kServers)},
              .latest_ms = 20'000,
              .games = kAnyLeaving,
              .hosts = kAnyLeaving},
             &stream);
  stream.style = static_cast<Style>(Below(4));
  const auto says_little = [&](std::string* says, Manner* manner) {
    manner->pause_ms = static_cast<DWORD>(kHeartbeatMs / 2 + Below(kHeartbeatMs));
    manner->piece = static_cast<size_t>(1 + Below(200));
    const uint32_t most = (stretch.length_ms - kEndsBeforeMs) / manner->pause_ms;
    says->resize(std::min(says->size(), std::max(kHelloSize, manner->piece * (1 + Below(most)))));
    // One side leaves before the other has received all.
    manner->stays_ms = static_cast<DWORD>(Below(stretch.length_ms / 2));
  };
  says_little(&stream.up, &stream.game);
  says_little(&stream.down, &stream.host);
}

void WholeWorld::PlanQuietPinger(const Stretch& stretch) {
  Pinger& pinger = pingers_.emplace_back();
  pinger.server = Any(kServers);
  pinger.starts_ms = static_cast<DWORD>(Below(20'000));
  pinger.pause_ms = static_cast<DWORD>(60'000 + Below(180'000));
  pinger.pings = static_cast<int>(1 + Below((stretch.length_ms - kEndsBeforeMs) / pinger.pause_ms));
}

}  // namespace whole_test
