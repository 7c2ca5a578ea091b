// The client program's side of the route policy, and a policy that has read it.
//
// The regions have their real names, so on one machine these tests must run one at a time, and not
// beside a running client program. Nothing here sends a packet; the addresses are reserved for
// documentation.
#pragma once
#include <winsock2.h>
//
#include <windows.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "abi/ip_table_formats.h"
#include "abi/route_formats.h"
#include "common/shared_mem_obj.h"
#include "common/text.h"
#include "route/acc_config.h"
#include "route/decision.h"
#include "route/route.h"
#include "tests/support/log_capture.h"

namespace test {

using common::i32;
using common::u16;
using common::u32;
using common::u64;
using common::u8;

inline u32 Ip(const char* text) { return static_cast<u32>(inet_addr(text)); }
inline u16 Port(u16 host_port) { return htons(host_port); }

// A record with every byte set to the same value.
template <typename T>
void Fill(T& record, int byte) {
  std::memset(static_cast<void*>(&record), byte, sizeof record);
}

// A plain region, created by the client program. Initially it has only a header.
template <typename T>
class ClientRegion {
 public:
  explicit ClientRegion(const char* name, u32 mapped_size = sizeof(T))
      : mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, mapped_size,
                                    name)) {
    EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS))
        << "a client runs on this machine: end it and try again";
    view_ = MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, mapped_size);
    EXPECT_NE(view_, nullptr);
    if (mapped_size < sizeof(T)) return;
    region().header = {sizeof(T), common::kSharedMemMajorVersion, common::kSharedMemMinorVersion};
  }
  ~ClientRegion() {
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
  }
  ClientRegion(const ClientRegion&) = delete;
  ClientRegion& operator=(const ClientRegion&) = delete;

  T& region() { return *static_cast<T*>(view_); }
  T* operator->() { return &region(); }

 private:
  HANDLE mapping_;
  void* view_ = nullptr;
};

// The double-buffered region of the route table: a selector, then the two buffers.
class RouteClient {
 public:
  static constexpr u32 kMappedSize = 131364;

  explicit RouteClient(u32 mapped_size = kMappedSize)
      : mapping_(CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, mapped_size,
                                    moru_vyr::lsp::kRouteRegionName)) {
    EXPECT_NE(GetLastError(), static_cast<DWORD>(ERROR_ALREADY_EXISTS))
        << "a client runs on this machine: end it and try again";
    view_ = static_cast<u8*>(MapViewOfFile(mapping_, FILE_MAP_ALL_ACCESS, 0, 0, mapped_size));
    EXPECT_NE(view_, nullptr);
    if (mapped_size < kMappedSize) return;
    for (u32 i = 0; i < 2; ++i)
      Buffer(i).header = {65680, common::kSharedMemMajorVersion, common::kSharedMemMinorVersion};
  }
  ~RouteClient() {
    UnmapViewOfFile(view_);
    CloseHandle(mapping_);
  }
  RouteClient(const RouteClient&) = delete;
  RouteClient& operator=(const RouteClient&) = delete;

  // Fills the buffer that is not in use, and swaps the two.
  void Publish(const moru_vyr::lsp::RouteTableImage& image) {
    const u32 other = Selector() == 0 ? 1 : 0;
    Buffer(other).image = image;
    Selector() = other;
  }
  u32& Selector() { return *reinterpret_cast<u32*>(view_); }
  moru_vyr::lsp::RouteRegion& Buffer(u32 index) {
    return *reinterpret_cast<moru_vyr::lsp::RouteRegion*>(view_ + 4 + index * 65680);
  }
  // The buffer that readers use; a test may overwrite it during a read.
  moru_vyr::lsp::RouteRegion& Live() { return Buffer(Selector() == 0 ? 0 : 1); }

 private:
  HANDLE mapping_;
  u8* view_ = nullptr;
};

// --- writing tables --------------------------------------------------------------------------

inline moru_vyr::lsp::ProxyRef Ref(u32 proxy_idc, u32 decision = moru_vyr::lsp::DECISION_ACCE,
                                   u32 last_node = 0, u32 delay = 0) {
  moru_vyr::lsp::ProxyRef ref;
  ref.proxy_idc = proxy_idc;
  ref.decision = decision;
  ref.last_node = last_node;
  ref.section2_delay = delay;
  ref.section2_lost = delay / 10;
  return ref;
}

