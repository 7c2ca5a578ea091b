#include "route/route_table.h"

#include <algorithm>
#include <new>
#include <span>

#include "common/log.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/acc_mode.h"
#include "route/client_wait.h"
#include "route/route_file.h"

namespace moru_vyr::lsp {
namespace {

// Guard: counts are read once, since the client program may be writing them, and bounded by their
// arrays. (Bounding the routes is required; bounding the proxies is not.)
std::span<const RouteEntry> RoutesOf(const RouteSet& set) noexcept {
  const u32 count = set.route_count;
  return {set.routes, std::min(count, kMaxRoutes)};
}

std::span<const ProxyRecord> ProxiesOf(const RouteTableImage& image) noexcept {
  const u32 count = image.proxy_count;
  return {image.proxies, std::min(count, kMaxProxies)};
}

RouteProxyInfo Join(const ProxyRecord& record, const ProxyRef& ref) noexcept {
  RouteProxyInfo proxy;
  proxy.type = record.type;
  proxy.flag = record.flag;
  common::SetFieldText(proxy.proxy_addr, common::FieldText(record.proxy_addr));
  proxy.proxy_port = record.proxy_port;
  proxy.proxy_idc = record.proxy_idc;
  proxy.proxy_isp = record.proxy_isp;
  common::SetFieldText(proxy.proxy_name, common::FieldText(record.proxy_name));
  proxy.section1_delay = record.section1_delay;
  proxy.section1_lost = record.section1_lost;
  proxy.to_proxy_speed_isp = record.to_proxy_speed_isp;
  proxy.to_proxy_speed_ip = record.to_proxy_speed_ip;
  proxy.surport_isps = record.surport_isps;
  proxy.version = record.version;
  proxy.decision = ref.decision;
  proxy.section2_delay = ref.section2_delay;
  proxy.section2_lost = ref.section2_lost;
  proxy.last_node = ref.last_node;
  return proxy;
}

}  // namespace

bool RouteTable::LoadRoute() noexcept {
  if (source_ == Source::kFile) return true;
  if (source_ == Source::kRegion) return false;
  auto region = OpenRegion();
  const auto file = region == nullptr ? LoadFile() : nullptr;
  if (region == nullptr && file == nullptr) return source_ == Source::kFile;
  const common::Lock hold(lock_);
  if (source_ != Source::kNone) return source_ == Source::kFile;  // another thread was first
  if (region != nullptr) {
    route_mem_ = std::move(region);
    source_ = Source::kRegion;
  } else {
    local_route_.image = *file;
    source_ = Source::kFile;
  }
  return true;
}

// What lookups have returned of the file's image stays valid.
void RouteTable::LoadHeldRegion() noexcept {
  if (source_ == Source::kRegion) return;
  auto region = OpenRegion();
  const common::Lock hold(lock_);
  if (region == nullptr || source_ == Source::kRegion) return;
  route_mem_ = std::move(region);
  source_ = Source::kRegion;
}

void RouteTable::LoadRouteFromMem(const RouteTableImage& image) noexcept {
  const common::Lock hold(lock_);
  if (source_ != Source::kNone) return;
  local_route_.image = image;
  source_ = Source::kFile;
}

std::unique_ptr<common::Shared_mem_obj> RouteTable::OpenRegion() noexcept {
  std::unique_ptr<common::Shared_mem_obj> region;
  try {
    if (!common::Shared_mem_obj::Exists(kRouteRegionName)) {
      LSP_LOG(5,
              "[Route][LoadRoute] open route table from shared memory failed,share mem is not "
              "exist!");
      return nullptr;
    }
    const ClientWait wait(kRouteMutexName);
    was_held_.store(!wait.may_read(), std::memory_order_relaxed);
    if (!wait.may_read()) return nullptr;
    region = std::make_unique<common::Shared_mem_obj>(kRouteRegionName, sizeof(RouteRegion),
                                                      kRouteMutexName, true);
  } catch (const std::bad_alloc&) {
    LSP_LOG(5, "[Route][LoadRoute] open route table from shared memory failed,mem_obj is null!");
    return nullptr;
  }
  LSP_LOG(5, "[Route][LoadRoute] open route table from shared memory success!");
  return region;
}

std::unique_ptr<const RouteTableImage> RouteTable::LoadFile() noexcept {
  auto image = std::unique_ptr<RouteTableImage>(new (std::nothrow) RouteTableImage);
  if (image == nullptr ||
      !LoadRouteFromBinFile(GetAccConfig()->route_binary_file_path, image.get(), sizeof *image)) {
    LSP_LOG(5, "[Route][LoadRoute] load route table from file failed!");
    return nullptr;
  }
  LSP_LOG(5, "[Route][LoadRoute] load route table from file success!");
  return image;
}

const RouteTableImage* RouteTable::Image() noexcept {
  switch (source_) {
    case Source::kNone:
      return nullptr;
    case Source::kFile:
      return &local_route_.image;
    case Source::kRegion:
      break;
  }
  const common::Lock hold(lock_);
  const auto* const region =
      static_cast<const RouteRegion*>(route_mem_->Open(common::kOpenForReading, true));
  return region != nullptr ? &region->image : nullptr;
}

const RouteSet* RouteTable::SelectRouteSet(RouteHeader* header) noexcept {
  LoadRoute();  // a table that was missing at the start may be there by now
  const RouteTableImage* const image = Image();
  if (image == nullptr) return nullptr;
  if (header != nullptr) *header = {image->header0, image->header1, image->header2, image->header3};
  return &image->route_sets[RouteSetIndex(*GetAccConfig())];
}

std::optional<RouteEntry> RouteTable::FindRouteEntry(u32 game_idc, RouteHeader* header) noexcept {
  const RouteSet* const set = SelectRouteSet(header);
  if (set == nullptr) return std::nullopt;
  for (const RouteEntry& entry : RoutesOf(*set))
    if (entry.game_idc == game_idc) return entry;
  return std::nullopt;
}

bool RouteTable::FindProxyByRef(const ProxyRef& ref, RouteProxyInfo* out) noexcept {
  *out = {};
  const RouteTableImage* const image = Image();
  if (image == nullptr) return false;
  for (const ProxyRecord& record : ProxiesOf(*image)) {
    if (record.proxy_idc != ref.proxy_idc) continue;
    *out = Join(record, ref);
    return true;
  }
  return false;
}

bool RouteTable::IsProxyIp(std::string_view ip_text) noexcept {
  const RouteTableImage* const image = Image();
  if (image == nullptr) return false;
  const auto proxies = ProxiesOf(*image);
  return std::any_of(proxies.begin(), proxies.end(), [ip_text](const ProxyRecord& proxy) {
    return common::FieldText(proxy.proxy_addr) == ip_text;
  });
}

}  // namespace moru_vyr::lsp
