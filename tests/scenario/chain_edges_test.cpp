// Edge cases of starting a provider. At stake: a process that starts and cleans up for days, and a
// catalogue with other layers between this one and the platform's provider.
#include <gtest/gtest.h>

#include <cstring>

#include "common/process_info.h"
#include "port/shared/backend.h"
#include "port/shared/catalogue.h"
#include "port/shared/faults.h"
#include "port/shared/modules.h"
#include "port/shared/text.h"
#include "port/sim/scenario.h"
#include "start/base_startup.h"
#include "start/catalogue.h"
#include "start/provider_loader.h"
#include "start/provider_match.h"
#include "tests/scenario/game_process.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using port::kBaseProviderGuid;
using port::MakeEntry;
using test::Foreign;
using test::GameProcess;
using test::kForeignGuid;
using test::kLayerGuid;
using test::LayeredTcp;

// --- starting over and over -------------------------------------------------------------------

SCENARIO(ChainEdges, AProcessMayStartItsProvidersAnyNumberOfTimes) {
  GameProcess game;
  game.ListAsGame();
  for (int i = 0; i < 20; ++i) {
    for (const int protocol : {6, 17, 0}) EXPECT_EQ(game.Start(protocol), 0) << i;
    INT error = 0;
    game.table.lpWSPCleanup(&error);
  }
}

// Also if each of its starts fails.
SCENARIO(ChainEdges, AStartThatFailsDoesNotCountTowardsTheDepthOfTheNext) {
  GameProcess game;
  game.LayerOverForeign();
  WSAPROTOCOL_INFOW raw = LayeredTcp(2900, {GameProcess::kOwnId, GameProcess::kForeignId});
  raw.iProtocol = 99;  // without a switch of its own, so that each start resolves the chain
  auto catalogue = port::Catalogue();
  catalogue.push_back(raw);
  port::SetCatalogue(catalogue);
  Foreign().result = -1;
  for (int i = 0; i < 20; ++i) EXPECT_EQ(game.Start(&raw), 10106);
  EXPECT_EQ(Foreign().starts, 20);
  Foreign().result = 0;
  EXPECT_EQ(game.Start(&raw), 0);
}

// --- the start past every layer ---------------------------------------------------------------

// The base entry belongs to a provider other than the port's, so that its start can be observed.
void MakeForeignTheBase() {
  port::SetCatalogue(
      {MakeEntry(kForeignGuid, GameProcess::kForeignId, SOCK_STREAM, 6, {}),
       MakeEntry(kLspGuid, GameProcess::kOwnId, SOCK_STREAM, 6, {GameProcess::kOwnId})});
}

SCENARIO(ChainEdges, ABaseStartGetsTheCallersArguments) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  MakeForeignTheBase();
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 1), &game.data, &info, game.upcalls, &game.table), 0);
  EXPECT_EQ(Foreign().version, MAKEWORD(2, 1));
  EXPECT_EQ(std::memcmp(&Foreign().upcalls, &game.upcalls, sizeof game.upcalls), 0);
  EXPECT_EQ(Foreign().info.dwCatalogEntryId, GameProcess::kForeignId);
  EXPECT_EQ(game.data.wHighVersion, 0x0302);
  EXPECT_EQ(std::memcmp(&game.table, &Foreign().table, sizeof game.table), 0);
}

// 259 characters and their end are what an expanded path may have here.
SCENARIO(ChainEdges, TheLongestBasePathIsLoaded) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  for (const std::size_t size : {std::size_t{259}, std::size_t{260}}) {
    const std::wstring directory = L"C:\\" + std::wstring(size - 9, L'd');
    const std::wstring path = directory + L"\\a.dll";
    ASSERT_EQ(path.size(), size);
    const std::wstring cut = path.substr(0, 259);
    port::RegisterModule(path, {});
    port::RegisterModule(cut, {});
    port::SetEnvironment(L"VYR_LONG_DIRECTORY", directory);
    port::SetProviderPath(kBaseProviderGuid, L"%VYR_LONG_DIRECTORY%\\a.dll");
    EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
    EXPECT_EQ(port::LoadsEver(path), size == 259 ? 1 : 0) << size;
    EXPECT_EQ(port::LoadsEver(cut), size == 259 ? 1 : 0) << "nor is another file loaded";
    EXPECT_EQ(port::LoadCount(path), 0) << "it has no start function, and is let go";
  }
}

