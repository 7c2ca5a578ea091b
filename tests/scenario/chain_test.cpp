// From the start of one of our catalogue entries to the next provider. At stake: the catalogue
// belongs to the machine and to every other layer on it, so whatever it contains, the process must
// get a working provider, or an error that Winsock understands.
#include "start/chain.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "common/process_info.h"
#include "port/shared/backend.h"
#include "port/shared/base_startup.h"
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
#include "tests/support/log_capture.h"

namespace {

using moru_vyr::lsp::BSPStartup;
using moru_vyr::lsp::FindMatchingProvider;
using moru_vyr::lsp::GetProviders;
using moru_vyr::lsp::GlobalPtr;
using moru_vyr::lsp::InitializeProvider;
using moru_vyr::lsp::kLspGuid;
using moru_vyr::lsp::LoadProviderPath;
using moru_vyr::lsp::LspProvider;
using port::kBaseProviderGuid;
using port::MakeEntry;
using test::Foreign;
using test::GameProcess;
using test::kForeignGuid;
using test::kLayerGuid;
using test::LayeredTcp;

constexpr DWORD kOwn = GameProcess::kOwnId;
constexpr DWORD kForeign = GameProcess::kForeignId;

WSAPROTOCOL_INFOW Hidden() {
  WSAPROTOCOL_INFOW hidden = MakeEntry(kLspGuid, kOwn, SOCK_STREAM, 6, {});
  hidden.ProtocolChain.ChainLen = 0;
  return hidden;
}
WSAPROTOCOL_INFOW BaseTcp() { return MakeEntry(kBaseProviderGuid, 1001, SOCK_STREAM, 6, {}); }

// --- second starts ------------------------------------------------------------------------------

SCENARIO(Chain, ASecondStartOfAProtocolGetsTheBaseProvidersTable) {
  GameProcess game;
  game.ListAsGame();
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.GotHookedTable());
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.GotBaseTable());
  EXPECT_EQ(port::LastBaseEntry(), 1001u);
  INT error = 0;
  game.table.lpWSPCleanup(&error);
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.GotBaseTable());
  EXPECT_EQ(game.Start(17), 0);
  EXPECT_TRUE(game.GotHookedTable());
}

SCENARIO(Chain, AStartThatFailsCountsAsTheFirst) {
  GameProcess game;
  game.ListAsGame();
  port::FailCall("WSCEnumProtocols", 1, 10091);
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.Traced("GetProtocols failed, error=10091"));
  EXPECT_TRUE(game.Traced("GetProviders: EnumerateProviders failed!"));
  EXPECT_TRUE(game.Traced("InitLspChain: GetProviders failed"));
  EXPECT_TRUE(game.Traced("WSPStartup end: 10106, protocol=6, [will] hook"));
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.GotBaseTable());
}

SCENARIO(Chain, AProtocolWithoutAFlagIsHookedAtEachStart) {
  GameProcess game;
  game.ListAsGame();
  auto catalogue = port::Catalogue();
  catalogue.push_back(MakeEntry(kLayerGuid, 2900, SOCK_RAW, 1, {kOwn, 1003}));
  port::SetCatalogue(catalogue);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(game.Start(1), 0);
    EXPECT_TRUE(game.GotHookedTable());
  }
  EXPECT_EQ(common::GetProcessInfo().tcp_proc_table.lpWSPSocket, nullptr);
  EXPECT_EQ(common::GetProcessInfo().udp_proc_table.lpWSPSocket, nullptr);
  EXPECT_EQ(common::GetProcessInfo().raw_proc_table.lpWSPSocket, nullptr);
}

SCENARIO(Chain, RawEntriesFillTheRawSlot) {
  GameProcess game;
  game.ListAsGame();
  EXPECT_EQ(game.Start(0), 0);
  EXPECT_NE(common::GetProcessInfo().raw_proc_table.lpWSPSocket, nullptr);
  EXPECT_EQ(game.Start(0), 0);
  EXPECT_TRUE(game.GotBaseTable());
}

// The table that BSPStartup hands out must not point into an unloaded module, even if no first
// start holds the module: here the first start has failed.
SCENARIO(Chain, BaseProviderStaysLoadedWhileItsTableIsUsed) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 0);
  EXPECT_TRUE(game.GotBaseTable());
  EXPECT_EQ(port::LoadCount(port::kBaseProviderPath), 1);
}

