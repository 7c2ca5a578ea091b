// What the client program measured when the game was launched. Unlike the other tables it is read
// again for each question, so a new measurement counts at once, without a notification.
#pragma once
#include <memory>

#include "abi/launch_test_formats.h"
#include "common/lock.h"
#include "common/shared_mem_obj.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class LaunchTest {
 public:
  // Copies the first record for that data centre to *out, with its texts terminated; leaves *out
  // alone if there is none. Any thread. Waits for the region's mutex without limit, unless the game
  // asks for one.
  bool LoadGltRouteInfoFromShare(u32 game_idc, GltRouteInfo* out) noexcept;

  // Answers from a copy of this table from now on, never from the region: for tools that ask about
  // tables that no client program has published. May throw std::bad_alloc.
  void LoadGltTableFromMem(const LaunchTestRegion& table);

 private:
  common::Shared_mem_obj* OpenRegion() noexcept;

  // Guards the two pointers, and the use of what they point to where the region's mutex does not.
  // The worker and the threads that send pings compete for it, so it is never held while one of
  // them waits for the client program.
  common::Mutex lock_;
  std::unique_ptr<common::Shared_mem_obj> glt_mem_;    // stays once it exists
  std::unique_ptr<const LaunchTestRegion> local_glt_;  // replaces the region, if set
};

}  // namespace moru_vyr::lsp
