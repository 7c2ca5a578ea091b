#include "tracker/series_code.h"

#include <windows.h>

#include <atomic>
#include <cstdio>
#include <random>

#include "common/text.h"
#include "route/acc_config.h"

namespace moru_vyr::lsp {
namespace {

constexpr u32 kRandomRange = 32768;

std::atomic<u32> codes_made{0};

}  // namespace

// A generator of our own, because the runtime's belongs to the game: seeding it again would change
// what the game draws.
void MakeSeriesCode(SOCKET socket, char* buffer, std::size_t size) noexcept {
  if (size < kSeriesCodeSize) return;
  const u32 count = codes_made.fetch_add(1, std::memory_order_relaxed) + 1;
  std::minstd_rand generator(GetTickCount() + count);
  const int random = static_cast<int>(generator() % kRandomRange);
  const AccConfig& config = *GetAccConfig();
  // Kept: the socket is repeated at the end, where a time was meant.
  const int length = std::snprintf(buffer, size, "%llu-%s-%u-%d-%d",
                                   static_cast<unsigned long long>(config.game_id), config.uin,
                                   static_cast<u32>(socket), random, static_cast<int>(socket));
  // What is too long is cut; what could not be written is none.
  buffer[length < 0 ? 0 : size - 1] = '\0';
}

}  // namespace moru_vyr::lsp