SCENARIO(Chain, BaseProviderThatRefusesIsReleased) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  test::LogCapture log(5);
  port::FailCall("BaseStartup", 1, 10091);
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10091);
  EXPECT_EQ(port::LoadCount(port::kBaseProviderPath), 0);
  EXPECT_TRUE(log.Contains("[5][lsp]BSPStartup:  ret=10091\n"));
}

SCENARIO(Chain, BaseStartFailuresAreLoggedAndBecome10106) {
  struct Case {
    const char* call;
    DWORD error;
    const char* line;
  };
  const Case cases[] = {
      {"WSCGetProviderPath", 10105, "BSPStartup: WSCGetProviderPath failed , err=10105\n"},
      {"ExpandEnvironmentStringsW", 87, "BSPStartup: ExpandEnvironmentStrings failed, err=87\n"},
      {"LoadLibraryW", 126, "BSPStartup: LoadLibrary failed, err=126\n"},
      {"GetProcAddress", 127, "BSPStartup: GetProcAddress failed, err=127\n"},
  };
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  for (const Case& expected : cases) {
    const test::LogCapture log(5);
    port::ClearFaults();
    port::FailCall(expected.call, 1, expected.error);
    EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
    const std::string text = log.Text(), line = "BSPStartup: ";
    EXPECT_NE(text.find(expected.line), text.npos) << text;
    EXPECT_EQ(text.find(line), text.rfind(line)) << "nothing is tried afterwards: " << text;
    EXPECT_EQ(port::LoadCount(port::kBaseProviderPath), 0) << expected.call;
  }
  port::ClearFaults();
}

SCENARIO(Chain, WithoutABaseEntryBaseStartFailsWithoutALogLine) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  test::LogCapture log(0);
  port::SetCatalogue({MakeEntry(kBaseProviderGuid, 1002, SOCK_DGRAM, 17, {}),
                      LayeredTcp(kOwn + 1, {kOwn, 1001}), Hidden()});
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
  port::FailCall("WSCEnumProtocols", 1, 10091);
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
  EXPECT_EQ(log.Text(), "");
}

SCENARIO(Chain, ABasePathThatGrowsTooLongIsRefusedByTheLoader) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  test::LogCapture log(5);
  port::SetEnvironment(L"VYR_LONG_DIRECTORY", L"C:\\" + std::wstring(290, L'd'));
  port::SetProviderPath(kBaseProviderGuid, L"%VYR_LONG_DIRECTORY%\\a.dll");
  EXPECT_EQ(BSPStartup(MAKEWORD(2, 2), &game.data, &info, game.upcalls, &game.table), 10106);
  EXPECT_TRUE(log.Contains("BSPStartup: LoadLibrary failed, err=")) << log.Text();
}

// --- the next provider --------------------------------------------------------------------------

SCENARIO(Chain, ABaseProviderIsStartedWithItsOwnEntry) {
  GameProcess game;
  game.ListAsGame();
  game.LayerOverForeign();
  EXPECT_EQ(game.Start(6), 0) << game.AllTraces();
  EXPECT_EQ(Foreign().starts, 1);
  EXPECT_EQ(Foreign().info.dwCatalogEntryId, kForeign);
  EXPECT_EQ(Foreign().version, MAKEWORD(2, 2));
  EXPECT_EQ(std::memcmp(&Foreign().upcalls, &game.upcalls, sizeof game.upcalls), 0);
  EXPECT_EQ(
      std::memcmp(&common::GetProcessInfo().tcp_upcall_table, &game.upcalls, sizeof game.upcalls),
      0);
  EXPECT_EQ(game.data.wHighVersion, 0x0302);
  EXPECT_EQ(port::LoadCount(test::kForeignPath), 1);
}

SCENARIO(Chain, ALayerInTheMiddleIsStartedWithTheRequestedChain) {
  GameProcess game;
  game.LayerOverForeign({kForeign, 1001});
  EXPECT_EQ(game.Start(6), 0) << game.AllTraces();
  EXPECT_EQ(Foreign().info.dwCatalogEntryId, kOwn + 1);
  EXPECT_EQ(Foreign().info.ProtocolChain.ChainLen, 2);
}

SCENARIO(Chain, AStartThatReturnsMinusOneFails) {
  GameProcess game;
  game.LayerOverForeign();
  Foreign().result = -1;
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.Traced("TCP/IP::InitializeProvider failed: -1"));
  EXPECT_TRUE(game.Traced("InitLspChain: InitializeProvider failed: -1"));
}

