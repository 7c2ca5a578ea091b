// A provider's start where memory runs out: what failed is told all the same.
#include <gtest/gtest.h>

#include <cwchar>
#include <string>

#include "port/sim/scenario.h"
#include "route/route.h"
#include "start/provider_loader.h"
#include "tests/scenario/game_process.h"
#include "tests/unit/out_of_memory.h"

namespace {

using namespace moru_vyr::lsp;  // NOLINT: every name here is the product's

SCENARIO(ChainWithoutMemory, ARefusalIsTracedWithoutTheProvidersName) {
  test::GameProcess game;
  const std::wstring name(40, L'n');
  LspProvider provider{};
  provider.next_provider.ProviderId = test::kForeignGuid;
  std::wcscpy(provider.next_provider.szProtocol, name.c_str());
  test::Foreign().result = 10055;
  WSAPROTOCOL_INFOW info{};
  int error = 0;
  {
    const std::size_t copy = (name.size() + 1) * sizeof(wchar_t);
    const test::OutOfMemory none(1, copy, copy);
    EXPECT_EQ(InitializeProvider(&provider, MAKEWORD(2, 2), &info, game.upcalls, &error), 10055);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_EQ(error, 10055);
  EXPECT_TRUE(game.Traced("::InitializeProvider failed: 10055")) << game.AllTraces();
}

// Without a route policy nothing could be decided, whatever was prepared before.
SCENARIO(ChainWithoutMemory, AGameWithoutARoutePolicyIsNotServed) {
  test::GameProcess game;
  game.ListAsGame();
  {
    const test::OutOfMemory none(1, sizeof(Route), sizeof(Route));
    EXPECT_EQ(game.Start(6), 0);
  }
  EXPECT_TRUE(test::OutOfMemory::WasFelt());
  EXPECT_TRUE(game.GotBaseTable()) << game.AllTraces();
}

}  // namespace
