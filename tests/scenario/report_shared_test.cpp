// Games that write to one client's channels at once, and processes that die while they hold a
// mutex: the survivors lose nothing of their own, and no slot holds a mixture of two reports.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "common/log.h"
#include "common/named_mutex.h"
#include "common/process_info.h"
#include "common/text.h"
#include "port/sim/scenario.h"
#include "relay/nego_common.h"
#include "tests/support/log_capture.h"
#include "tests/support/tracker_fixture.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using common::u32;
using common::u64;
using test::SomeDecision;

constexpr u64 kGameId = 7;
constexpr u32 kLastWord = 0xfedcba98;

std::string LongText(std::size_t size) { return std::string(size, 't'); }

const ReportChannel* const kChannels[] = {
    &kDecisionChannel,        &kCommunicationChannel,  &kNegotiationResultChannel,
    &kRealNegotiationChannel, &kRecoverySwitchChannel, &kLogPathChannel,
    &kLoadedChannel};

// Whether everything that the game put in is there, from the first field to the last.
bool IsWhole(const AccDecisionInfo& r) {
  AccDecisionInfo made = SomeDecision(r.guid);
  made.glt_word = kLastWord;
  return std::memcmp(&r, &made, sizeof r) == 0;
}
bool IsWhole(const CommInfoRecord& r) {
  return r.game_id == kGameId && r.game_idc == 11 && *r.guid_str != '\0' && r.section2_delay == 40;
}
bool IsWhole(const NegRetRecord& r) {
  return r.neg_type == 1 && r.game_id == kGameId && r.elapsed_ms == 5000 && *r.guid != '\0';
}
bool IsWhole(const RealNegoRecord& r) {
  return r.game_id == kGameId && r.proxy_port == 7001 && r.game_port == 27015 && r.stamp != 0;
}
bool IsWhole(const RecoverySwitchRecord& r) {
  return r.game_id == kGameId && std::string(r.fe_be) == LongText(119);
}
bool IsWhole(const LogPathRecord& r) {
  return r.game_id == kGameId && std::string(r.log_path) == LongText(259);
}
bool IsWhole(const LspLoadedRecord& r) {
  return r.game_id == kGameId && std::string(r.process_name) == LongText(259);
}

class ReportShared : public sim::ScenarioTest {
 protected:
  ReportShared() {
    AccConfigRecord config;
    config.game_id = kGameId;
    ReplaceAccConfig(config);
    common::SetFieldText(common::GetProcessInfo().log_file_path, LongText(259));
    common::SetFieldText(common::GetProcessInfo().process_name, LongText(259));
  }

  using Told = std::map<std::string, std::vector<std::string>>;  // by game and channel

  // A game that makes and ends connections: each is a refusal, a success, a move and an end, or a
  // direct connection. Its name says which reports it should have made.
  sim::Process& PlaysAs(const std::string& game) {
    ++playing_;
    return world.SpawnOn(world.host("home"), game, [this, game] {
      const auto tracker = std::make_unique<Tracker>();
      tracker->Init();
      for (u32 i = 0; i < kConnections; ++i) {
        Connect(*tracker, game + "-" + std::to_string(i), 100 + i);
        Sleep(static_cast<DWORD>(world.random().Below(300)));
      }
      tracker->UnInit();
      ++ended_;
    });
  }

  // Takes reports out of their slots, again and again.
  sim::Process& Watches() {
    return world.SpawnOn(world.host("home"), "client", [this] {
      for (;;) {
        TakeAll();
        Sleep(20);
      }
    });
  }
  void TakeAll() {
    Take(kDecisionChannel, client.decisions, [](const AccDecisionInfo& r) { return r.guid; });
    Take(kCommunicationChannel, client.traffic,
         [](const CommInfoRecord& r) { return r.ended != 0 ? r.guid_str : ""; });
    Take(kNegotiationResultChannel, client.failures, [](const NegRetRecord& r) { return r.guid; });
    Take(kRealNegotiationChannel, client.negotiations,
         [](const RealNegoRecord& r) { return r.guid; });
    Take(kRecoverySwitchChannel, client.switches,
         [](const RecoverySwitchRecord& r) { return r.guid; });
    Take(kLogPathChannel, client.log_paths, [](const LogPathRecord&) { return ""; });
    Take(kLoadedChannel, client.loaded, [](const LspLoadedRecord&) { return ""; });
  }
  // In the order of a game's connections.
  static std::vector<std::string> AllOf(const std::string& game, u32 first, u32 step) {
    std::vector<std::string> all;
    for (u32 i = first; i < kConnections; i += step) all.push_back(game + "-" + std::to_string(i));
    return all;
  }
  void ExpectToldAll(const std::string& game) {
    EXPECT_EQ(told_[game + kDecisionChannel.mapping_name], AllOf(game, 0, 1));
    EXPECT_EQ(told_[game + kCommunicationChannel.mapping_name], AllOf(game, 0, 2));
    EXPECT_EQ(told_[game + kNegotiationResultChannel.mapping_name], AllOf(game, 0, 2));
    EXPECT_EQ(told_[game + kRealNegotiationChannel.mapping_name], AllOf(game, 0, 2));
    EXPECT_EQ(told_[game + kRecoverySwitchChannel.mapping_name], AllOf(game, 0, 2));
  }
  bool RunsToTheEnd() {
    return RunUntil([this] { return ended_ == playing_; });
  }

