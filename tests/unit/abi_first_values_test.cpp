// Every record that another process reads begins as zeros: a field that nobody fills says "nothing"
// to its reader, and a table without rows has no rows.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "abi/acc_config_formats.h"
#include "abi/acc_decision_info.h"
#include "abi/blacklist_formats.h"
#include "abi/comm_info_record.h"
#include "abi/ip_table_formats.h"
#include "abi/launch_test_formats.h"
#include "abi/mending_formats.h"
#include "abi/proxy_formats.h"
#include "abi/report_records.h"
#include "abi/restriction_formats.h"
#include "abi/route_table_formats.h"

namespace moru_vyr::lsp {
namespace {

// In memory that held something else. The record is packed, so every byte belongs to a field.
template <class Record>
void ExpectZeros(const char* name) {
  const auto bytes = std::make_unique<u8[]>(sizeof(Record));
  std::memset(bytes.get(), 0xEE, sizeof(Record));
  new (bytes.get()) Record;
  const std::vector<u8> zeros(sizeof(Record));
  if (std::memcmp(bytes.get(), zeros.data(), sizeof(Record)) == 0) return;
  const auto at = std::mismatch(zeros.begin(), zeros.end(), bytes.get()).first - zeros.begin();
  ADD_FAILURE() << name << ", byte " << at;
}

TEST(FirstValues, OfTheTables) {
  ExpectZeros<PortIdcRecord>("PortIdcRecord");
  ExpectZeros<ReachRecord>("ReachRecord");
  ExpectZeros<ReachabilityTable>("ReachabilityTable");
  ExpectZeros<AccConfigRecord>("AccConfigRecord");
  ExpectZeros<RestrictionRegion>("RestrictionRegion");
  ExpectZeros<BlacklistRecord>("BlacklistRecord");
  ExpectZeros<BlacklistRegion>("BlacklistRegion");
  ExpectZeros<IpRecord>("IpRecord");
  ExpectZeros<IpTableRegion>("IpTableRegion");
  ExpectZeros<SpurIpRecord>("SpurIpRecord");
  ExpectZeros<SpurRegion>("SpurRegion");
  ExpectZeros<GltRouteInfo>("GltRouteInfo");
  ExpectZeros<LaunchTestRegion>("LaunchTestRegion");
  ExpectZeros<MendingRecord>("MendingRecord");
  ExpectZeros<MendingRegion>("MendingRegion");
}

TEST(FirstValues, OfTheRoutes) {
  ExpectZeros<RouteProxyInfo>("RouteProxyInfo");
  ExpectZeros<SwitchProxyInfo>("SwitchProxyInfo");
  ExpectZeros<ProxyRef>("ProxyRef");
  ExpectZeros<SwitchGroup>("SwitchGroup");
  ExpectZeros<RouteEntry>("RouteEntry");
  ExpectZeros<RouteSet>("RouteSet");
  ExpectZeros<ProxyRecord>("ProxyRecord");
  ExpectZeros<RouteTableImage>("RouteTableImage");
  ExpectZeros<RouteRegion>("RouteRegion");
}

TEST(FirstValues, OfTheReports) {
  ExpectZeros<AccDecisionInfo>("AccDecisionInfo");
  ExpectZeros<CommInfoRecord>("CommInfoRecord");
  ExpectZeros<LogPathRecord>("LogPathRecord");
  ExpectZeros<LspLoadedRecord>("LspLoadedRecord");
  ExpectZeros<NegRetRecord>("NegRetRecord");
  ExpectZeros<RealNegoRecord>("RealNegoRecord");
  ExpectZeros<RecoverySwitchRecord>("RecoverySwitchRecord");
  ExpectZeros<LogPathRegion>("LogPathRegion");
}

}  // namespace
}  // namespace moru_vyr::lsp
