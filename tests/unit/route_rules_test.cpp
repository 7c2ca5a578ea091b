// The rules that are tables: verdicts, inner addresses, excluded ports, reachability, proxy text.
#include <gtest/gtest.h>

#include <cstring>

#include "common/text.h"
#include "route/decision.h"
#include "route/destination.h"
#include "route/proxy_text.h"
#include "tests/support/route_fixture.h"

namespace {

using namespace moru_vyr::lsp;
using test::Ip;
using test::Port;

TEST(Decision, EachHasItsNameItsReasonAndItsEffect) {
  const struct {
    u32 decision;
    const char* name;
    bool accelerates;
    i32 acc_reason;
  } kRows[] = {
      {0, "DECISION_ACCE", true, 0},
      {1, "DECISION_DIRECT", false, 1},
      {2, "DECISION_NOT_ACCE_SAME_ISP", false, 7},
      {3, "DECISION_NOT_ACCE", false, 10},
      {4, "DECISION_FORCE_ACCE_AUTO", true, 11},
      {5, "DECISION_OVER_MAX_BOTH", false, 12},
      {6, "DECISION_OVER_MAX_DELAY", false, 13},
      {7, "DECISION_OVER_MAX_LOST", false, 14},
      {8, "DECISION_FORCE_ACCE_MANUAL", true, 16},
      {9, "DECISION_UNKNOWN", false, -1},
      {255, "DECISION_UNKNOWN", false, -1},
      {0xFFFFFFFF, "DECISION_UNKNOWN", false, -1},
  };
  for (const auto& row : kRows) {
    SCOPED_TRACE(row.decision);
    i32 acc_reason = 99;
    EXPECT_STREQ(DecisionName(row.decision, &acc_reason), row.name);
    EXPECT_EQ(acc_reason, row.acc_reason);
    EXPECT_EQ(Accelerates(row.decision), row.accelerates);
    EXPECT_STREQ(DecisionName(row.decision, nullptr), row.name);
  }
}

TEST(InnerIp, EachRangeEndsWhereItsMaskSays) {
  const struct {
    const char* ip;
    bool inner;
  } kRows[] = {
      {"10.0.0.0", true},
      {"10.255.255.255", true},
      {"9.255.255.255", false},
      {"11.0.0.0", false},
      {"172.16.0.1", true},
      {"172.31.255.255", true},
      {"172.15.255.255", false},
      {"172.32.0.1", false},
      {"192.168.0.0", true},
      {"192.168.255.255", true},
      {"192.167.255.255", false},
      {"192.169.0.0", false},
      {"100.64.0.0", true},
      {"100.127.255.255", true},
      {"100.63.1.1", false},
      {"100.128.0.0", false},
      {"100.191.255.255", false},
      {"100.192.0.0", true},  // kept: one bit decides, so these are inner too
      {"100.200.1.1", true},
      {"100.255.255.255", true},
      {"101.64.0.0", false},
      {"127.0.0.1", true},
      {"127.255.255.255", true},
      {"126.255.255.255", false},
      {"128.0.0.0", false},
      {"0.0.0.0", false},
      {"203.0.113.1", false},
  };
  for (const auto& row : kRows) EXPECT_EQ(IsInnerIp(Ip(row.ip)), row.inner) << row.ip;
}

TEST(ExcludedPort, AppliesToStreamSocketsOnly) {
  AccConfigRecord config;
  config.excluded_port_count = 2;
  config.excluded_ports[0] = 80;
  config.excluded_ports[1] = 65535;
  config.excluded_ports[2] = 443;  // beyond the count
  const struct {
    u16 port;
    i32 socket_type;
    bool excluded;
  } kRows[] = {
      {80, SOCK_STREAM, true},     {65535, SOCK_STREAM, true}, {443, SOCK_STREAM, false},
      {20480, SOCK_STREAM, false},  // 80 with its bytes in the other order
      {80, SOCK_DGRAM, false},     {80, SOCK_RAW, false},      {0, SOCK_STREAM, false},
  };
  for (const auto& row : kRows)
    EXPECT_EQ(IsExcludedPort(config, Port(row.port), row.socket_type), row.excluded) << row.port;
}

TEST(ExcludedPort, CountPastTheArrayReadsTheArray) {
  AccConfigRecord config;
  config.excluded_port_count = 0xFFFFFFFF;
  config.excluded_ports[31] = 81;
  EXPECT_TRUE(IsExcludedPort(config, Port(81), SOCK_STREAM));
  EXPECT_FALSE(IsExcludedPort(config, Port(82), SOCK_STREAM));
}

TEST(Reachable, FirstRecordOfTheDataCentreDecides) {
  test::LogCapture log;
  ReachabilityTable table;
  table.proxy_idc = 77;
  table.reach_count = 5;
  const u32 kRecords[][2] = {{1, 9998}, {2, 9999}, {3, 10000}, {4, 0}, {1, 9999}, {5, 1}};
  for (u32 i = 0; i < 6; ++i) {
    table.records[i].game_idc = kRecords[i][0];
    table.records[i].delay = kRecords[i][1];
  }
  EXPECT_TRUE(IsReachable(&table, 1));
  EXPECT_FALSE(IsReachable(&table, 2));
  EXPECT_FALSE(IsReachable(&table, 3));
  EXPECT_TRUE(IsReachable(&table, 4));
  EXPECT_FALSE(IsReachable(&table, 5)) << "it stands beyond the count";
  EXPECT_TRUE(
      log.Contains("[4][lsp][Route][IsReachable] proxy_idc(77) to game_idc(1) reachable=true\n"));
  EXPECT_TRUE(
      log.Contains("[4][lsp][Route][IsReachable] proxy_idc(77) to game_idc(2) reachable=false\n"));
}

TEST(Reachable, NoDataCentreIsNotReachableEvenIfListed) {
  ReachabilityTable table;
  table.reach_count = 1;  // game_idc 0, delay 0
  EXPECT_FALSE(IsReachable(&table, 0));
  EXPECT_FALSE(IsReachable(nullptr, 1));
}

TEST(Reachable, CountPastTheArrayReadsTheArray) {
  ReachabilityTable table;
  table.reach_count = 0xFFFFFFFF;
  table.records[63].game_idc = 9;
  table.records[63].delay = 1;
  EXPECT_TRUE(IsReachable(&table, 9));
  EXPECT_FALSE(IsReachable(&table, 10));
}

RouteProxyInfo NumberedProxy() {
  RouteProxyInfo proxy;
  proxy.type = 1;
  proxy.flag = 2;
  common::SetFieldText(proxy.proxy_addr, "203.0.113.9");
  proxy.proxy_port = 4;
  proxy.proxy_idc = 5;
  proxy.proxy_isp = 6;
  common::SetFieldText(proxy.proxy_name, "node five");
  proxy.section1_delay = 8;
  proxy.section1_lost = 9;
  proxy.to_proxy_speed_isp = 10;
  proxy.to_proxy_speed_ip = 11;
  proxy.user_isp = 12345;
  proxy.user_ip = 54321;
  proxy.surport_isps = 12;
  proxy.version = 13;
  proxy.decision = 14;
  proxy.section2_delay = 15;
  proxy.section2_lost = 16;
  proxy.last_node = 17;
  return proxy;
}

TEST(ProxyText, HasEachFieldInOrderAndNotTheUsers) {
  EXPECT_STREQ(ProxyText(NumberedProxy()).c_str(),
               "type=1, flag=2, proxy_addr=203.0.113.9, proxy_port=4, proxy_idc=5, proxy_isp=6, "
               "proxy_name=node five, section1_delay=8, section1_lost=9, to_proxy_speed_isp=10, "
               "to_proxy_speed_ip=11, surport_isps=12, version=13, decision=14, "
               "section2_delay=15, section2_lost=16, last_node=17");
}

TEST(ProxyText, UnterminatedFieldsEndWithTheirField) {
  RouteProxyInfo proxy;
  test::Fill(proxy, 'x');
  const std::string text = ProxyText(proxy).c_str();
  EXPECT_NE(text.find("proxy_addr=" + std::string(32, 'x') + ", proxy_port"), std::string::npos);
  EXPECT_NE(text.find("proxy_name=" + std::string(64, 'x') + ", section1"), std::string::npos);
  EXPECT_NE(text.find(", last_node=2021161080"), std::string::npos) << "nothing is cut";
}

TEST(ProxyText, LargestNumbersAreNotCut) {
  RouteProxyInfo proxy;
  test::Fill(proxy, 0xFF);
  const std::string text = ProxyText(proxy).c_str();
  EXPECT_EQ(text.substr(text.size() - 20), "last_node=4294967295");
}

TEST(ProxyText, PairIsLoggedWithoutItsEmptyPlaces) {
  test::LogCapture log;
  SwitchProxyInfo pair;
  pair.game_idc = 301;
  pair.last_node = 42;
  pair.proxies[1] = NumberedProxy();
  LogSwitchProxyInfo(pair);
  EXPECT_TRUE(
      log.Contains("[0][lsp][Route][switch_proxy_info] game_idc(301), last_node_idc(42): \n\n"));
  EXPECT_TRUE(log.Contains("[0][lsp][proxy_info] type=1, flag=2, "));
  EXPECT_FALSE(log.Contains("proxy_idc=0"));
}

}  // namespace
