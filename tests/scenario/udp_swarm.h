// Random games on datagram sockets, under any faults. Records for each of their datagrams the
// content, who sent it when and to whom, and whether it arrived. Each of the swarms that use this
// adds its own faults.
//
// VYR_SWARM_SEEDS=3000 runs more seeds than usual.
#pragma once
#include <memory>

#include "tests/scenario/swarm_datagrams.h"
#include "tests/scenario/udp_world.h"
#include "tests/support/mended.h"

namespace udp_test {

using namespace swarm_test;  // NOLINT: the random draws of the swarms
using node::Behaviour;

inline constexpr size_t kWrappable = 2028;
inline constexpr size_t kLongestHeader = 120;
inline constexpr size_t kReceivable = 2048;

// One of the game's datagrams, and what happened to it.
struct Said {
  std::string text;
  const char* ip = kServer;
  int port = kPort;
  int error = -1;  // -1: not yet sent
  sim::Duration at{};
  std::string by;  // "A", "B" or "game": who delivered it to the server
  size_t arrived = 0;
  size_t answered = 0;

  std::string to() const { return std::string(ip) + ":" + std::to_string(port); }
  bool sent() const { return error == 0; }
};

// One socket and its traffic.
struct Player {
  std::vector<size_t> says;
  DWORD starts_ms = 0;
  DWORD pause_ms = 0;  // the longest pause between two datagrams
  bool reads = true;
  int senders = 1;
  DWORD stays_ms = 0;         // after its last datagram …
  bool leaves_early = false;  // … or after its first
  bool connects = false;      // to the destination of all it says
};

class UdpSwarm : public Swarm<UdpWorld> {
 protected:
  void Begins() {
    server->answer = [heard = &server->heard](const std::string& text) {
      return text.size() < kIdSize ? std::string() : AnswerTo(text, heard->back().to);
    };
    Starts(Chance(50) ? 4 : 9);
    base_sockets_ = HomeSockets();
  }