SCENARIO(Chain, APositiveErrorOfTheNextProviderBecomesSuccessWithAnEmptyTable) {
  GameProcess game;
  game.LayerOverForeign();
  Foreign().result = 10055;
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_TRUE(game.GotEmptyTable());
  EXPECT_TRUE(game.Traced("TCP/IP::InitializeProvider failed: 10055"));
}

// Whichever of the thirty entries is missing.
SCENARIO(Chain, AnIncompleteTableIsRefused) {
  GameProcess game;
  game.LayerOverForeign();
  WSAPROTOCOL_INFOW info = game.Layered(6);
  for (std::size_t i = 0; i < 30; ++i) {
    Foreign().table = port::BaseProviderTable();
    std::memset(reinterpret_cast<char*>(&Foreign().table) + i * sizeof(FARPROC), 0,
                sizeof(FARPROC));
    auto provider = std::make_unique<LspProvider>();
    std::memset(provider.get(), 0, sizeof *provider);
    provider->next_provider = MakeEntry(kForeignGuid, kForeign, SOCK_STREAM, 6, {});
    int error = 0;
    EXPECT_EQ(InitializeProvider(provider.get(), MAKEWORD(2, 2), &info, game.upcalls, &error), -1);
    EXPECT_EQ(error, 10104) << i;
  }
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.Traced("InitLspChain: InitializeProvider failed: 10104"));
}

SCENARIO(Chain, ANextProviderThatIsNotInTheCatalogueFails) {
  GameProcess game;
  port::SetCatalogue({LayeredTcp(kOwn + 1, {kOwn, 4444}), BaseTcp(), Hidden()});
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.Traced("LoadProviderPath: WSCGetProviderPath failed: 10105"));
  EXPECT_TRUE(game.TracedStart("InitializeProvider: LoadProviderPath failed: "));
  EXPECT_TRUE(game.TracedStart("InitLspChain: InitializeProvider failed: "));
}

SCENARIO(Chain, ANextProviderWithoutAFileFails) {
  GameProcess game;
  game.LayerOverForeign();
  port::UnregisterModule(test::kForeignPath);
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.Traced("LoadProviderPath: LoadLibraryW failed: 126"));
}

// A path that expands to 300 characters loads nothing, and only the search for the start function
// fails visibly.
SCENARIO(Chain, APathThatGrowsTooLongShowsAtTheStartFunction) {
  GameProcess game;
  game.LayerOverForeign();
  port::SetEnvironment(L"VYR_LONG_DIRECTORY", L"C:\\" + std::wstring(290, L'd'));
  port::SetProviderPath(kForeignGuid, L"%VYR_LONG_DIRECTORY%\\a.dll");
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.TracedStart("LoadProviderPath: GetProcAddress failed: ")) << game.AllTraces();
}

SCENARIO(Chain, ANarrowPathThatGrowsTooLongIsRefused) {
  GameProcess game;
  game.LayerOverForeign();
  port::SetEnvironment(L"VYR_LONG_DIRECTORY", L"C:\\" + std::wstring(290, L'd'));
  port::SetProviderPath(kForeignGuid, L"%VYR_LONG_DIRECTORY%\\a.dll");
  port::FailCall("ExpandEnvironmentStringsW", 1, 87);
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.TracedStart("LoadProviderPath: ExpandEnvironmentStringsA failed: "))
      << game.AllTraces();
}

// 258 characters and their end are what an expanded path may have, wide or narrow.
void ExpectLongestPath(bool narrow) {
  for (const std::size_t size : {std::size_t{258}, std::size_t{259}}) {
    const std::wstring directory = L"C:\\" + std::wstring(size - 9, L'd');
    const std::wstring path = directory + L"\\a.dll";
    ASSERT_EQ(path.size(), size);
    port::RegisterModule(path, {});
    port::SetEnvironment(L"VYR_LONG_DIRECTORY", directory);
    port::SetProviderPath(kForeignGuid, L"%VYR_LONG_DIRECTORY%\\a.dll");
    LspProvider provider{};
    provider.next_provider.ProviderId = kForeignGuid;
    int error = 0;
    if (narrow) port::FailCall("ExpandEnvironmentStringsW", 1, 87);
    EXPECT_FALSE(LoadProviderPath(&provider, &error));  // it has no start function
    EXPECT_EQ(provider.module != nullptr, size == 258) << size;
  }
}

