// For the lifetime of this object, the client program requests the mendings in `bits`.
#pragma once
#include <cstdlib>

#include "abi/mending_formats.h"
#include "route/mending.h"
#include "tests/support/route_fixture.h"

namespace test {

// VYR_MENDED=1 has every world's game mended in everything: the same worlds, run a second time.
inline bool AllAreMended() { return std::getenv("VYR_MENDED") != nullptr; }

class Mended {
 public:
  explicit Mended(u32 bits) : region_(moru_vyr::lsp::kMendingRegionName) {
    region_->games[0].mended = bits;
    moru_vyr::lsp::ReadMending(0);
  }
  ~Mended() { moru_vyr::lsp::ReadMending(moru_vyr::lsp::kMaxGames); }
  Mended(const Mended&) = delete;
  Mended& operator=(const Mended&) = delete;

 private:
  ClientRegion<moru_vyr::lsp::MendingRegion> region_;
};

}  // namespace test