// The same holds for a path that the catalogue gives without variables.
SCENARIO(ChainEdges, TheLongestBasePathOfTheCatalogueIsLoaded) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  for (const std::size_t size : {std::size_t{259}, std::size_t{260}}) {
    const std::wstring path = L"C:\\" + std::wstring(size - 9, L'd') + L"\\b.dll";
    ASSERT_EQ(path.size(), size);
    port::RegisterModule(path, {});
    port::SetProviderPath(kBaseProviderGuid, path);
    EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
    EXPECT_EQ(port::LoadsEver(path), size == 259 ? 1 : 0) << size;
  }
}

// --- what is read of the catalogue ------------------------------------------------------------

// The memory ends with the entries that were announced.
SCENARIO(ChainEdges, ACatalogueThatClaimsMoreEntriesThanItGivesIsReadAsFarAsItGoes) {
  GameProcess game;
  port::ClaimMoreEntries(5);
  int count = 0;
  const GlobalPtr<WSAPROTOCOL_INFOW> entries(GetProtocols(&count));
  ASSERT_NE(entries, nullptr);
  EXPECT_EQ(count, static_cast<int>(port::Catalogue().size()));
}

SCENARIO(ChainEdges, ACatalogueThatCannotBeReadHasNoEntries) {
  const WSAPROTOCOL_INFOW entry{};
  for (const int count : {-1, 0}) EXPECT_TRUE(EntriesOf(&entry, count).empty()) << count;
}

SCENARIO(ChainEdges, WhatWasReadOfTheCatalogueIsReleased) {
  GameProcess game;
  port::CountCalls();
  {
    LspProvider* list = nullptr;
    int count = 0;
    ASSERT_TRUE(GetProviders(&list, &count));
    const GlobalPtr<LspProvider> owner(list);
    const auto unknown = MakeEntry(kForeignGuid, 3001, SOCK_RAW, 98, {7777, 1001});
    EXPECT_EQ(FindMatchingProvider(&unknown, list, count), nullptr);
  }
  EXPECT_EQ(port::CallCount("GlobalAlloc"), 3u) << "two catalogues and the list";
  EXPECT_EQ(port::CallCount("GlobalFree"), 3u);
}

// --- this provider's own entries --------------------------------------------------------------

// Down to the last byte.
SCENARIO(ChainEdges, AGuidThatDiffersAtItsEndDoesNotMatch) {
  GameProcess game;
  GUID almost = kLspGuid;
  almost.Data4[7] = static_cast<unsigned char>(almost.Data4[7] ^ 1);
  port::SetCatalogue({MakeEntry(almost, 1999, SOCK_STREAM, 6, {}),
                      MakeEntry(kLspGuid, GameProcess::kOwnId, SOCK_STREAM, 6, {}),
                      LayeredTcp(2001, {GameProcess::kOwnId, 1001}),
                      MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, 6, {})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  EXPECT_EQ(common::GetProcessInfo().lsp_catalog_id, GameProcess::kOwnId);
  EXPECT_EQ(count, 1);
}

// Not the last of the chain, which is the platform's.
SCENARIO(ChainEdges, TheNextProviderIsTheSecondOfTheChain) {
  GameProcess game;
  port::SetCatalogue({MakeEntry(kLspGuid, GameProcess::kOwnId, SOCK_STREAM, 6, {}),
                      LayeredTcp(2001, {GameProcess::kOwnId, GameProcess::kForeignId, 1001}),
                      MakeEntry(kForeignGuid, GameProcess::kForeignId, SOCK_STREAM, 6,
                                {GameProcess::kForeignId, 1001}),
                      MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, 6, {})});
  EXPECT_EQ(game.Start(6), 0) << game.AllTraces();
  EXPECT_EQ(Foreign().starts, 1);
  EXPECT_EQ(Foreign().info.dwCatalogEntryId, 2001u) << "a layer is told what was asked for";
}

SCENARIO(ChainEdges, AListThatCannotBeReadIsEmpty) {
  GameProcess game;
  LspProvider stranger{};
  LspProvider* list = &stranger;
  int count = 7;
  port::FailCall("WSCEnumProtocols", 1, 10091);
  EXPECT_FALSE(GetProviders(&list, &count));
  EXPECT_EQ(list, nullptr);
  EXPECT_EQ(count, 0);
}