SCENARIO(Chain, TheLongestPathIsLoaded) { ExpectLongestPath(false); }

SCENARIO(Chain, TheLongestNarrowPathIsLoaded) { ExpectLongestPath(true); }

// The catalogue's own error is traced; the caller is told the thread's.
SCENARIO(Chain, AMissingPathIsReportedWithTheThreadsError) {
  GameProcess game;
  LspProvider provider{};
  int error = 0;
  SetLastError(4711);
  EXPECT_FALSE(LoadProviderPath(&provider, &error));
  EXPECT_TRUE(game.Traced("LoadProviderPath: WSCGetProviderPath failed: 10105"))
      << game.AllTraces();
  EXPECT_EQ(error, 4711);
}

SCENARIO(Chain, ASecondStartLooksForABaseEntryOfItsOwnFamily) {
  GameProcess game;
  std::vector<WSAPROTOCOL_INFOW> catalogue = port::Catalogue();
  WSAPROTOCOL_INFOW other_family = BaseTcp();
  other_family.iAddressFamily = AF_INET6;
  other_family.dwCatalogEntryId = 1501;
  catalogue.insert(catalogue.begin(), other_family);
  port::SetCatalogue(catalogue);
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_EQ(game.Start(6), 0);
  EXPECT_EQ(port::LastBaseEntry(), 1001u);
}

SCENARIO(Chain, NullArgumentsAreRefusedWithATrace) {
  GameProcess game;
  LspProvider provider{};
  LspProvider* list = nullptr;
  int number = 0;
  EXPECT_FALSE(LoadProviderPath(nullptr, &number));
  EXPECT_FALSE(LoadProviderPath(&provider, nullptr));
  EXPECT_EQ(game.TraceCount("LoadProviderPath: param invalid!"), 2);
  EXPECT_FALSE(GetProviders(nullptr, &number));
  EXPECT_FALSE(GetProviders(&list, nullptr));
  EXPECT_EQ(game.TraceCount("GetProviders: param invalid!"), 2);
}

// --- this provider's own entries ----------------------------------------------------------------

SCENARIO(Chain, TheIdIsThatOfTheFirstEntryWithOurGuid) {
  GameProcess game;
  port::SetCatalogue({BaseTcp(), Hidden(), MakeEntry(kLspGuid, 2500, SOCK_STREAM, 6, {})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  GlobalPtr<LspProvider> owner(list);
  EXPECT_EQ(count, 0);
  EXPECT_EQ(common::GetProcessInfo().lsp_catalog_id, kOwn);
  port::SetCatalogue({BaseTcp(), MakeEntry(kLspGuid, 2500, SOCK_STREAM, 6, {}),
                      LayeredTcp(2501, {2500, 1001}), LayeredTcp(2001, {kOwn, 1001})});
  ASSERT_TRUE(GetProviders(&list, &count));
  owner.reset(list);
  EXPECT_EQ(common::GetProcessInfo().lsp_catalog_id, kOwn);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(list[0].layer_provider.dwCatalogEntryId, 2001u);
}

SCENARIO(Chain, RecordsHoldTheEntryAndTheOneBelow) {
  GameProcess game;
  auto layered = LayeredTcp(2002, {kOwn, 1001});
  layered.szProtocol[WSAPROTOCOL_LEN] = L'x';  // unterminated
  port::SetCatalogue({Hidden(), layered, BaseTcp(), LayeredTcp(2003, {kOwn, 4444}),
                      MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {kForeign, 2002, 1001})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  ASSERT_EQ(count, 2);
  EXPECT_EQ(list[0].lsp_catalog_id, kOwn);
  EXPECT_EQ(list[0].layer_provider.dwCatalogEntryId, 2002u);
  EXPECT_EQ(list[0].layer_provider.szProtocol[WSAPROTOCOL_LEN], 0);
  EXPECT_EQ(list[0].next_provider.dwCatalogEntryId, 1001u);
  EXPECT_EQ(list[1].layer_provider.dwCatalogEntryId, 2003u);
  EXPECT_EQ(list[1].next_provider.dwCatalogEntryId, 0u);
}

// --- which entry is meant -----------------------------------------------------------------------

SCENARIO(Match, AnEntryOfOursIsADirectHit) {
  GameProcess game;
  EXPECT_EQ(game.Start(17), 0);
  EXPECT_TRUE(game.Traced("FindMatchingProvider: inInfo is one of the LSPs entry."));
  EXPECT_EQ(port::LastBaseEntry(), 1002u);
}

SCENARIO(Match, AProviderAboveUsNamesOurEntryInItsChain) {
  GameProcess game;
  auto above = MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {kForeign, kOwn + 1, 1001});
  EXPECT_EQ(game.Start(&above), 0) << game.AllTraces();
  EXPECT_TRUE(game.Traced("FindMatchingProvider: our LSP chains in in_info's protocol chains."));
}

SCENARIO(Match, TheLastEntryOfAShortChainCountsToo) {
  GameProcess game;
  auto above = MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {kForeign, kOwn + 1});
  EXPECT_EQ(game.Start(&above), 0) << game.AllTraces();
  EXPECT_TRUE(game.Traced("FindMatchingProvider: our LSP chains in in_info's protocol chains."));
}

// The chain's first entry is not in the catalogue, so no layer above us has its number.
SCENARIO(Match, AnUnknownLayerAboveLeadsNowhere) {
  GameProcess game;
  port::SetCatalogue({MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {7777, 2002, 1001}), BaseTcp(),
                      Hidden(), LayeredTcp(2002, {kOwn, 1001})});
  auto info = MakeEntry(kForeignGuid, 3002, SOCK_STREAM, 99, {7777, 1001});
  EXPECT_EQ(game.Start(&info), 10106);
  EXPECT_FALSE(game.Traced(
      "FindMatchingProvider: entry belongs to the LSP layered over us and it references our LSP"));
}

