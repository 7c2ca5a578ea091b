#include "tests/study/links.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <memory>

#include "common/text.h"
#include "common/unix_time.h"
#include "node/loss_meter.h"
#include "protocol/speed_test_payload.h"
#include "quality/link_watch.h"
#include "route/acc_config.h"
#include "tests/scenario/sim_sockets.h"
#include "tests/support/mended.h"
#include "tracker/tracker.h"

namespace study {
namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using common::u32;
using common::u64;
using common::u8;

constexpr u32 kTurnMs = 50;  // of the worker
// Turns between two datagrams of the game: 20 a second, four, and one in two seconds.
constexpr u32 kPaces[] = {1, 5, 40};
constexpr u32 kSwingMs = 3;  // each way
constexpr int kShortest = 20, kLongest = 150;

class Link {
 public:
  Link(sim::Random* random, const Losses& losses, u32 round_trip, u32 pace)
      : random_(*random), losses_(losses), round_trip_(round_trip), pace_(pace) {
    GetTracker().AddToWatchList(param_.socket, kTrackUdp, 1);
    AccInfo acc;
    acc.flag = kLinkMayBeMeasured | kLinkMaySwitch;
    param_.node_addr =
        sim_test::At("127.0.0.1", 7000);  // nobody listens: the answers are made here
    watch_.Start(param_, "", acc, {}, false);
  }

  void Turn() {
    const u64 now = common::UnixTimeMs();
    if (turn_++ % pace_ == 0) Plays(now);
    while (!on_the_way_.empty() && on_the_way_.front().at <= now) {
      const Arrival one = on_the_way_.front();
      on_the_way_.pop_front();
      if (one.probe != 0) {
        Answers(one);
      } else {
        watch_.OnData(one.seq, one.lost);
      }
    }
    while (TakesUp(watch_.OnUpdate(kTurnMs, true))) {
    }
    SpeedStats stats;
    GetTracker().GetSpeedTestResult(param_.socket, &stats);
    for (; probes < stats.frontend.last_send_seq; ++probes) {
      if (!IsLost(losses_.up) && !IsLost(losses_.down)) Arrives(now, {0, probes + 1, 0, 0, 0});
    }
  }

  u32 switches = 0, probes = 0;

 private:
  struct Arrival {
    u64 at = 0;
    u32 probe = 0;  // its number; 0: it is the game's
    u32 seq = 0;
    u8 lost = 0;
    u32 took = 0;
  };

  bool IsLost(double share) { return static_cast<double>(random_.Below(1'000'000)) < share * 1e6; }
  bool TakesUp(LinkRequest request) {
    if (request != LinkRequest::kSwitch) return false;
    ++switches;
    watch_.SwitchAnswered(true);
    return true;
  }
  void Arrives(u64 now, Arrival one) {
    one.took = round_trip_ + static_cast<u32>(random_.Below(2 * kSwingMs + 1));
    one.at = now + one.took;
    auto place = on_the_way_.end();
    while (place != on_the_way_.begin() && std::prev(place)->at > one.at) --place;
    on_the_way_.insert(place, one);
  }
  // One datagram and its answer, with what the node knows of the way up.
  void Plays(u64 now) {
    ++sent_;
    if (IsLost(losses_.up)) return;
    meter_.Note(sent_, now);
    ++answered_;
    if (!IsLost(losses_.down)) Arrives(now, {0, 0, answered_, meter_.Percent(now), 0});
  }
  void Answers(const Arrival& one) {
    SpeedTestPackage package;
    package.header.flags = kUdpAcclSpeedTest;
    package.header.seq = one.probe;
    package.payload.seq = one.probe;
    package.payload.send_time = common::UnixTimeMs() - one.took;
    u8 wire[sizeof package];
    package.Pack(wire);
    ProbeReply reply;
    if (!watch_.ReadReply(wire, sizeof wire, &reply)) return;
    while (TakesUp(watch_.OnReply(&reply))) {
    }
  }

  sim::Random& random_;
  const Losses losses_;
  const u32 round_trip_, pace_;
  SpeedTestParam param_{.socket = sim_test::Udp()};
  LinkWatch watch_;
  node::LossMeter meter_;
  std::deque<Arrival> on_the_way_;  // by the time of arrival
  u32 turn_ = 0, sent_ = 0, answered_ = 0;
};

}  // namespace

Health WatchLinks(sim::Random& random, const Losses& losses, const Settings& settings, int links,
                  int minutes) {
  WSADATA data;
  WSAStartup(MAKEWORD(2, 2), &data);
  const test::Mended mended(settings.mended);
  AccConfig config;
  config.game_id = 7;
  config.log_level = 6;
  settings.apply(&config);
  if (GetMending().FillsUnsetSettings()) FillUnsetSettings(&config);
  ReplaceAccConfig(config);
  std::vector<std::unique_ptr<Link>> all;
  for (int i = 0; i < links; ++i) {
    const int trip = kShortest + (kLongest - kShortest) * i / std::max(links - 1, 1);
    const u32 pace = kPaces[static_cast<std::size_t>(i) % std::size(kPaces)];
    all.push_back(std::make_unique<Link>(&random, losses, static_cast<u32>(trip), pace));
  }
  for (u32 turn = 0; turn < static_cast<u32>(minutes) * 60'000 / kTurnMs; ++turn) {
    Sleep(kTurnMs);
    for (const auto& link : all) link->Turn();
  }
  Health health;
  health.flow_hours = links * minutes / 60.0;
  for (const auto& link : all) {
    health.switches += static_cast<int>(link->switches);
    health.flows_moved += link->switches != 0 ? 1 : 0;
    health.probes += static_cast<int>(link->probes);
  }
  return health;
}

}  // namespace study
