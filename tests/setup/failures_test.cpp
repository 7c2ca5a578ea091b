// Every call of an installation fails in turn, with every error that Windows documents for it, once
// and for good; and the process is killed at every point, also while it undoes a failure.
// Afterwards, or after the next run, both catalogues are exactly the old ones or the new ones. What
// sockets need is whole at every such moment.
#include <cstdio>
#include <map>

#include "tests/setup/world.h"

namespace {

using setup::Outcome;
using setup::Result;
using setup_test::Cut;
using setup_test::World;

// A command, and what it finds.
struct Situation {
  const char* name;
  void (*prepare)(World* world);
  Outcome (World::*command)();
};

void Nothing(World*) {}
void Foreign(World* world) { world->AddForeign(); }
void ForeignBelow(World* world) {
  world->AddForeign();
  world->request.install.over_others = true;
}
void Exempt(World* world) { world->request.exempt = {L"C:\\bank\\bank.exe"}; }
void Installed(World* world) { world->Install(); }
void InstalledExempt(World* world) {
  Exempt(world);
  world->Install();
}
void OldVersion(World* world) {
  world->request.install.libraries = {{setup::Kind::k32, L"C:\\old\\vyr_lsp.dll"},
                                      {setup::Kind::k64, L"C:\\old\\vyr_lsp64.dll"}};
  world->Install();
  world->request = World().request;
}
// Another installer has put the base entries first.
void WrongOrder(World* world) {
  world->Install();
  auto entries = port::Catalogue();
  std::rotate(entries.begin(), entries.end() - 1, entries.end());
  std::ranges::stable_partition(
      entries, [](const WSAPROTOCOL_INFOW& entry) { return setup::IsBase(entry); });
  port::SetCatalogue(entries);
}
// One of ours was removed.
void LostLayer(World* world) {
  world->Install();
  auto entries = port::Catalogue();
  std::erase_if(entries, [](const WSAPROTOCOL_INFOW& entry) {
    return entry.ProviderId == setup::kProtocols[1].guid;
  });
  port::SetCatalogue(entries);
  port::RemoveProviderPath(setup::kProtocols[1].guid);
}

constexpr Situation kSituations[] = {
    {"install", Nothing, &World::Install},
    {"install beside another provider", Foreign, &World::Install},
    {"install over another provider", ForeignBelow, &World::Install},
    {"install with an exempt program", Exempt, &World::Install},
    {"install over an old version", OldVersion, &World::Install},
    {"uninstall", Installed, &World::Uninstall},
    {"uninstall with an exempt program", InstalledExempt, &World::Uninstall},
    {"repair the order", WrongOrder, &World::Repair},
    {"repair a lost entry", LostLayer, &World::Repair},
};

struct Failure {
  const char* call;
  std::vector<DWORD> errors;
};
const std::vector<Failure>& Failures() {
  static const std::vector<Failure> all = {
      {"WSCEnumProtocols", {WSAEFAULT, WSAEINVAL, WSAENOBUFS}},
      {"WSCGetProviderPath", {WSAEFAULT, WSAEINVAL, WSAEINVALIDPROVIDER}},
      {"WSCInstallProvider",
       {WSAEACCES, WSAEFAULT, WSAEINVAL, WSANO_RECOVERY, WSA_NOT_ENOUGH_MEMORY, 0}},
      {"WSCDeinstallProvider", {WSAEACCES, WSAEFAULT, WSAEINVAL, WSANO_RECOVERY, 0}},
      {"WSCWriteProviderOrder",
       {WSAEACCES, WSAEFAULT, WSAEINVAL, WSATRY_AGAIN, WSANO_RECOVERY, ERROR_BUSY}},
      {"WSCSetApplicationCategory", {WSAEFAULT, WSAEINVAL, WSANO_RECOVERY}},
      {"WSCGetApplicationCategory", {WSAEFAULT, WSAEINVAL, WSANO_RECOVERY}},
      {"journal Read", {1}},
      {"journal Write", {1}},
      {"journal Append", {1}},
      {"journal Remove", {1}},
      {"undo Write", {1}},
      {"undo Remove", {1}},
  };
  return all;
}

constexpr int kMostPoints = 500;
constexpr unsigned kMostCalls = 200;

struct Counts {
  int kills = 0;
  int failures = 0;
  int lasting = 0;
  int failures_with_kill = 0;
};

class SetupFailures : public testing::TestWithParam<size_t> {
 protected:
  const Situation& situation() const { return kSituations[GetParam()]; }

  std::string OldText() {
    World world;
    situation().prepare(&world);
    return world.Text();
  }
  std::string NewText() {
    World world;
    situation().prepare(&world);
    const Outcome outcome = (world.*situation().command)();
    EXPECT_EQ(outcome.result, Result::kDone) << outcome.problem;
    return world.Text();
  }

  // Runs the command up to the cut; false if it came to its end before.
  bool RunIntoCut(World* world, int points) {
    world->fuse.Set(points);
    bool cut = false;
    try {
      (world->*situation().command)();
    } catch (const Cut&) {
      cut = true;
    }
    world->fuse.Off();
    return cut;
  }