SCENARIO(Match, AnEntryAboveNothingIsNotALayer) {
  GameProcess game;
  port::SetCatalogue(
      {BaseTcp(), Hidden(), LayeredTcp(2001, {kOwn}), LayeredTcp(2002, {kOwn, 1001})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  ASSERT_EQ(count, 1);
  EXPECT_EQ(list[0].layer_provider.dwCatalogEntryId, 2002u);
}

SCENARIO(Match, AChainWithOurHiddenEntryMatchesByTheKindOfSocket) {
  GameProcess game;
  auto above = MakeEntry(kForeignGuid, 3001, SOCK_DGRAM, 17, {kForeign, kOwn, 1002});
  above.dwServiceFlags1 &= ~XP1_IFS_HANDLES;  // the one bit that does not take part
  EXPECT_EQ(game.Start(&above), 0) << game.AllTraces();
  EXPECT_TRUE(game.Traced("FindMatchingProvider: our LSP in the in_info's protocol chains."));
  EXPECT_TRUE(game.Traced(
      "FindMatchingProvider: match address family, socket type, protocol and provider flags."));
  EXPECT_EQ(port::LastBaseEntry(), 1002u);
}

SCENARIO(Match, FlagsOtherThanTheHandleBitMustMatch) {
  GameProcess game;
  auto above = MakeEntry(kForeignGuid, 3001, SOCK_DGRAM, 17, {kForeign, kOwn, 1002});
  above.dwServiceFlags1 ^= XP1_GUARANTEED_ORDER;
  EXPECT_EQ(game.Start(&above), 10106);
  EXPECT_TRUE(game.Traced("InitLspChain: FindMatchingProvider failed!"));
}

// Pass four finds a record by what stands in the catalogue, but takes the one at the index of
// the catalogue entry. Required: a corrected lookup would start a different provider.
struct CatalogueSearch {
  // Our UDP entry first, so that index 0 of the list is not the TCP record that matches.
  explicit CatalogueSearch(std::size_t above_at) {
    std::vector<WSAPROTOCOL_INFOW> catalogue = {
        MakeEntry(kBaseProviderGuid, 1002, SOCK_DGRAM, 17, {}),
        BaseTcp(),
        Hidden(),
        MakeEntry(kLayerGuid, 2001, SOCK_DGRAM, 17, {kOwn, 1002}),
        LayeredTcp(2002, {kOwn, 1001}),
        MakeEntry(kForeignGuid, kForeign, SOCK_STREAM, 6, {}),
    };
    catalogue.insert(catalogue.begin() + static_cast<std::ptrdiff_t>(above_at),
                     MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {kForeign, 2002, 1001}));
    port::SetCatalogue(catalogue);
    // The entry that Winsock starts is above the same foreign layer, without naming us.
    info = MakeEntry(kForeignGuid, 3002, SOCK_STREAM, 6, {kForeign, 1001});
    info.iAddressFamily = 23;
  }
  GameProcess game;
  WSAPROTOCOL_INFOW info;
};

SCENARIO(Match, TheCatalogueSearchPicksByCatalogueIndex) {
  CatalogueSearch search(0);
  EXPECT_EQ(search.game.Start(&search.info), 0) << search.game.AllTraces();
  EXPECT_TRUE(search.game.Traced(
      "FindMatchingProvider: entry belongs to the LSP layered over us and it references our LSP"));
  EXPECT_EQ(port::LastBaseEntry(), 1002u);  // record 0, though record 1 matched
}

SCENARIO(Match, ACatalogueIndexPastTheListIsNoRecord) {
  CatalogueSearch search(5);
  EXPECT_EQ(search.game.Start(&search.info), 10106);
  EXPECT_TRUE(search.game.Traced(
      "FindMatchingProvider: entry belongs to the LSP layered over us and it references our LSP"));
  EXPECT_TRUE(search.game.Traced("InitLspChain: FindMatchingProvider failed!"));
}

// A foreign layer that names our hidden entry does not tell which entry is meant. The search by the
// kind of socket has come before, and if that found nothing, none is chosen.
SCENARIO(Match, TheHiddenEntryDoesNotEndTheCatalogueSearch) {
  GameProcess game;
  auto above = MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {kForeign, kOwn, 1001});
  port::SetCatalogue({above, BaseTcp(), Hidden(), LayeredTcp(2002, {kOwn, 1001}),
                      MakeEntry(kForeignGuid, kForeign, SOCK_STREAM, 6, {})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  ASSERT_EQ(count, 1);
  auto info = MakeEntry(kForeignGuid, 3002, SOCK_STREAM, 6, {kForeign, 1001});
  info.dwServiceFlags1 |= 0x400;
  EXPECT_EQ(FindMatchingProvider(&info, list, count), nullptr);
  EXPECT_FALSE(game.TracedStart("FindMatchingProvider: ")) << game.AllTraces();
}

// So the search through the catalogue never compares kinds: an entry of the right kind is found
// before.
SCENARIO(Match, AMatchingKindIsFoundBeforeTheCatalogueIsSearched) {
  GameProcess game;
  auto own = LayeredTcp(2002, {kOwn, 1001});
  own.dwServiceFlags1 |= 0x400;
  auto above = MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 6, {kForeign, kOwn, 1001});
  port::SetCatalogue({above, BaseTcp(), Hidden(), LayeredTcp(2001, {kOwn, 1001}), own,
                      MakeEntry(kForeignGuid, kForeign, SOCK_STREAM, 6, {})});
  LspProvider* list = nullptr;
  int count = 0;
  ASSERT_TRUE(GetProviders(&list, &count));
  const GlobalPtr<LspProvider> owner(list);
  ASSERT_EQ(count, 2);
  auto info = MakeEntry(kForeignGuid, 3002, SOCK_STREAM, 6, {kForeign, 1001});
  info.dwServiceFlags1 |= 0x400;
  EXPECT_EQ(FindMatchingProvider(&info, list, count), &list[1])
      << "the catalogue's index would have been the first";
  EXPECT_EQ(
      game.traces().back(),
      "FindMatchingProvider: match address family, socket type, protocol and provider flags.");
}

SCENARIO(Match, AnUnreadableCatalogueEndsTheSearch) {
  GameProcess game;
  auto stranger = MakeEntry(kForeignGuid, 3002, SOCK_STREAM, 99, {});
  port::FailCall("WSCEnumProtocols", 1, 10091);
  EXPECT_EQ(FindMatchingProvider(&stranger, nullptr, 0), nullptr);
  EXPECT_TRUE(game.Traced("FindMatchingProvider: GetProtocols failed!\n"));
}

SCENARIO(Match, WithoutOurEntriesInTheCatalogueThereIsNoRecord) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  port::SetCatalogue(port::BaseEntries());
  EXPECT_EQ(game.Start(&info), 10106);
  port::SetCatalogue({});
  EXPECT_EQ(game.Start(&info), 10106);
}

