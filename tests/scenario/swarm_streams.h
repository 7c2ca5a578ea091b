// The streams of a swarm: what both sides of each send, how they read and leave, and what has
// arrived. All of it is drawn before the world begins to move.
#pragma once
#include "tests/scenario/swarm.h"
//
#include <cstdio>
#include <vector>

namespace swarm_test {

// Every stream begins with a line that tells the server which one it is.
inline constexpr size_t kHelloSize = 5;
inline std::string Hello(size_t id) {
  char text[24];
  std::snprintf(text, sizeof text, "%04zu\n", id);
  return text;
}

// How one side sends, reads and leaves.
struct Manner {
  // kHalfClosed ends its sending as soon as it has sent all, and reads on to the other side's end.
  enum Leaving {
    kWhenAllIsDone,
    kWhenThePeerHasLeft,
    kShutsFirst,
    kAfterSending,
    kByReset,
    kHalfClosed
  };
  size_t piece = 4096;
  DWORD pause_ms = 0;       // between pieces
  DWORD read_pause_ms = 0;  // before each read
  Leaving leaving = kWhenAllIsDone;
  DWORD stays_ms = 0;  // kByReset: after that long, wherever it is
};
using Leavings = std::vector<Manner::Leaving>;

// The ways to leave after which a stream that was cut short is no mistake. Half closing is none of
// them: where it is not mended, it ends the stream.
inline const Leavings kAnyLeaving = {Manner::kWhenAllIsDone, Manner::kWhenThePeerHasLeft,
                                     Manner::kShutsFirst, Manner::kAfterSending, Manner::kByReset};

struct StreamPlan {
  size_t id = 0;
  const char* server = nullptr;
  DWORD starts_ms = 0;
  std::string up, down;  // up begins with the hello
  Manner game, host;

  // The outcome.
  bool answered = false;  // the server knows of it
  size_t up_sent = 0, down_sent = 0;
  std::string up_got, down_got;
  std::string game_end, host_end;

  std::string Text() const {
    return "stream " + std::to_string(id) + " to " + server + ", " + game_end + " and " + host_end;
  }
  // The server has read its hello. False if it had done so before.
  bool ReachesTheServer(const std::string& hello) {
    EXPECT_FALSE(answered) << "stream " << id << " has reached the server twice";
    if (answered) return false;
    answered = true;
    up_got = hello;
    return true;
  }
  // What has arrived is the beginning of what was sent.
  void ExpectPrefixes() const {
    EXPECT_TRUE(up_got == up.substr(0, up_got.size())) << up_got.size() << " bytes";
    EXPECT_TRUE(down_got == down.substr(0, down_got.size())) << down_got.size() << " bytes";
  }
};

// From what a stream is drawn.
struct StreamChoice {
  std::vector<const char*> servers;
  DWORD latest_ms = 0;          // when it may start
  unsigned pauses_percent = 0;  // of the sides that pause between pieces
  unsigned long_percent = 0;    // and, of these, of those that pause for longer
  Leavings games, hosts;
};

template <class World>
class StreamSwarm : public Swarm<World> {
 protected:
  size_t AnySize() {
    const size_t bounds[] = {0, 1, 100, 8192, 70'000, 250'000};
    return static_cast<size_t>(this->Below(this->Any(bounds) + 1));
  }
  // `plan->id` is set already.
  void DrawStream(const StreamChoice& from, StreamPlan* plan) {
    const uint64_t noise = this->world.seed() * 1000 + plan->id * 2;
    plan->server = from.servers[this->Below(from.servers.size())];
    plan->starts_ms = static_cast<DWORD>(this->Below(from.latest_ms));
    plan->up = Noise(Hello(plan->id), noise, kHelloSize + AnySize());
    plan->down = Noise("", noise + 1, AnySize());
    plan->game = AnyManner(from, from.games, plan->up.size());
    plan->host = AnyManner(from, from.hosts, plan->down.size());
  }

 private:
  Manner AnyManner(const StreamChoice& from, const Leavings& leavings, size_t size) {
    const auto up_to = [this](uint64_t ms) { return static_cast<DWORD>(this->Below(ms)); };
    Manner manner;
    manner.piece = static_cast<size_t>(1 + this->Below(this->Chance(20) ? 100 : 20'000));
    manner.piece = std::max(manner.piece, size / 200);  // a world has an end
    if (this->Chance(from.pauses_percent)) {
      const bool is_long = from.long_percent > 0 && this->Chance(from.long_percent);
      manner.pause_ms = up_to(is_long ? 400 : 50);
    }
    if (this->Chance(20)) manner.read_pause_ms = up_to(50);
    manner.leaving = leavings[this->Below(leavings.size())];
    manner.stays_ms = up_to(8000);
    return manner;
  }
};

}  // namespace swarm_test
