// Random tables, such as a client program may have written for the route policy.
//
// The ranges from which numbers are drawn are small, so that tables refer to one another, and
// contain the values at which an answer changes: limits of counts, zero, values that differ only
// above their low 16 bits, addresses next to the private ranges. Same seed, same world.
#pragma once
#include <cstddef>
#include <memory>
#include <random>

#include "abi/acc_decision_info.h"
#include "abi/blacklist_formats.h"
#include "abi/ip_table_formats.h"
#include "abi/launch_test_formats.h"
#include "abi/restriction_formats.h"
#include "abi/route_table_formats.h"
#include "common/types.h"
#include "route/acc_config.h"

namespace test {

using common::i32;
using common::u16;
using common::u32;
using common::u64;
using common::u8;

class Dice {
 public:
  explicit Dice(u64 seed) : engine_(seed) {}

  u32 Below(u32 end) { return static_cast<u32>(engine_() % end); }
  bool OneIn(u32 n) { return Below(n) == 0; }
  u64 Word() { return engine_(); }

  template <typename T, std::size_t N>
  T Of(const T (&choices)[N]) {
    return choices[Below(static_cast<u32>(N))];
  }

 private:
  std::mt19937_64 engine_;  // its sequence is the same with every library
};

enum class RouteFile { kNoPath, kMissing, kTooShort, kTooLong, kWhole };

struct World {
  // Null if there is no such region.
  std::unique_ptr<moru_vyr::lsp::IpTableRegion> ip_table;
  std::unique_ptr<moru_vyr::lsp::BlacklistRegion> blacklist;
  std::unique_ptr<moru_vyr::lsp::SpurRegion> spur_list;
  std::unique_ptr<moru_vyr::lsp::LaunchTestRegion> launch_test;

  bool has_route_region = false;
  u32 route_selector = 0;
  moru_vyr::lsp::RouteRegion route_buffers[2];
  RouteFile route_file = RouteFile::kNoPath;
  moru_vyr::lsp::RouteTableImage route_file_image;

  // As written: texts may be unterminated, counts may exceed their arrays.
  moru_vyr::lsp::AccConfig config;
  u32 game_slot = 0;  // its position in the region of games
};

enum class WorldSize { kSmall, kFull };

std::unique_ptr<World> MakeWorld(Dice& dice, WorldSize size);

// Single pieces, for changes while a game runs and for what is asked.
std::unique_ptr<moru_vyr::lsp::SpurRegion> MakeSpurList(Dice& dice);
std::unique_ptr<moru_vyr::lsp::LaunchTestRegion> MakeLaunchTest(Dice& dice);
void FillRouteBuffer(Dice& dice, moru_vyr::lsp::RouteRegion* buffer);
void ChangeModes(Dice& dice, moru_vyr::lsp::AccConfig* config);
u32 AnyIp(Dice& dice);    // network byte order
u16 AnyPort(Dice& dice);  // network byte order
u32 AnyGameIdc(Dice& dice);
u32 AnyProxyIdc(Dice& dice);
u32 AnyLastNode(Dice& dice);
moru_vyr::lsp::RouteProxyInfo AnyProxyInfo(Dice& dice);
moru_vyr::lsp::SwitchProxyInfo AnySwitchProxyInfo(Dice& dice);

}  // namespace test
