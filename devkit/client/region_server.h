// Keeps the restriction region in being, for the games that start meanwhile.
#pragma once

#include <memory>
#include <string>

#include "common/shared_mem_obj.h"
#include "route/restriction_formats.h"

namespace client {

// A region lives as long as somebody has it open, so it lives at least as long as this does.
// One thread.
class RegionServer {
 public:
  // Makes the region, or takes over the one that stands, and writes it whole under its mutex:
  // a game that has an older mapping open sees the new content. Waits at most so long for a
  // mutex that is held by another. Empty on success, else the reason in words.
  std::string Publish(const moru_vyr::lsp::RestrictionRegion& region, unsigned wait_ms);

 private:
  std::unique_ptr<common::Shared_mem_owner> owner_;
};

}  // namespace client