// --- catalogues that make no sense --------------------------------------------------------------

SCENARIO(BadCatalogue, ChainLengthsOutOfRangeAreNotRead) {
  for (const int length : {0, -1, INT32_MIN, 8, 100, INT32_MAX}) {
    GameProcess game;
    auto catalogue = port::Catalogue();
    auto entry = MakeEntry(kForeignGuid, 3001, SOCK_STREAM, 99, {kOwn, 5, 5, 5, 5, 5, 5});
    entry.ProtocolChain.ChainLen = length;
    catalogue.insert(catalogue.begin(), entry);
    port::SetCatalogue(catalogue);
    LspProvider* list = nullptr;
    int count = 0;
    EXPECT_TRUE(GetProviders(&list, &count));
    const GlobalPtr<LspProvider> owner(list);
    auto info = std::make_unique<WSAPROTOCOL_INFOW>(entry);  // alone on the heap
    info->iProtocol = 98;
    info->dwCatalogEntryId = 9999;
    info->ProtocolChain.ChainEntries[0] = 7777;
    FindMatchingProvider(info.get(), list, count);
  }
}

// Our entry stands above our own entry: the next provider of the chain is this library.
SCENARIO(BadCatalogue, AChainThatLeadsBackToUsEnds) {
  GameProcess game;
  game.ListAsGame();
  FARPROC self = nullptr;
  const LPWSPSTARTUP start = &WSPStartup;
  std::memcpy(&self, &start, sizeof self);
  port::RegisterModule(L"C:\\vyr\\vyr_lsp.dll", {{"WSPStartup", self}});
  port::SetProviderPath(kLayerGuid, L"C:\\vyr\\vyr_lsp.dll");
  auto first = MakeEntry(kLayerGuid, 2001, SOCK_RAW, 1, {kOwn, 2002});
  auto second = MakeEntry(kLayerGuid, 2002, SOCK_RAW, 1, {kOwn, 2001});
  port::SetCatalogue({Hidden(), first, second, BaseTcp()});
  // Seven starts, one in the other, then a refusal. The start above a refusal takes it for success,
  // as always, and hands out an empty table, which the start above that one refuses in turn.
  EXPECT_EQ(game.Start(&first), 0);
  EXPECT_EQ(game.TraceCount("FindMatchingProvider: inInfo is one of the LSPs entry."), 7)
      << game.AllTraces();
  EXPECT_EQ(game.TraceCount("WSPStartup end: 10106, protocol=1, [will] hook"), 4);
  EXPECT_EQ(game.TraceCount("WSPStartup end: 0, protocol=1, [will] hook"), 4);
  INT error = 0;
  EXPECT_EQ(game.table.lpWSPSocket(AF_INET, SOCK_RAW, 1, nullptr, 0, 1, &error), INVALID_SOCKET);
}

