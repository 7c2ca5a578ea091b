// Starts of a provider at their edges. At stake: a process that starts and cleans up for days, and
// a catalogue in which other layers stand between this one and the platform's own.
#include <gtest/gtest.h>

#include <cstring>

#include "common/process_info.h"
#include "port/shared/catalogue.h"
#include "port/shared/faults.h"
#include "port/shared/modules.h"
#include "port/shared/rendition.h"
#include "port/shared/text.h"
#include "port/sim/scenario.h"
#include "provider/base_startup.h"
#include "provider/catalogue.h"
#include "provider/provider_match.h"
#include "tests/scenario/game_process.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's
using port::kBaseProviderGuid;
using port::MakeEntry;
using test::Foreign;
using test::GameProcess;
using test::kForeignGuid;
using test::kLayerGuid;

constexpr DWORD kOwn = GameProcess::kOwnId;
constexpr DWORD kForeign = GameProcess::kForeignId;

WSAPROTOCOL_INFOW OwnTcp(DWORD id, const std::vector<DWORD>& chain) {
  return MakeEntry(kLayerGuid, id, SOCK_STREAM, 6, chain);
}

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

// Also where each of its starts fails.
SCENARIO(ChainEdges, AStartThatFailsDoesNotCountTowardsTheDepthOfTheNext) {
  GameProcess game;
  game.LayerOverForeign();
  WSAPROTOCOL_INFOW raw = OwnTcp(2900, {kOwn, kForeign});
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

// The base entry is another provider's than the port's own, so that its start can be looked at.
void MakeForeignTheBase() {
  port::SetCatalogue({MakeEntry(kForeignGuid, kForeign, SOCK_STREAM, 6, {}),
                      MakeEntry(kLspGuid, kOwn, SOCK_STREAM, 6, {kOwn})});
}

SCENARIO(ChainEdges, ABaseStartIsGivenWhatTheCallerGave) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  MakeForeignTheBase();
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 1), &game.data, &info, game.upcalls, &game.table), 0);
  EXPECT_EQ(Foreign().version, MAKEWORD(2, 1));
  EXPECT_EQ(std::memcmp(&Foreign().upcalls, &game.upcalls, sizeof game.upcalls), 0);
  EXPECT_EQ(Foreign().info.dwCatalogEntryId, kForeign);
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
    port::RegisterModule(path, {});
    port::SetEnvironment(L"VYR_LONG_DIRECTORY", directory);
    port::SetProviderPath(kBaseProviderGuid, L"%VYR_LONG_DIRECTORY%\\a.dll");
    EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
    EXPECT_EQ(port::LoadsEver(path), size == 259 ? 1 : 0) << size;
    EXPECT_EQ(port::LoadCount(path), 0) << "it has no start function, and is let go";
  }
}

// --- this provider's own entries --------------------------------------------------------------

// Down to the last byte.
SCENARIO(ChainEdges, AnIdentityThatDiffersAtItsEndIsAnothers) {
  GameProcess game;
  GUID almost = kLspGuid;
  almost.Data4[7] = static_cast<unsigned char>(almost.Data4[7] ^ 1);
  port::SetCatalogue({MakeEntry(almost, 1999, SOCK_STREAM, 6, {}),
                      MakeEntry(kLspGuid, kOwn, SOCK_STREAM, 6, {}), OwnTcp(2001, {kOwn, 1001}),
                      MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, 6, {})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  EXPECT_EQ(common::GetProcessInfo().lsp_catalog_id, kOwn);
  EXPECT_EQ(count, 1);
}

// Not the last of the chain, which is the platform's.
SCENARIO(ChainEdges, TheNextProviderIsTheSecondOfTheChain) {
  GameProcess game;
  port::SetCatalogue({MakeEntry(kLspGuid, kOwn, SOCK_STREAM, 6, {}),
                      OwnTcp(2001, {kOwn, kForeign, 1001}),
                      MakeEntry(kForeignGuid, kForeign, SOCK_STREAM, 6, {kForeign, 1001}),
                      MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, 6, {})});
  EXPECT_EQ(game.Start(6), 0) << game.AllTraces();
  EXPECT_EQ(Foreign().starts, 1);
  EXPECT_EQ(Foreign().info.dwCatalogEntryId, 2001u) << "a layer is told what was asked for";
}

SCENARIO(ChainEdges, AListThatCannotBeHadIsEmpty) {
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

}  // namespace
