// The route table, looked up either in the client program's region, where each flip takes effect by
// itself, or in the image of the binary file. Whichever was found first is used for the life of the
// process; but a file gives way to a region that the client program held at the start, where that
// is not waited for (client_wait.h).
//
// Any thread may call anything here. A pointer that a lookup returns points into memory that the
// client program may rewrite after its next flip but one: use it at once, and copy what must stay
// the same.
#pragma once
#include <atomic>
#include <memory>
#include <optional>
#include <string_view>

#include "abi/proxy_formats.h"
#include "abi/route_table_formats.h"
#include "common/lock.h"
#include "common/shared_mem_obj.h"
#include "common/types.h"

namespace moru_vyr::lsp {

class RouteTable {
 public:
  // Looks for a source while there is none. True if the table is in the file's image, or if this
  // very call found it. Kept: false where the region had been found before.
  bool LoadRoute() noexcept;

  // Whether the region could not be opened at the last look because the mutex was not free.
  bool was_held() const noexcept { return was_held_.load(std::memory_order_relaxed); }
  // Looks for the region again, which then also replaces the file's image.
  void LoadHeldRegion() noexcept;

  // Takes this table, if there is none yet, as if a file had held it: for tools that ask about
  // tables that no client program has published.
  void LoadRouteFromMem(const RouteTableImage& image) noexcept;

  bool HasRouteTable() const noexcept { return source_ != Source::kNone; }

  // The routes for the configured acc_mode, and the table's header if the caller wants it. Null if
  // there is no table, or none that can be read.
  const RouteSet* SelectRouteSet(RouteHeader* header) noexcept;

  // A copy of the first entry for that data centre.
  std::optional<RouteEntry> FindRouteEntry(u32 game_idc, RouteHeader* header) noexcept;

  // The referenced proxy, combined with the data of the reference; *out is zero if there is none.
  // Never looks for a source.
  bool FindProxyByRef(const ProxyRef& ref, RouteProxyInfo* out) noexcept;

  // Whether one of the proxies has that address, compared as text.
  bool IsProxyIp(std::string_view ip_text) noexcept;

 private:
  enum class Source { kNone, kFile, kRegion };

  std::unique_ptr<common::Shared_mem_obj> OpenRegion() noexcept;
  std::unique_ptr<const RouteTableImage> LoadFile() noexcept;
  const RouteTableImage* Image() noexcept;

  // Set last. Never changed again, except from the file to a region that was held.
  std::atomic<Source> source_ = Source::kNone;
  std::atomic<bool> was_held_{false};
  // Guards the choice of a source, and Open of the region, which maps it at the first use: the
  // worker and the threads that send pings compete for it. Not held while a source is looked for,
  // which waits for the client program and for the disk: two threads may look at once, and the
  // first result counts. None of our locks is taken inside it.
  common::Mutex lock_;
  // The view stays open until the end, because lookups return into it.
  std::unique_ptr<common::Shared_mem_obj> route_mem_;
  RouteRegion local_route_;  // its header is never filled
};

}  // namespace moru_vyr::lsp
