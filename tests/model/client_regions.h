// Puts a world's tables into named shared memory, where the policy looks for them, with the calls
// that a client program would use.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>

#include "tests/model/route_world.h"

namespace test {

// A named mapping. It ends with this object, unless it is open elsewhere.
class NamedMapping {
 public:
  NamedMapping(const char* name, u32 size)
      : mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name)) {
    EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS)) << name;
    view_ = static_cast<u8*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, size));
    EXPECT_NE(view_, nullptr) << name;
  }
  ~NamedMapping() {
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
  }
  NamedMapping(const NamedMapping&) = delete;
  NamedMapping& operator=(const NamedMapping&) = delete;

  void Write(std::size_t offset, const void* bytes, std::size_t size) {
    std::memcpy(view_ + offset, bytes, size);
  }

 private:
  HANDLE mapping_;
  u8* view_ = nullptr;
};

class ClientRegions {
 public:
  explicit ClientRegions(const World& world) { Publish(world); }

  // Writes the world's tables into shared memory. Existing regions are rewritten in place and never
  // removed.
  void Publish(const World& world) {
    PublishGames(world);
    PublishRegion(world.ip_table.get(), moru_vyr::lsp::kIpTableRegionName, &ip_table_);
    PublishSmall(world);
  }

  // The game's record among others: before it an unused one for the same program, after it one that
  // comes too late.
  void PublishGames(const World& world) {
    const auto games = std::make_unique<moru_vyr::lsp::RestrictionRegion>();
    games->header = {sizeof *games, 1, 36};
    for (u32 i = 0; i < moru_vyr::lsp::kMaxGames; ++i) {
      moru_vyr::lsp::AccConfigRecord& game = games->games[i];
      game.valid = i < world.game_slot ? 0 : 1;
      game.path_count = 1;
      std::memcpy(game.game_paths[0], world.config.game_paths[0], sizeof game.game_paths[0]);
    }
    games->games[world.game_slot] = world.config;
    std::memcpy(games->route_binary_file_path, world.config.route_binary_file_path,
                sizeof games->route_binary_file_path);
    PublishRegion<moru_vyr::lsp::RestrictionRegion>(games.get(),
                                                    moru_vyr::lsp::kRestrictionRegionName, &games_);
  }

  // All except the games and the IP table, which are read once.
  void PublishSmall(const World& world) {
    PublishRegion(world.blacklist.get(), moru_vyr::lsp::kBlacklistRegionName, &blacklist_);
    PublishRegion(world.spur_list.get(), moru_vyr::lsp::kSpurRegionName, &spur_list_);
    PublishRegion(world.launch_test.get(), moru_vyr::lsp::kLaunchTestRegionName, &launch_test_);
    if (world.has_route_region) PublishRoutes(world);
  }

 private:
  static constexpr u32 kRouteMappingSize = 131364;

  template <typename Region>
  static void PublishRegion(const Region* region, const char* name,
                            std::unique_ptr<NamedMapping>* mapping) {
    if (region == nullptr) return;
    if (!*mapping)
      *mapping = std::make_unique<NamedMapping>(name, static_cast<u32>(sizeof *region));
    (*mapping)->Write(0, region, sizeof *region);
  }

  void PublishRoutes(const World& world) {
    if (!routes_)
      routes_ = std::make_unique<NamedMapping>(moru_vyr::lsp::kRouteRegionName, kRouteMappingSize);
    routes_->Write(4, world.route_buffers, sizeof world.route_buffers);
    routes_->Write(0, &world.route_selector, sizeof world.route_selector);
  }

  std::unique_ptr<NamedMapping> games_;
  std::unique_ptr<NamedMapping> ip_table_;
  std::unique_ptr<NamedMapping> blacklist_;
  std::unique_ptr<NamedMapping> spur_list_;
  std::unique_ptr<NamedMapping> launch_test_;
  std::unique_ptr<NamedMapping> routes_;
};

}  // namespace test