  // After whatever has happened: the catalogues are the old or the new ones, at the latest when
  // the next run has looked at the journal.
  void ExpectOldOrNew(World* world, const std::string& what) {
    EXPECT_TRUE(world->NetworkWorks()) << what;
    const bool had_journal = world->journal_file.content.has_value();
    const Outcome next = world->Recover();
    EXPECT_NE(next.result, Result::kUnfinished) << what << ": " << next.problem;
    EXPECT_FALSE(world->journal_file.content.has_value()) << what;
    const std::string text = world->Text();
    if (had_journal) {
      EXPECT_TRUE(text == old_) << what;
    } else {
      EXPECT_TRUE(text == old_ || text == new_) << what;
    }
  }

  // The same command in the next run finishes the work.
  void ExpectNewAfterAnotherRun(World* world, const std::string& what) {
    const Outcome again = (world->*situation().command)();
    EXPECT_TRUE(again.result == Result::kDone || again.result == Result::kNothingToDo)
        << what << ": " << again.problem;
    EXPECT_TRUE(world->Text() == new_) << what;
  }

  void KillEverywhere(Counts* counts) {
    for (int point = 1; point < kMostPoints; ++point) {
      World world;
      situation().prepare(&world);
      if (!RunIntoCut(&world, point)) return;
      const std::string what = "killed at point " + std::to_string(point);
      if (point % 2 == 0) ExpectOldOrNew(&world, what);
      ExpectNewAfterAnotherRun(&world, what);
      ++counts->kills;
    }
    ADD_FAILURE() << "no end";
  }

  // How often the command makes a call when nothing fails.
  unsigned CallsOf(const char* call) {
    World world;
    situation().prepare(&world);
    port::ClearFaults();
    port::CountCalls();
    (world.*situation().command)();
    return std::min(port::CallCount(call), kMostCalls);
  }

  void FailOnce(const char* call, DWORD error, unsigned nth, Counts* counts) {
    const std::string what = std::string(call) + " " + std::to_string(nth) + " fails with " +
                             std::to_string(error) + " once";
    World world;
    situation().prepare(&world);
    port::FailCall(call, nth, error);
    const Outcome outcome = (world.*situation().command)();
    port::ClearFaults();
    if (outcome.result == Result::kFailed) {
      EXPECT_TRUE(world.Text() == old_) << what;
      EXPECT_FALSE(outcome.problem.empty()) << what;
    }
    if (outcome.result == Result::kDone) {
      EXPECT_TRUE(world.Text() == new_) << what;
    }
    ExpectOldOrNew(&world, what);
    ++counts->failures;
  }

  // From the n-th call on, so that undoing fails as well.
  void FailForGood(const char* call, DWORD error, unsigned nth, unsigned calls, Counts* counts) {
    const std::string what = std::string(call) + " fails with " + std::to_string(error) +
                             " from call " + std::to_string(nth) + " on";
    World world;
    situation().prepare(&world);
    for (unsigned n = nth; n <= calls + kMostCalls / 4; ++n) port::FailCall(call, n, error);
    const Outcome outcome = (world.*situation().command)();
    port::ClearFaults();
    if (outcome.result == Result::kUnfinished) {
      EXPECT_FALSE(outcome.problem.empty()) << what;
    }
    ExpectOldOrNew(&world, what);
    ++counts->lasting;
  }

  void FailOnceAndKill(const char* call, DWORD error, unsigned nth, Counts* counts) {
    for (int point = 1; point < kMostPoints; ++point) {
      World world;
      situation().prepare(&world);
      port::FailCall(call, nth, error);
      const bool cut = RunIntoCut(&world, point);
      port::ClearFaults();
      if (!cut) return;
      ExpectOldOrNew(&world, std::string(call) + " " + std::to_string(nth) +
                                 " fails, killed at point " + std::to_string(point));
      ++counts->failures_with_kill;
    }
  }

  void FailEverywhere(Counts* counts) {
    for (const Failure& failure : Failures()) {
      const unsigned calls = CallsOf(failure.call);
      for (unsigned nth = 1; nth <= calls; ++nth) {
        for (const DWORD error : failure.errors) {
          FailOnce(failure.call, error, nth, counts);
        }
        FailForGood(failure.call, failure.errors.back(), nth, calls, counts);
        // Reads change nothing: a kill beside a read that fails is a kill beside one that does not.
        const bool writes = std::string(failure.call).find("Enum") == std::string::npos &&
                            std::string(failure.call).find("Get") == std::string::npos;
        if (writes) FailOnceAndKill(failure.call, failure.errors.front(), nth, counts);
      }
    }
  }

  std::string old_;
  std::string new_;
};

TEST_P(SetupFailures, LeaveTheOldCatalogueOrTheNew) {
  old_ = OldText();
  new_ = NewText();
  ASSERT_TRUE(old_ != new_);
  Counts counts;
  KillEverywhere(&counts);
  FailEverywhere(&counts);
  EXPECT_GT(counts.kills, 5);
  EXPECT_GT(counts.failures, 10);
  EXPECT_GT(counts.failures_with_kill, 10);
  const int all = counts.kills + counts.failures + counts.lasting + counts.failures_with_kill;
  std::printf("| %-32s | %5s | %13s | %13s | %12s | %5s |\n", "", "kills", "call x error",
              "for good", "call x kill", "all");
  std::printf("| %-32s | %5d | %13d | %13d | %12d | %5d |\n", situation().name, counts.kills,
              counts.failures, counts.lasting, counts.failures_with_kill, all);
}

INSTANTIATE_TEST_SUITE_P(Situations, SetupFailures,
                         testing::Range(size_t{0}, std::size(kSituations)));

}  // namespace