  // --- plans ---
  size_t AnySize() {
    const size_t bounds[] = {kWrappable, kWrappable + 1, kReceivable, kReceivable + 1, 5000};
    if (long_ones_ > 0 && Chance(5)) {
      --long_ones_;
      return bounds[Below(std::size(bounds))];
    }
    return kIdSize + static_cast<size_t>(Below(Chance(50) ? 4 : 200));
  }
  struct Place {
    const char* ip;
    int port;
  };
  // Records a new datagram to that place. Returns its number.
  size_t Says(const Place& place) {
    const size_t id = said_.size();
    Said one;
    one.ip = place.ip;
    one.port = place.port;
    one.text = Noise(IdText(id), world.seed() * 100'000 + id, AnySize());
    said_.push_back(one);
    return id;
  }
  Player AnyPlayer(size_t most) {
    Player player;
    player.starts_ms = static_cast<DWORD>(Below(2000));
    const DWORD pauses[] = {0, 3, 40, 300};
    player.pause_ms = pauses[Below(std::size(pauses))];
    const size_t destinations = static_cast<size_t>(Below(std::size(kPlaces))) + 1;
    if ((test::MendedInAllWorlds() & moru_vyr::lsp::kMendConnectedDatagram) != 0) {
      player.connects = Chance(40);
    }
    if (player.connects) {
      const Place& peer = kPlaces[Below(destinations)];
      for (size_t n = 1 + Below(most); n > 0; --n) player.says.push_back(Says(peer));
      return player;
    }
    for (size_t n = 1 + Below(most); n > 0; --n) {
      player.says.push_back(Says(kPlaces[Below(destinations)]));
    }
    return player;
  }

  // --- lives ---
  void Send(SOCKET s, size_t id, bool connected) {
    Said& one = said_[id];
    one.at = world.now();
    one.error = connected ? ErrorOf(SendText(s, one.text)) : Sends(s, one.text, one.ip, one.port);
  }
  // False if it has no use any more.
  bool Connects(SOCKET s, const Player& player) {
    const Said& first = said_[player.says.front()];
    const int error = ConnectTo(s, first.ip, first.port);
    if (error == 0) return true;
    for (const size_t id : player.says) said_[id].error = error;
    closesocket(s);
    return false;
  }
  void Play(const Player* player) {
    GameThread([this, player] {
      Sleep(player->starts_ms);
      const SOCKET s = Udp();
      if (s == INVALID_SOCKET) return;
      SetIntOption(s, SO_RCVBUF, 1 << 20);
      if (player->connects && !Connects(s, *player)) return;
      const auto senders = std::make_shared<int>(player->senders);
      const auto open = std::make_shared<bool>(true);
      for (int n = 0; n < player->senders; ++n) {
        GameThread([this, player, s, senders, n] {
          for (size_t i = static_cast<size_t>(n); i < player->says.size();
               i += static_cast<size_t>(player->senders)) {
            Send(s, player->says[i], player->connects);
            if (player->pause_ms > 0) Sleep(static_cast<DWORD>(Below(player->pause_ms + 1)));
          }
          --*senders;
        });
      }
      if (player->reads) {
        GameThread([this, player, s, open] {
          while (*open) Read(s, player->senders == 1, *open);
        });
      }
      while (*senders > 0 && !player->leaves_early) Sleep(10);
      Sleep(player->stays_ms);
      *open = false;
      closesocket(s);
    });
  }
  void Read(SOCKET s, bool knows_its_relay, const bool& open) {
    const Datagram came = Receives(s, 100);
    // Kept: the source of a datagram is unknown if its socket has been closed meanwhile.
    if (!open) knows_its_relay = false;
    if (came.from.empty() || came.from.rfind("error", 0) == 0) return;
    // A socket whose relay was replaced by a second request still receives answers to datagrams
    // that it sent through the first one.
    const bool from_relay = !knows_its_relay && came.from.rfind("127.0.0.1:", 0) == 0;
    // Kept: a direct flow passes on datagrams of any sender, even of a node that answers too late.
    const std::string from_ip = came.from.substr(0, came.from.find(':'));
    const bool from_node = from_ip == kNodeA || from_ip == kNodeB;
    if (from_node || (from_relay && came.text.substr(0, 2) != "R0")) return;
    if (came.text.empty() || came.text[0] != 'R' || IdOf(came.text, 1) >= said_.size()) {
      ADD_FAILURE() << "was never sent: " << came.text.substr(0, 60) << " from " << came.from;
      return;
    }
    Said& one = said_[IdOf(came.text, 1)];
    ++one.answered;
    EXPECT_TRUE(came.text == AnswerTo(one.text, one.to())) << came.text.substr(0, 60);
    if (from_relay) return;
    EXPECT_EQ(came.from, one.to()) << came.text.substr(0, 60) << "\n" << log_text();
  }

  // --- verdicts ---
  void CountArrivals() {
    for (Said& one : said_) one.arrived = 0;
    for (const Datagram& came : heard) {
      Said* const one = CountArrival(came.text, &said_);
      if (one == nullptr) continue;
      one->by = came.from;
      EXPECT_EQ(came.to, one->to()) << "misled: " << one->text.substr(0, 60) << "\n" << log_text();
    }
  }
  void ExpectAtMostOnce() {
    for (const Said& one : said_) {
      EXPECT_LE(one.arrived, one.sent() ? 1u : 0u)
          << one.text.substr(0, 30) << " to " << one.to() << ", error " << one.error;
      EXPECT_LE(one.answered, one.arrived) << one.text.substr(0, 30);
    }
  }
  void ExpectNoneLost() {
    for (const Said& one : said_) {
      EXPECT_TRUE(one.sent()) << one.error;
      if (one.text.size() > kReceivable) continue;
      EXPECT_EQ(one.arrived, 1u) << one.text.substr(0, 30) << ", " << one.text.size()
                                 << " bytes to " << one.to() << "\n"
                                 << log_text();
      // A node may put a longer header before the answer.
      if (one.text.size() > kWrappable) continue;
      if (AnswerTo(one.text, one.to()).size() > kWrappable - kLongestHeader) continue;
      EXPECT_EQ(one.answered, 1u) << one.text.substr(0, 30) << " to " << one.to();
    }
  }
  void ExpectNothingIsLeft() {
    RunUntil([this] { return HomeSockets() == base_sockets_; }, 5s);
    EXPECT_EQ(HomeSockets(), base_sockets_) << log_text();
  }
  void ExpectANewSocketWorks() {
    server->answer = [](const std::string& text) { return text; };
    const SOCKET s = Udp();
    EXPECT_EQ(Talks(s, "still there"), "still there from 198.51.100.10:27015") << log_text();
    closesocket(s);
    RunFor(100ms);
  }

  void Run(size_t most_players, size_t most_said, const std::function<void(Player*)>& adapt) {
    std::vector<std::unique_ptr<Player>> players;
    for (size_t n = 1 + Below(most_players); n > 0; --n) {
      players.push_back(std::make_unique<Player>(AnyPlayer(most_said)));
      adapt(players.back().get());
    }
    for (const auto& player : players) Play(player.get());
    EXPECT_TRUE(RunToTheEnd(10min)) << world.Report();
    RunFor(2s);
    CountArrivals();
  }

  // --- nodes and links ---
  // Lets flows move to the other node without a delay.
  void MaySwitch() {
    MayMeasureAndSwitch();
    Configures([this](moru_vyr::lsp::AccConfigRecord* config) {
      config->lost_calc_unit_size = 100 + static_cast<common::u32>(Below(200));
      config->high_freq_test_interval = 100;
      config->max_delay_avg = config->max_delay_amp = static_cast<common::u16>(100 + Below(900));
    });
  }
  Behaviour AnyNode() {
    Behaviour it;
    switch (Below(10)) {
      case 0:
        it.on_request = Behaviour::kSilent;
        break;
      case 1:
        it.on_request = Behaviour::kGarbage;
        it.garbage_bytes = 1 + static_cast<std::int64_t>(Below(100));
        break;
      case 2:
        it.result = 1 + static_cast<std::int64_t>(Below(255));
        break;
      case 3:
        it.isp = static_cast<std::int64_t>(Below(4));
        break;
      case 4:
        it.server = Behaviour::kRefuse;
        break;
      case 5:
        it.answer_version = 1 + static_cast<std::int64_t>(Below(3));
        break;
      case 6:
        it.answer_from = Behaviour::kOther;
        break;
      case 7:
        it.head_len = 20 + static_cast<std::int64_t>(Below(100));
        break;
      default:
        break;
    }
    if (Chance(30)) it.answers = 2;
    if (Chance(40)) it.answer_delay_ms = static_cast<std::int64_t>(Below(Chance(60) ? 500 : 7000));
    if (Chance(30)) it.data_down_jitter_ms = static_cast<std::int64_t>(Below(40));
    if (Chance(30)) it.data_up_jitter_ms = static_cast<std::int64_t>(Below(40));
    if (Chance(20)) it.data_up_reorder = 20;
    return it;
  }
  // Whether a negotiation with such a node may take the whole time that it is allowed.
  static bool IsSlow(const Behaviour& it) {
    return it.on_request == Behaviour::kSilent || it.answer_from == Behaviour::kOther ||
           it.answer_delay_ms > 500;
  }
  sim::LinkOptions AnyLink() {
    sim::LinkOptions link;
    link.delay = Ms(80);
    if (Chance(50)) link.jitter = Ms(30);
    if (Chance(20)) link.reorder = 0.1;
    return link;
  }

  static constexpr Place kPlaces[] = {
      {kServer, kPort},         {kServer, kSecondPort},   {kDirect, kPort},
      {kSecond, kPort},         {kForced, kPort},         {kUnlisted, kPort},
      {kSecond, kSecondPort},   {"198.51.100.15", kPort}, {"198.51.100.16", kPort},
      {"198.51.100.17", kPort}, {"198.51.100.18", kPort}, {"198.51.100.19", kPort},
      {"198.51.100.30", kPort}, {"198.51.100.31", kPort}, {"198.51.100.32", kPort}};

  std::vector<Said> said_;
  int long_ones_ = 8;
  size_t base_sockets_ = 0;
};

}  // namespace udp_test