SCENARIO(BadCatalogue, ATcpChainThatLeadsBackToUsGetsTheBaseProvider) {
  GameProcess game;
  game.ListAsGame();
  FARPROC self = nullptr;
  const LPWSPSTARTUP start = &WSPStartup;
  std::memcpy(&self, &start, sizeof self);
  port::RegisterModule(L"C:\\vyr\\vyr_lsp.dll", {{"WSPStartup", self}});
  port::SetProviderPath(kLayerGuid, L"C:\\vyr\\vyr_lsp.dll");
  port::SetCatalogue({Hidden(), LayeredTcp(2001, {kOwn, 2001}), BaseTcp()});
  EXPECT_EQ(game.Start(6), 0) << game.AllTraces();
  EXPECT_TRUE(game.GotHookedTable());
  EXPECT_EQ(game.table.lpWSPListen, port::BaseProviderTable().lpWSPListen);
}

// An entry may come or go between the two readings of the catalogue.
SCENARIO(BadCatalogue, AReadingThatNoLongerFitsIsAnEmptyCatalogue) {
  GameProcess game;
  port::FailCall("WSCEnumProtocols", 2, WSAENOBUFS);
  EXPECT_EQ(game.Start(6), 10106);
  EXPECT_TRUE(game.Traced("InitLspChain: FindMatchingProvider failed!"));
}

SCENARIO(BadCatalogue, AnEmptyCatalogueIsTraced) {
  GameProcess game;
  WSAPROTOCOL_INFOW info = game.Layered(6);
  port::SetCatalogue({});
  EXPECT_EQ(game.Start(&info), 10106);
  EXPECT_TRUE(game.TracedStart("GetProtocols failed, protocol count=0, error="))
      << game.AllTraces();
}

}  // namespace