inline moru_vyr::lsp::ProxyRecord& AddProxy(moru_vyr::lsp::RouteTableImage& image, u32 proxy_idc,
                                            const char* addr, u32 delay = 0) {
  moru_vyr::lsp::ProxyRecord& proxy = image.proxies[image.proxy_count];
  image.proxy_count = image.proxy_count + 1;
  proxy.proxy_idc = proxy_idc;
  common::SetFieldText(proxy.proxy_addr, addr);
  proxy.proxy_port = static_cast<u16>(7000 + proxy_idc);
  proxy.section1_delay = delay;
  return proxy;
}

inline moru_vyr::lsp::RouteEntry& AddRoute(moru_vyr::lsp::RouteSet& set, u32 game_idc,
                                           const moru_vyr::lsp::ProxyRef& ref_default) {
  moru_vyr::lsp::RouteEntry& entry = set.routes[set.route_count];
  set.route_count = set.route_count + 1;
  entry.game_idc = game_idc;
  entry.ref_default = ref_default;
  return entry;
}

inline void AddGlt(moru_vyr::lsp::LaunchTestRegion& region, u32 game_idc, u32 proxy_idc,
                   const char* addr) {
  moru_vyr::lsp::GltRouteInfo& record = region.records[region.valid_count];
  region.valid_count = region.valid_count + 1;
  record.game_idc = game_idc;
  record.proxy.proxy_idc = proxy_idc;
  record.proxy.decision = moru_vyr::lsp::DECISION_OVER_MAX_LOST;  // must never be used
  common::SetFieldText(record.proxy.proxy_addr, addr);
}

// --- a policy --------------------------------------------------------------------------------

// Tests fill `config`, `image` and the tables, then call Publish.
class RoutePolicy : public testing::Test {
 protected:
  RoutePolicy() {
    config.valid = 1;
    config.acc_mode = 1;
    moru_vyr::lsp::ReplaceAccConfig(config);
  }
  ~RoutePolicy() override { moru_vyr::lsp::ReplaceAccConfig(moru_vyr::lsp::AccConfig{}); }

  // Installs the configuration, and the image as the route table.
  void Publish() {
    moru_vyr::lsp::ReplaceAccConfig(config);
    if (!client) client = std::make_unique<RouteClient>();
    client->Publish(image);
    route.route_table().LoadRoute();
  }

  void LoadIps(std::initializer_list<moru_vyr::lsp::IpRecord> records) {
    auto region = std::make_unique<moru_vyr::lsp::IpTableRegion>();
    for (const auto& record : records) {
      region->records[region->ip_count] = record;
      region->ip_count = region->ip_count + 1;
    }
    route.ip_table().LoadIpTableFromMem(*region);
  }
  void LoadSpurs(std::initializer_list<moru_vyr::lsp::SpurIpRecord> records) {
    auto region = std::make_unique<moru_vyr::lsp::SpurRegion>();
    for (const auto& record : records) {
      region->records[region->spur_count] = record;
      region->spur_count = region->spur_count + 1;
    }
    route.spur_list().LoadSpurIplistTableFromMem(*region);
  }
  void LoadBlacklist(std::initializer_list<moru_vyr::lsp::BlacklistRecord> records) {
    auto region = std::make_unique<moru_vyr::lsp::BlacklistRegion>();
    for (const auto& record : records) {
      region->records[region->blacklist_count] = record;
      region->blacklist_count = region->blacklist_count + 1;
    }
    route.blacklist().LoadBlacklistTableFromMem(*region);
  }
  void LoadPorts(std::initializer_list<moru_vyr::lsp::PortIdcRecord> records) {
    config.port_idc_count = 0;
    for (const auto& record : records) {
      config.port_idc_records[config.port_idc_count] = record;
      config.port_idc_count = static_cast<u16>(config.port_idc_count + 1);
    }
    moru_vyr::lsp::ReplaceAccConfig(config);
    route.port_map().LoadPortIdcTable();
  }

  LogCapture log;
  moru_vyr::lsp::AccConfig config;
  moru_vyr::lsp::RouteTableImage image;
  std::unique_ptr<RouteClient> client;  // before the policy, whose views it must outlive
  moru_vyr::lsp::Route route;
};

}  // namespace test
