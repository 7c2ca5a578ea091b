// The client program's requests for mendings, as tests make them.
#pragma once
#include <cstdlib>
#include <cstring>

#include "abi/mending_formats.h"
#include "route/mending.h"
#include "tests/support/route_fixture.h"

namespace test {

// VYR_MENDED=all runs the same worlds with every mending for the game, also those that "all" leaves
// out elsewhere, VYR_MENDED=0x3 with the mendings of these bits.
inline moru_vyr::lsp::u32 MendedInAllWorlds() {
  const char* const bits = std::getenv("VYR_MENDED");
  if (bits == nullptr) return 0;
  if (std::strcmp(bits, "all") == 0) return moru_vyr::lsp::kMendKnown;
  return static_cast<moru_vyr::lsp::u32>(std::strtoul(bits, nullptr, 0));
}

// While this object exists, the client program requests the mendings in `bits`.
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
