// The route policy written down rule by rule, for comparison: no index, no map, no cache, no lock.
// Every question searches the records that the client program wrote.
#pragma once
#include <string>
#include <vector>

#include "tests/model/route_world.h"

namespace test {

class RouteModel {
 public:
  enum class SwitchSource { kNone, kManual, kRouteTable, kSessionRecord };

  // Notices every later change of `world` that the policy would notice.
  explicit RouteModel(const World& world) : world_(world) {}

  void ReadConfig();
  bool Load();
  void ReloadSpurList();

  bool GetGameIDC(u32 ip, u16 port, u32* idc, bool ignore_port) const;
  bool NeedRelay(u32 ip, u16 port, i32 socket_type) const;
  bool MakeDecision(u32 ip, u16 port, i32 socket_type, const std::string& guid, u32 process_id,
                    u32 socket, moru_vyr::lsp::AccDecisionInfo* info,
                    moru_vyr::lsp::SwitchProxyInfo* switch_cache);
  bool MakeSwitchDecision(moru_vyr::lsp::AccDecisionInfo* info,
                          moru_vyr::lsp::SwitchProxyInfo* cache, u16 last_node);
  u32 GetServerLag(u32 ip);

  // The source of the last switch, to check that all sources have been used.
  SwitchSource switch_source() const { return switch_source_; }

 private:
  enum class Source { kNone, kFile, kRegion };

  void LoadRoute();
  void LoadPorts();
  const moru_vyr::lsp::RouteTableImage* Image() const;
  const moru_vyr::lsp::RouteEntry* FindEntry(u32 game_idc);
  bool FindProxy(const moru_vyr::lsp::ProxyRef& ref, moru_vyr::lsp::RouteProxyInfo* out) const;
  bool FindLaunchTest(u32 game_idc, moru_vyr::lsp::GltRouteInfo* out) const;

  bool IsExcludedPort(u16 port, i32 socket_type) const;
  bool IsProxyIp(u32 ip) const;
  bool IsBlacklisted(u32 ip, u16 port, i32 socket_type) const;
  bool IsReachable(u32 game_idc) const;
  bool IsManual() const;

  bool ProxyFor(u32 game_idc, moru_vyr::lsp::RouteProxyInfo* out,
                moru_vyr::lsp::AccDecisionInfo* info, moru_vyr::lsp::SwitchProxyInfo* cache);
  void Refine(const moru_vyr::lsp::RouteEntry& entry, moru_vyr::lsp::RouteProxyInfo* out) const;
  void RefineByLaunchTest(const moru_vyr::lsp::RouteEntry& entry,
                          moru_vyr::lsp::RouteProxyInfo* out) const;
  void FillInfo(const moru_vyr::lsp::RouteEntry& entry, const moru_vyr::lsp::RouteProxyInfo& proxy,
                moru_vyr::lsp::AccDecisionInfo* info) const;
  void RecordCandidates(const moru_vyr::lsp::RouteEntry& entry, u32 last_node,
                        moru_vyr::lsp::SwitchProxyInfo* cache) const;

  bool SwitchByHand(u32 game_idc, u32 current_proxy, u32 last_node,
                    moru_vyr::lsp::RouteProxyInfo* out) const;
  bool SwitchByTable(u32 game_idc, u32 current_proxy, u32 last_node,
                     moru_vyr::lsp::RouteProxyInfo* out, moru_vyr::lsp::SwitchProxyInfo* cache);
  bool SwitchByRecord(u32 current_proxy, u32 last_node, moru_vyr::lsp::RouteProxyInfo* out,
                      const moru_vyr::lsp::SwitchProxyInfo* cache) const;

  const World& world_;
  moru_vyr::lsp::AccConfig config_;
  Source source_ = Source::kNone;
  SwitchSource switch_source_ = SwitchSource::kNone;
  std::vector<moru_vyr::lsp::IpRecord> ips_;  // of the configured level, as written
  std::vector<moru_vyr::lsp::SpurIpRecord> spurs_;
  std::vector<moru_vyr::lsp::BlacklistRecord> blacklist_;
  std::vector<moru_vyr::lsp::PortIdcRecord> ports_;
  u32 all_port_idc_ = 0;
};

}  // namespace test
