// Random games whose node degrades at a random moment while another node is healthy. At stake: each
// datagram arrives at most once, unchanged, where it was sent, and is answered by that address;
// before the trouble begins, only what a hand-over may lose by rule is lost; and once a flow has
// moved, nothing is lost at all.
//
// A failure prints its seed and the command that runs it again.
#include "tests/scenario/udp_swarm.h"

namespace {

using namespace udp_test;  // NOLINT

class SwitchSwarm : public UdpSwarm {
 protected:
  // Longer than any datagram is under way on a healthy network.
  static constexpr sim::Duration kUnderWay = 1s;
  static constexpr sim::Duration kTimeToMove = 7s;

  sim::LinkOptions HealthyLink() {
    sim::LinkOptions link;
    link.delay = Ms(20);
    if (Chance(50)) link.jitter = Ms(10);
    return link;
  }
  // Some fifteen seconds of play to up to three servers, of which the last is reached directly.
  Player AnySteadyPlayer() {
    Player player;
    player.starts_ms = static_cast<DWORD>(Below(1500));
    player.pause_ms = static_cast<DWORD>(50 + Below(50));
    player.stays_ms = 2000;
    player.leaves_early = Chance(20);
    if (player.leaves_early) player.stays_ms = static_cast<DWORD>(Below(15'000));
    const Place places[] = {
        {kServer, kPort}, {kServer, kSecondPort}, {kSecond, kPort}, {kDirect, kPort}};
    const size_t destinations = 1 + static_cast<size_t>(Below(std::size(places)));
    for (DWORD ms = 0; ms < 15'000; ms += player.pause_ms / 2) {
      player.says.push_back(Says(places[Below(destinations)]));
    }
    return player;
  }

  // True if nothing can pass through A any more.
  bool Degrade() {
    sim::Host& home = world.home().host;
    sim::LinkOptions link = world.link(home, a_host);
    const auto percent = static_cast<common::u32>(20 + Below(70));
    switch (Below(6)) {
      case 0:
        link.partitioned = true;
        break;
      case 1:
        a.GoesDark();
        return true;
      case 2:
        link.loss = percent / 100.0;
        break;
      case 3:
        a.LosesDown(percent);
        return false;
      case 4:
        a.LosesUp(percent);
        return false;
      default:
        link.delay += 50ms + Ms(250);
        link.jitter += Ms(80);
    }
    world.SetLink(home, a_host, link);
    return link.partitioned;
  }

  // One player's datagrams to a server that is reached through a node, in their order.
  void ExpectFlow(const Player& player, const std::string& ip) {
    std::vector<const Said*> flow;
    size_t long_after = 0;
    for (const size_t id : player.says) {
      const Said& one = said_[id];
      if (one.ip != ip || !one.sent()) continue;
      flow.push_back(&one);
      if (one.at > trouble_ + kTimeToMove) ++long_after;
    }
    const auto moved =
        std::find_if(flow.begin(), flow.end(), [](const Said* one) { return one->by == "B"; });
    if (a_is_dead_ && long_after > 20) {
      EXPECT_NE(moved, flow.end()) << log_text();
    }
    for (auto one = flow.begin(); one != moved; ++one) {
      if ((*one)->at + kUnderWay >= trouble_) break;
      // What the old node has not delivered by then comes from an unknown sender.
      const bool strange = moved != flow.end() && (*one)->at + kUnderWay > (*moved)->at;
      ExpectArrived(**one, strange);
    }
    for (auto one = moved; one != flow.end(); ++one) {
      EXPECT_EQ((*one)->by, "B") << (*one)->text.substr(0, 30);
      ExpectArrived(**one, false);
    }
  }
  void ExpectArrived(const Said& one, bool answer_may_be_lost) {
    const std::string what = one.text.substr(0, 30) + " to " + one.to() + "\n";
    EXPECT_EQ(one.arrived, 1u) << what << log_text();
    if (!answer_may_be_lost) {
      EXPECT_EQ(one.answered, 1u) << what << log_text();
    }
  }
  void ExpectPlayed(const Player& player) {
    if (player.leaves_early) return;
    ExpectFlow(player, kServer);
    ExpectFlow(player, kSecond);
    for (const size_t id : player.says) {
      if (said_[id].ip == kDirect) {
        EXPECT_EQ(said_[id].answered, 1u);
      }
    }
  }

  sim::Duration trouble_{};
  bool a_is_dead_ = false;
};

SCENARIO_F_SEEDS(SwitchSwarm, AFlowThatMovesLosesNothingOfTheGames, SwarmSeeds(5)) {
  long_ones_ = 0;
  MaySwitch();
  SetAllLinks([this] { return HealthyLink(); });
  Begins();
  GameThread([this] {
    Sleep(static_cast<DWORD>(3000 + Below(5000)));
    const bool untouched = b.Count("request") == 0;
    trouble_ = world.now();
    a_is_dead_ = Degrade() && untouched;
  });
  std::vector<std::unique_ptr<Player>> players;
  for (size_t n = 1 + Below(2); n > 0; --n) {
    players.push_back(std::make_unique<Player>(AnySteadyPlayer()));
    Play(players.back().get());
  }
  EXPECT_TRUE(RunToTheEnd(10min)) << world.Report();
  RunFor(2s);
  CountArrivals();
  ExpectAtMostOnce();
  for (const auto& player : players) ExpectPlayed(*player);
  ExpectNothingIsLeft();
}

}  // namespace