// --- the tables of a process ------------------------------------------------------------------

SCENARIO(ChainEdges, EachProtocolKeepsTheUpcallsOfItsStart) {
  GameProcess game;
  game.ListAsGame();
  const common::ProcessInfo& process = common::GetProcessInfo();
  const std::pair<int, const WSPUPCALLTABLE*> slots[] = {{6, &process.tcp_upcall_table},
                                                         {17, &process.udp_upcall_table},
                                                         {0, &process.raw_upcall_table}};
  for (const auto& [protocol, slot] : slots) {
    std::memset(&game.upcalls, 0x40 + protocol, sizeof game.upcalls);
    EXPECT_EQ(game.Start(protocol), 0);
    EXPECT_EQ(std::memcmp(slot, &game.upcalls, sizeof game.upcalls), 0) << protocol;
  }
}

// --- the next provider's file -----------------------------------------------------------------

// As the catalogue gives it: 258 characters and their end, whatever they expand to.
SCENARIO(ChainEdges, TheLongestPathOfTheCatalogueIsRead) {
  GameProcess game;
  for (const std::size_t size : {std::size_t{258}, std::size_t{259}}) {
    const std::wstring path = L"C:\\" + std::wstring(size - 9, L'e') + L"\\a.dll";
    ASSERT_EQ(path.size(), size);
    port::RegisterModule(path, {});
    port::SetProviderPath(kForeignGuid, path);
    LspProvider provider{};
    provider.next_provider.ProviderId = kForeignGuid;
    int error = 0;
    EXPECT_FALSE(LoadProviderPath(&provider, &error));  // it has no start function
    EXPECT_EQ(provider.module != nullptr, size == 258) << size;
    EXPECT_EQ(game.Traced("LoadProviderPath: WSCGetProviderPath failed: 10014"), size == 259);
  }
}

SCENARIO(ChainEdges, ALoadedFileLeavesNoError) {
  GameProcess game;
  LspProvider provider{};
  provider.next_provider.ProviderId = kForeignGuid;
  int error = 7;
  EXPECT_TRUE(LoadProviderPath(&provider, &error)) << game.AllTraces();
  EXPECT_EQ(error, 0);
  EXPECT_NE(provider.start_function, nullptr);
}

// It is the next provider that refuses, so its name must be in the log.
SCENARIO(ChainEdges, ARefusalIsTracedUnderTheNextProvidersName) {
  GameProcess game;
  game.LayerOverForeign();
  auto catalogue = port::Catalogue();
  for (WSAPROTOCOL_INFOW& entry : catalogue) {
    std::wcscpy(entry.szProtocol,
                entry.dwCatalogEntryId == GameProcess::kForeignId ? L"Below" : L"Ours");
  }
  port::SetCatalogue(catalogue);
  Foreign().result = 10055;
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.Traced("Below::InitializeProvider failed: 10055")) << game.AllTraces();
}

// --- which entry is meant ---------------------------------------------------------------------

// Two layered entries for streams over two providers, one for datagrams, and nothing above.
class MatchEdges : public sim::ScenarioTest {
 protected:
  MatchEdges() {
    catalogue = {MakeEntry(kLspGuid, GameProcess::kOwnId, SOCK_STREAM, 6, {}),
                 LayeredTcp(2001, {GameProcess::kOwnId, 1001}),
                 LayeredTcp(2002, {GameProcess::kOwnId, GameProcess::kForeignId}),
                 MakeEntry(kLayerGuid, 2003, SOCK_DGRAM, 17, {GameProcess::kOwnId, 1002}),
                 MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, 6, {}),
                 MakeEntry(kBaseProviderGuid, 1002, SOCK_DGRAM, 17, {}),
                 MakeEntry(kForeignGuid, GameProcess::kForeignId, SOCK_STREAM, 6, {})};
    catalogue[0].ProtocolChain.ChainLen = 0;
    port::SetCatalogue(catalogue);
  }
  // The id of the record that is found; 0: none.
  DWORD Find(const WSAPROTOCOL_INFOW& info) {
    LspProvider* list = nullptr;
    int count = 0;
    EXPECT_TRUE(GetProviders(&list, &count));
    const GlobalPtr<LspProvider> owner(list);
    const LspProvider* const found = FindMatchingProvider(&info, list, count);
    return found != nullptr ? found->layer_provider.dwCatalogEntryId : 0;
  }
  GameProcess game;
  std::vector<WSAPROTOCOL_INFOW> catalogue;
};