  test::ReportClient client;
  Told told_;
  int playing_ = 0;
  int ended_ = 0;
  u32 starts_ = 0;
  u32 torn_ = 0;

 private:
  static constexpr u32 kConnections = 20;

  static void Connect(Tracker& tracker, const std::string& guid, SOCKET socket) {
    const bool is_acce = (socket - 100) % 2 == 0;
    AccDecisionInfo decision = SomeDecision(guid);
    decision.glt_word = kLastWord;
    tracker.AddToWatchList(socket, kTrackUdp, 1);
    tracker.SetAcceInfo(socket, is_acce, &decision);
    if (is_acce) {
      tracker.RecordNegFailed(socket, 1, kNegoTimedOut, &decision, 5000, 1);
      tracker.RecordNegSuccess(socket, 1, 1, 1, 1, &decision);
      RecoverySwitchRecord move;
      move.game_id = kGameId;
      common::SetFieldText(move.guid, guid);
      common::SetFieldText(move.fe_be, LongText(119));
      tracker.SubmitRecoverySwitch(&move);
    }
    tracker.RemoveFromWatchList(socket);
  }

  template <typename Region, typename Guid>
  void Take(const ReportChannel& channel, test::ClientRegion<Region>& region, Guid guid_of) {
    common::NamedMutex mutex(channel.mutex_name);
    const common::NamedMutexGuard hold(&mutex, false);
    for (auto& slot : region->slots) {
      if (slot.used == 0) continue;
      if (!IsWhole(slot)) ++torn_;
      const std::string guid = guid_of(slot);
      if (!guid.empty())
        told_[guid.substr(0, guid.find('-')) + channel.mapping_name].push_back(guid);
      if (&channel == &kLoadedChannel) ++starts_;
      slot.used = 0;
    }
  }
};

SCENARIO_F_SEEDS(ReportShared, GamesThatReportAtOnceLoseNoReport, 6) {
  const test::LogCapture log(4);
  Watches();
  PlaysAs("dawn");
  PlaysAs("dusk");
  PlaysAs("noon");
  ASSERT_TRUE(RunsToTheEnd());
  TakeAll();
  for (const char* game : {"dawn", "dusk", "noon"}) ExpectToldAll(game);
  EXPECT_EQ(starts_, 3u);
  EXPECT_FALSE(log.Contains("failed")) << log.Text();
}

SCENARIO_F_SEEDS(ReportShared, AClientReplacesOneThatDiedWithAnyMutex, 6) {
  PlaysAs("dawn");
  PlaysAs("dusk");
  for (const ReportChannel* channel : kChannels) {
    sim::Process& victim = Watches();
    RunFor(std::chrono::milliseconds(world.random().Below(200)));
    world.KillWhenItHolds(victim, channel->mutex_name);
    ASSERT_TRUE(RunUntil([&] { return !victim.alive; }, 10s));
  }
  Watches();
  ASSERT_TRUE(RunsToTheEnd());
  TakeAll();
  ExpectToldAll("dawn");
  ExpectToldAll("dusk");
}

// A game that is ended in the middle of a report leaves the slot free or whole.
SCENARIO_F_SEEDS(ReportShared, AGameThatDiesWithAnyMutexDoesNotAffectTheOthers, 6) {
  Watches();
  PlaysAs("dawn");
  for (const ReportChannel* channel : kChannels) {
    sim::Process& victim = PlaysAs("dusk");
    --playing_;
    world.KillWhenItHolds(victim, channel->mutex_name);
    ASSERT_TRUE(RunUntil([&] { return !victim.alive; }, 10s)) << channel->mapping_name;
  }
  ASSERT_TRUE(RunsToTheEnd());
  TakeAll();
  ExpectToldAll("dawn");
  std::set<std::string> known;
  for (const std::string& guid : AllOf("dusk", 0, 1)) known.insert(guid);
  for (const auto& [what, guids] : told_) {
    if (what.rfind("dusk", 0) != 0) continue;
    for (const std::string& guid : guids) EXPECT_TRUE(known.contains(guid)) << guid;
  }
}

// Between any two writes of a copy, of one of its own reports or of any game's after it.
SCENARIO_F_SEEDS(ReportShared, AGameThatDiesDuringACopyLeavesTheSlotFreeOrComplete, 8) {
  common::SetLogThreshold(6);
  Watches();
  PlaysAs("dawn");
  for (const ReportChannel* channel : kChannels) {
    sim::Process& victim = PlaysAs("dusk");
    --playing_;
    // The shortest report is written in two: its body and the mark.
    world.KillAtWrite(victim, channel->mapping_name,
                      1 + static_cast<unsigned>(world.random().Below(2)));
    ASSERT_TRUE(RunUntil([&] { return !victim.alive; }, 10s)) << channel->mapping_name;
  }
  ASSERT_TRUE(RunsToTheEnd());
  TakeAll();
  EXPECT_EQ(torn_, 0u);
  ExpectToldAll("dawn");
}

}  // namespace
