// What each command does to the catalogues, and what it refuses.
#include "tests/setup/world.h"

namespace {

using setup::Kind;
using setup::Outcome;
using setup::Protocol;
using setup::Result;
using setup_test::World;

bool AlwaysThere(const std::wstring&) { return true; }

const WSAPROTOCOL_INFOW* ServingTcp(const setup::CatalogueImage& image) {
  return setup::Serving(image, setup::kProtocols[0]);
}

TEST(SetupCommands, InstallLayersOverEachBaseEntryInBothCatalogues) {
  World world;
  EXPECT_EQ(world.Install().result, Result::kDone);
  for (const auto& [kind, image] : world.Now().catalogues) {
    ASSERT_EQ(image.entries.size(), 7U);
    const DWORD hidden = *setup::IdOf(image, {.own = true, .provider = setup::kHiddenGuid});
    EXPECT_EQ(setup::FindEntry(image, hidden)->ProtocolChain.ChainLen, LAYERED_PROTOCOL);
    EXPECT_NE(setup::FindEntry(image, hidden)->dwProviderFlags & PFL_HIDDEN, 0U);
    for (const Protocol& protocol : setup::kProtocols) {
      const WSAPROTOCOL_INFOW* serving = setup::Serving(image, protocol);
      ASSERT_NE(serving, nullptr);
      EXPECT_EQ(serving->ProviderId, protocol.guid);
      EXPECT_EQ(serving->dwServiceFlags1 & XP1_IFS_HANDLES, 0U);
      const std::vector<DWORD> chain = setup::ChainOf(*serving);
      ASSERT_EQ(chain.size(), 2U);
      EXPECT_EQ(chain[0], hidden);
      EXPECT_TRUE(setup::IsBase(*setup::FindEntry(image, chain[1])));
      EXPECT_EQ(setup::PathOf(image, protocol.guid), world.request.install.libraries.at(kind));
    }
  }
}

TEST(SetupCommands, AnotherInstallationHasNothingToDo) {
  World world;
  world.Install();
  EXPECT_EQ(world.Install().result, Result::kNothingToDo);
  EXPECT_FALSE(world.journal_file.content.has_value());
}

TEST(SetupCommands, UninstallLeavesExactlyWhatWasThere) {
  World world;
  world.AddForeign();
  world.request.exempt = {L"C:\\bank\\bank.exe"};
  const std::string before = world.Text();
  world.Install();
  EXPECT_TRUE(world.Text() != before);
  EXPECT_EQ(world.Uninstall().result, Result::kDone);
  EXPECT_TRUE(world.Text() == before);
  EXPECT_FALSE(world.undo.content.has_value());
}

TEST(SetupCommands, OnlyTheKindWithALibraryIsInstalled) {
  World world;
  world.request.install.libraries.erase(Kind::k64);
  world.Install();
  const setup::MachineImage now = world.Now();
  EXPECT_EQ(setup::OwnProviders(now.catalogues.at(Kind::k32)).size(), 4U);
  EXPECT_EQ(setup::OwnProviders(now.catalogues.at(Kind::k64)).size(), 0U);
}

TEST(SetupCommands, ADryRunSaysTheStepsAndMakesNone) {
  World world;
  const std::string before = world.Text();
  world.request.dry_run = true;
  const Outcome plan = world.Install();
  EXPECT_EQ(plan.steps.size(), 10U);
  EXPECT_TRUE(world.Text() == before);
  world.request.dry_run = false;
  EXPECT_EQ(world.Install().steps, plan.steps);
}

TEST(SetupCommands, WithoutRightsNothingChanges) {
  World world;
  const std::string before = world.Text();
  port::SetAdministrator(false);
  const Outcome outcome = world.Install();
  EXPECT_EQ(outcome.result, Result::kFailed);
  EXPECT_NE(outcome.problem.find("administrator"), std::string::npos) << outcome.problem;
  EXPECT_TRUE(world.Text() == before);
}

TEST(SetupCommands, AnotherProviderStaysFirst) {
  World world;
  world.AddForeign();
  world.Install();
  const setup::MachineImage now = world.Now();
  const auto status = setup::Inspect(now, AlwaysThere);
  EXPECT_EQ(ServingTcp(now.catalogues.at(Kind::k32))->ProviderId, setup_test::kForeignLayer);
  EXPECT_EQ(status[0].state, setup::State::kComplete);
  EXPECT_EQ(status[0].warnings.size(), 2U);  // TCP and UDP
  EXPECT_EQ(status[0].others.size(), 3U);
}

TEST(SetupCommands, OverOthersLeadsThroughTheOtherProvider) {
  World world;
  world.AddForeign();
  world.request.install.over_others = true;
  world.Install();
  const setup::CatalogueImage image = world.Now().catalogues.at(Kind::k32);
  const WSAPROTOCOL_INFOW* serving = ServingTcp(image);
  EXPECT_EQ(serving->ProviderId, setup::kProtocols[0].guid);
  const std::vector<DWORD> chain = setup::ChainOf(*serving);
  ASSERT_EQ(chain.size(), 3U);
  EXPECT_EQ(chain[1], 1011U);
  EXPECT_EQ(chain[2], 1001U);
}

TEST(SetupCommands, WhatAnotherProviderIsBuiltOnIsNotRemoved) {
  World world;
  world.Install();
  auto entries = port::Catalogue();
  const DWORD ours = ServingTcp(world.Now().catalogues.at(Kind::k32))->dwCatalogEntryId;
  entries.push_back(port::MakeEntry(setup_test::kForeignLayer, 1050, SOCK_STREAM, IPPROTO_TCP,
                                    {1051, ours, 1001}));
  port::SetCatalogue(entries);
  const std::string before = world.Text();
  const Outcome outcome = world.Uninstall();
  EXPECT_EQ(outcome.result, Result::kRefused);
  EXPECT_NE(outcome.problem.find("layered over"), std::string::npos) << outcome.problem;
  EXPECT_TRUE(world.Text() == before);
}

// The provider that the library was installed over has gone: sockets fail until the repair.
TEST(SetupCommands, RepairMendsAChainThatLeadsToNothing) {
  World world;
  world.AddForeign();
  world.request.install.over_others = true;
  world.Install();
  auto entries = port::Catalogue();
  std::erase_if(entries, [](const WSAPROTOCOL_INFOW& entry) {
    return entry.ProviderId == setup_test::kForeignLayer ||
           entry.ProviderId == setup_test::kForeignHidden;
  });
  port::SetCatalogue(entries);
  EXPECT_FALSE(world.NetworkWorks());
  EXPECT_EQ(setup::Inspect(world.Now(), AlwaysThere)[0].state, setup::State::kDamaged);
  EXPECT_EQ(world.Repair().result, Result::kDone);
  EXPECT_TRUE(world.NetworkWorks());
  EXPECT_EQ(setup::Inspect(world.Now(), AlwaysThere)[0].state, setup::State::kComplete);
}

TEST(SetupCommands, RepairWithoutAFileRemovesTheLibrary) {
  World world;
  const std::string before = world.Text();
  world.Install();
  world.request.install.libraries.clear();
  const auto gone = [](const std::wstring&) { return false; };
  const setup::Records records = {&world.journal, &world.undo};
  EXPECT_EQ(setup::Repair(world.machine(), records, world.request, gone).result, Result::kDone);
  EXPECT_TRUE(world.Text() == before);
}

// As on a platform whose calls say yes to everything.
class DoesNothing : public setup_test::CutMachine {
 public:
  using CutMachine::CutMachine;
  int Install(Kind, const setup::Provider&) override { return 0; }
};

TEST(SetupCommands, ACallThatOnlySaysYesIsAFailure) {
  World world;
  const std::string before = world.Text();
  DoesNothing machine(world.machine(), &world.fuse);
  const setup::Records records = {&world.journal, &world.undo};
  const Outcome outcome = setup::Install(&machine, records, world.request);
  EXPECT_EQ(outcome.result, Result::kFailed);
  EXPECT_NE(outcome.problem.find("the catalogue is the same"), std::string::npos);
  EXPECT_TRUE(world.Text() == before);
}

TEST(SetupCommands, AJournalThatCannotBeReadStopsEverything) {
  World world;
  world.journal_file.content = "{\n";
  EXPECT_EQ(world.Install().result, Result::kUnfinished);
  EXPECT_TRUE(world.journal_file.content.has_value());
}

}  // namespace