SCENARIO_F(MatchEdges, OurEntryWinsOverOneOfTheSameKind) {
  EXPECT_EQ(Find(catalogue[2]), 2002u);
  EXPECT_EQ(game.traces().back(), "FindMatchingProvider: inInfo is one of the LSPs entry.");
}

SCENARIO_F(MatchEdges, AChainThatNamesOurEntryWinsOverOneOfTheSameKind) {
  EXPECT_EQ(Find(MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {3000, 2002, 1001})), 2002u);
}

// The first entry of a chain is the layer's own, and says nothing about the providers below.
SCENARIO_F(MatchEdges, TheFirstEntryOfAChainIsIgnored) {
  EXPECT_EQ(Find(MakeEntry(kForeignGuid, 3001, SOCK_RAW, 98, {2001, 1001})), 0u);
}

// The hidden entry ends the search through the chains, whatever else the chain names.
SCENARIO_F(MatchEdges, TheHiddenEntryDecidesAboutAChain) {
  EXPECT_EQ(
      Find(MakeEntry(kForeignGuid, 3001, SOCK_DGRAM, 17, {3000, GameProcess::kOwnId, 2001, 1001})),
      2003u);
  EXPECT_EQ(game.TraceCount("FindMatchingProvider: our LSP in the in_info's protocol chains."), 1);
}

// Family, type and protocol are compared separately.
SCENARIO_F(MatchEdges, AKindMatchesInEveryField) {
  const auto stream =
      MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {3999, GameProcess::kOwnId, 1001});
  EXPECT_EQ(Find(stream), 2001u);
  auto other = stream;
  other.iAddressFamily = 23;
  EXPECT_EQ(Find(other), 0u);
  other = stream;
  other.iSocketType = SOCK_RAW;
  EXPECT_EQ(Find(other), 0u);
  other = stream;
  other.iProtocol = 132;
  EXPECT_EQ(Find(other), 0u);
}

// A layer's place in the catalogue picks the record, and there may be none at that place.
SCENARIO_F(MatchEdges, ALayerBeyondTheRecordsLeadsNowhere) {
  const DWORD layer = GameProcess::kForeignId;
  catalogue.insert(catalogue.begin() + 2,
                   MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {layer, 2001, 1001}));
  port::SetCatalogue(catalogue);
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  ASSERT_EQ(count, 3);
  const auto info = MakeEntry(kForeignGuid, 3002, SOCK_RAW, 98, {layer, 1001});
  EXPECT_EQ(FindMatchingProvider(&info, list, 3), &list[2]);
  EXPECT_EQ(FindMatchingProvider(&info, list, 2), nullptr);
}

// A chain whose own layer is not in the catalogue is taken for one of the layer 0.
SCENARIO_F(MatchEdges, AnUnknownLayerIsLookedForAsNumberZero) {
  const auto unknown = MakeEntry(kForeignGuid, 3002, SOCK_RAW, 98, {7777, 1001});
  for (const DWORD number : {0u, 1u}) {
    auto with_layer = catalogue;
    with_layer.insert(with_layer.begin() + 1,
                      MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {number, 2001, 1001}));
    port::SetCatalogue(with_layer);
    EXPECT_EQ(Find(unknown), number == 0 ? 2002u : 0u) << number;
  }
}

// A layer that stands above us under another number leads nowhere.
SCENARIO_F(MatchEdges, OnlyTheRequestedLayerIsSearched) {
  catalogue.insert(catalogue.begin(),
                   MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {3500, 2002, 1001}));
  port::SetCatalogue(catalogue);
  EXPECT_EQ(Find(MakeEntry(kForeignGuid, 3002, SOCK_RAW, 98, {GameProcess::kForeignId, 1001})), 0u);
  EXPECT_FALSE(game.TracedStart("FindMatchingProvider: entry belongs")) << game.AllTraces();
}

}  // namespace
