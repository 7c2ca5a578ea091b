// The whole world's client program: it configures the game, writes the tables and takes the
// reports.
#include <cstdlib>

#include "port/sim/seeds.h"
#include "tests/scenario/whole_world.h"
#include "tests/support/mended.h"
#include "tests/support/switch_config.h"

namespace whole_test {
namespace {

using moru_vyr::lsp::AccConfigRecord;
using moru_vyr::lsp::RouteTableImage;
using sim::Random;

constexpr moru_vyr::lsp::u32 kLastNode = 1;
constexpr DWORD kOftenestTablesMs = 120'000;

// Half of all worlds have everything mended, unless the environment says what is.
moru_vyr::lsp::u32 MendedIn(uint64_t seed) {
  if (std::getenv("VYR_MENDED") != nullptr) return test::MendedInAllWorlds();
  return seed % 2 == 0 ? moru_vyr::lsp::kMendKnown : 0;
}

// What lets flows move to other nodes, with limits of this world's own.
void SetLimits(AccConfigRecord* config) {
  Random random(sim::Scattered(sim::TheWorld().seed() ^ 0x636f6e66));
  test::AllowSwitches(config);
  config->lost_calc_unit_size = 100 + static_cast<common::u32>(random.Below(200));
  config->high_freq_test_interval = 100;
  config->max_delay_avg = config->max_delay_amp = static_cast<common::u16>(100 + random.Below(900));
}

}  // namespace

ConfiguredWorld::ConfiguredWorld()
    : TcpWorld(L"", SetLimits, MendedIn(sim::TheWorld().seed())), mended_(MendedIn(world.seed())) {}

void WholeWorld::StartReader() {
  world.SpawnOn(world.home().host, "client", [this] {
    while (!is_over_) {
      reports_.Take();
      Sleep(course_.IsLong() ? 2000 : 300);
    }
  });
  if (!course_.IsLong()) return;
  world.SpawnOn(world.home().host, "tables", [this] {
    Random random(sim::Scattered(world.seed() ^ 0x7461626c6573));
    while (!is_over_) {
      Sleep(kOftenestTablesMs + static_cast<DWORD>(random.Below(kOftenestTablesMs)));
      WriteTables(tables_);
    }
  });
}

void WholeWorld::WriteTables(uint64_t variant) {
  tables_ = variant;
  Random random(variant);
  const bool usual = variant == 0;
  auto image = std::make_unique<RouteTableImage>();
  const char* const nodes[] = {kNodeA, kNodeB, kNodeC};
  for (size_t i = 0; i < kNodes; ++i) {
    auto& proxy = test::AddProxy(*image, static_cast<common::u32>(i + 1), nodes[i]);
    proxy.surport_isps = usual ? 1u : static_cast<common::u32>(random.Below(4));
    proxy.flag = 6;
  }
  using moru_vyr::lsp::DECISION_ACCE;
  using moru_vyr::lsp::DECISION_DIRECT;
  using moru_vyr::lsp::DECISION_FORCE_ACCE_AUTO;
  const auto usual_ref = [](common::u32 node, common::u32 decision = DECISION_ACCE) {
    return test::Ref(node, decision, kLastNode, 20);
  };
  const auto any_ref = [&random, usual_ref](common::u32 node, common::u32 decision) {
    if (random.Below(2) == 0) return usual_ref(node, decision);
    // One after the other: compilers differ in which argument of a call comes first.
    const auto other_node = static_cast<common::u32>(random.Below(5));
    if (random.Below(3) == 0) decision = static_cast<common::u32>(random.Below(9));
    return usual_ref(other_node, decision);
  };
  const common::u32 decisions[] = {DECISION_ACCE, DECISION_DIRECT, DECISION_FORCE_ACCE_AUTO,
                                   DECISION_ACCE};
  for (common::u32 i = 0; i < 4; ++i) {
    if (!usual && random.Below(6) == 0) continue;
    const auto ref = [&](common::u32 node) {
      return usual ? usual_ref(node, decisions[i]) : any_ref(node, decisions[i]);
    };
    auto& entry = test::AddRoute(image->route_sets[0], 11 + i, ref(1));
    for (common::u32 n = 0; n < 3; ++n) entry.top_refs[n] = usual ? usual_ref(n + 1) : ref(n + 1);
    entry.switch_groups[0].last_node = kLastNode;
    entry.switch_groups[0].candidates[0] = usual_ref(1 + static_cast<common::u32>(random.Below(3)));
    entry.switch_groups[0].candidates[1] = usual_ref(2);
    if (usual) entry.switch_groups[0].candidates[0] = usual_ref(1);
  }
  common::NamedMutex mutex(moru_vyr::lsp::kRouteMutexName);
  const common::NamedMutexGuard guard(&mutex, false);
  routes.Publish(*image);
}

// No time: it dies while it holds the mutex.
void WholeWorld::ClientHolds(size_t which, sim::Duration time) {
  const char* const mutex = kChannels[which]->mutex_name;
  sim::Process& process = world.SpawnOn(world.home().host, "other client", [mutex, time] {
    common::NamedMutex held(mutex);
    held.lock();
    Sleep(static_cast<DWORD>(time / std::chrono::milliseconds(1)));
    held.unlock();
  });
  if (time == sim::Duration(0)) world.KillWhenItHolds(process, mutex);
}

}  // namespace whole_test
