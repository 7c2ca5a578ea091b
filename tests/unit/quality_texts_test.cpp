// The texts of link measurement: thresholds with their minimum values, figures of delays and the
// texts of reports.
#include <winsock2.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "abi/report_records.h"
#include "common/text.h"
#include "quality/link_identity.h"
#include "quality/link_thresholds.h"
#include "quality/recovery_switch.h"
#include "route/acc_config.h"
#include "tracker/speed_stats.h"

namespace moru_vyr::lsp {
namespace {

std::string ConfigText(const AccConfig& config, bool is_switch_session) {
  ReplaceAccConfig(config);
  RecoverySwitchConfig read;
  read.ReadConfig(is_switch_session);
  char text[RecoverySwitchConfig::kTextSize];
  read.Format(text);
  ReplaceAccConfig(AccConfig{});
  return text;
}

AccConfig EachItsOwn() {
  AccConfig config;
  config.short_cycle = 3;
  config.long_cycle = 7;
  config.max_delay_amp = 21;
  config.max_delay_avg = 51;
  config.max_real_route_lost = 22;
  config.switching_max_delay_amp = 4;
  config.switching_max_delay_avg = 5;
  config.switching_max_real_route_lost = 6;
  config.lost_calc_unit_size = 800;
  config.max_link_except_rep_num = 9;
  config.link_switch_min_inter = 31;
  config.max_link_switch_count = 8;
  config.data_link_short_cycle_pkg = 11;
  config.data_link_short_cycle_lost = 12;
  config.data_link_long_cycle_pkg = 23;
  config.data_link_long_cycle_lost = 13;
  return config;
}

TEST(RecoverySwitchConfig, UsesMinimaAndDefaultsIfNothingIsSet) {
  EXPECT_EQ(ConfigText(AccConfig{}, false),
            "short_cycle              =2, long_cycle             =5, max_delay_amp          =20"
            ", max_delay_avg          =50, lost_calc_unit_size    =1000, max_link_except_rep_num=0"
            ", link_switch_min_inter  =30000, max_link_switch_count  =0"
            ", data_link_short_cycle_pkg_10, data_link_short_cycle_lost10"
            ", data_link_long_cycle_pkg_20, data_link_long_cycle_lost_2, max_real_route_lost_20");
  EXPECT_EQ(ConfigText(AccConfig{}, true),
            "short_cycle              =2, long_cycle             =5, max_delay_amp          =20"
            ", max_delay_avg          =50, lost_calc_unit_size    =1000, max_link_except_rep_num=0"
            ", link_switch_min_inter  =30000, max_link_switch_count  =0"
            ", data_link_short_cycle_pkg_10, data_link_short_cycle_lost10"
            ", data_link_long_cycle_pkg_20, data_link_long_cycle_lost_2, max_real_route_lost_1");
}

TEST(RecoverySwitchConfig, TakesTheSettingsOfALinkOnTrial) {
  EXPECT_EQ(ConfigText(EachItsOwn(), false),
            "short_cycle              =3, long_cycle             =7, max_delay_amp          =21"
            ", max_delay_avg          =51, lost_calc_unit_size    =800, max_link_except_rep_num=9"
            ", link_switch_min_inter  =31000, max_link_switch_count  =8"
            ", data_link_short_cycle_pkg_11, data_link_short_cycle_lost12"
            ", data_link_long_cycle_pkg_23, data_link_long_cycle_lost_13, max_real_route_lost_22");
  EXPECT_EQ(ConfigText(EachItsOwn(), true),
            "short_cycle              =3, long_cycle             =7, max_delay_amp          =4"
            ", max_delay_avg          =5, lost_calc_unit_size    =800, max_link_except_rep_num=9"
            ", link_switch_min_inter  =31000, max_link_switch_count  =8"
            ", data_link_short_cycle_pkg_11, data_link_short_cycle_lost12"
            ", data_link_long_cycle_pkg_23, data_link_long_cycle_lost_13, max_real_route_lost_6");
}

// Each threshold just below its floor, at it and above it.
TEST(LinkThresholds, AreRaisedToTheirFloors) {
  AccConfigRecord c;
  const auto check = [&c](auto field, u32 set, u32 (*read)(const AccConfigRecord&), u32 want) {
    c = {};
    c.*field = static_cast<std::remove_reference_t<decltype(c.*field)>>(set);
    EXPECT_EQ(read(c), want) << set;
  };
  using C = AccConfigRecord;
  using Read = u32 (*)(const C&);
  struct Row {
    u32 set, want;
  };
  namespace t = thresholds;
  for (const auto& [set, want] : {Row{0, 10}, {9, 10}, {10, 10}, {11, 11}, {255, 255}}) {
    check(&C::data_link_short_cycle_lost, set, t::DataLinkShortCycleLost, want);
    check(&C::data_link_short_cycle_pkg, set, t::DataLinkShortCyclePkg, want);
  }
  for (const auto& [set, want] : {Row{0, 2}, {1, 2}, {2, 2}, {3, 3}}) {
    check(&C::data_link_long_cycle_lost, set, t::DataLinkLongCycleLost, want);
  }
  for (const auto& [set, want] : {Row{0, 20}, {19, 20}, {20, 20}, {21, 21}}) {
    check(&C::data_link_long_cycle_pkg, set, t::DataLinkLongCyclePkg, want);
    check(&C::max_real_route_lost, set, Read{t::MaxRealRouteLost}, want);
    check(
        &C::max_delay_amp, set, [](const C& r) { return t::MaxDelayAmp(r, false); }, want);
  }
  for (const auto& [set, want] : {Row{0, 50}, {49, 50}, {50, 50}, {51, 51}}) {
    check(
        &C::max_delay_avg, set, [](const C& r) { return t::MaxDelayAvg(r, false); }, want);
    check(
        &C::recovery_window_word, set, [](const C& r) { return u32{t::RecoveryWindow(r)}; }, want);
    check(
        &C::high_freq_test_interval, set,
        [](const C& r) { return t::HighFreqTestInterval(r, false); }, want);
    check(
        &C::switching_high_freq_test_time, set,
        [](const C& r) { return t::HighFreqTestTime(r, true); }, want);
  }
  for (const auto& [set, want] : {Row{0, 500}, {499, 500}, {500, 500}, {501, 501}}) {
    check(&C::norm_test_interval, set, t::NormTestInterval, want);
  }
  for (const auto& [set, want] : {Row{0, 1000}, {999, 1000}, {1001, 1001}}) {
    check(
        &C::high_freq_test_time, set, [](const C& r) { return t::HighFreqTestTime(r, false); },
        want);
  }
  for (const auto& [set, want] : {Row{0, 10}, {9, 10}, {10, 10}, {11, 11}}) {
    check(
        &C::switching_high_freq_test_interval, set,
        [](const C& r) { return t::HighFreqTestInterval(r, true); }, want);
  }
  for (const auto& [set, want] : {Row{0, 30'000}, {29, 30'000}, {31, 31'000}, {65535, 65'535'000}})
    check(&C::link_switch_min_inter, set, t::LinkSwitchMinInterMs, want);
}

// Others have a default for 0 and no floor.
TEST(LinkThresholds, StandForADefaultWhereTheyAreZero) {
  AccConfigRecord c;
  namespace t = thresholds;
  EXPECT_EQ(t::LostCalcUnitSize(c), 1000);
  EXPECT_EQ(t::ShortCycle(c), 2);
  EXPECT_EQ(t::LongCycle(c), 5);
  EXPECT_EQ(t::MaxValidTestDelay(c), 500u);
  EXPECT_EQ(t::MaxDelayAmp(c, true), 20u);
  EXPECT_EQ(t::MaxDelayAvg(c, true), 50u);
  EXPECT_EQ(t::MaxRealRouteLost(c, true), 1u);
  c.lost_calc_unit_size = 1;
  c.short_cycle = c.long_cycle = 1;
  c.max_valid_test_delay = 1;
  c.switching_max_delay_amp = c.switching_max_delay_avg = 1;
  c.switching_max_real_route_lost = 1;
  EXPECT_EQ(t::LostCalcUnitSize(c), 1);
  EXPECT_EQ(t::ShortCycle(c), 1);
  EXPECT_EQ(t::LongCycle(c), 1);
  EXPECT_EQ(t::MaxValidTestDelay(c), 1u);
  EXPECT_EQ(t::MaxDelayAmp(c, true), 1u);
  EXPECT_EQ(t::MaxDelayAvg(c, true), 1u);
  EXPECT_EQ(t::MaxRealRouteLost(c, true), 1u);
  c.lost_calc_unit_size = 0x10000;  // only the low half counts
  EXPECT_EQ(t::LostCalcUnitSize(c), 1000);
  c.lost_calc_unit_size = 0x30064;
  EXPECT_EQ(t::LostCalcUnitSize(c), 100);
}

TEST(LinkIdentity, SpellsAddressesInTheirUsualOrder) {
  AccInfo acc;
  acc.game_ip = static_cast<u32>(inet_addr("198.51.100.1"));
  acc.game_port = htons(5000);
  acc.proxy_idc = 4000000000;
  acc.acc_ip = static_cast<u32>(inet_addr("203.0.113.7"));
  acc.acc_port = htons(65535);
  char text[kLinkTextSize];
  acc.Format(text);
  EXPECT_STREQ(text, "198.51.100.1-5000-4000000000-203.0.113.7-65535");
  ClientInfo client;
  client.header1 = 3;
  client.client_isp = 2;
  client.client_ip = 0xC6336409;
  client.Format(text);
  EXPECT_STREQ(text, "3-0-2-198.51.100.9");
}

TEST(RecoveryRecordText, HasEveryLabelInItsOrder) {
  RecoverySwitchRecord record;
  record.game_id = 18446744073709551615u;
  record.data_link_small_section_pack = 1;
  record.data_link_small_section_lost = 2;
  record.data_link_full_section_pack = 3;
  record.data_link_full_section_lost = 4;
  record.need_switch = 5;
  record.is_switch_succ = 6;
  record.count = 7;
  record.proxy_idc = 8;
  record.elapse_time = 4294967295;
  record.total_recv_pack = 10;
  record.total_send_pack = 11;
  record.link_type = 12;
  common::SetFieldText(record.guid, "G");
  common::SetFieldText(record.switch_condition, "S");
  common::SetFieldText(record.acc_info, "A");
  common::SetFieldText(record.client_info, "C");
  common::SetFieldText(record.fe_be, "F");
  EXPECT_STREQ(RecoveryRecordText(record).c_str(),
               "game_id=18446744073709551615, data_link_small_section_pack=1"
               ", data_link_small_section_lost=2, data_link_full_section_pack=3"
               ", data_link_full_section_lost=4, need_switch=5, switch_result=6, count=7"
               ", link type=12, proxy_idc=8, session_elapse_time=4294967295, session_recv_pack=10"
               ", session_send_pack=11, guid=G, switch_condition=S, acc_info=A, client_info=C"
               ", fe_be=F");
}

TEST(RecoveryRecordText, HoldsTheLongestRecord) {
  RecoverySwitchRecord record;
  std::memset(static_cast<void*>(&record), 0x80, offsetof(RecoverySwitchRecord, guid));
  common::SetFieldText(record.guid, std::string(36, 'g'));
  for (char(*field)[120] :
       {&record.switch_condition, &record.acc_info, &record.client_info, &record.fe_be}) {
    common::SetFieldText(*field, std::string(119, 'x'));
  }
  const std::string text = RecoveryRecordText(record).c_str();
  const std::string end = ", fe_be=" + std::string(119, 'x');
  ASSERT_GT(text.size(), end.size());
  EXPECT_EQ(text.substr(text.size() - end.size()), end);
}

struct Figures {
  u32 avg, max, min, amp, count;
  bool operator==(const Figures&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Figures& f) {
  return out << "avg " << f.avg << ", max " << f.max << ", min " << f.min << ", amp " << f.amp
             << ", count " << f.count;
}
Figures Of(const DelayFigures& f) { return {f.avg, f.max, f.min, f.amp, f.count}; }

TEST(SpeedFigures, AreTruncated) {
  DelayFigures figures;
  figures.Add(10);
  EXPECT_EQ(Of(figures), (Figures{10, 10, 10, 0, 1}));
  figures.Add(21);
  EXPECT_EQ(Of(figures), (Figures{15, 21, 10, 5, 2}));  // the root of 30.5, about 15
  figures.Add(3);
  EXPECT_EQ(Of(figures), (Figures{11, 21, 3, 7, 3}));
}

// The average is truncated, so the swing of equal delays is 0 and never the root of a little less.
TEST(SpeedFigures, OfEqualDelaysDoNotSwing) {
  for (const u32 delay : {1u, 7u, 33u, 499u, 9999u}) {
    DelayFigures figures;
    for (int i = 0; i < 1000; ++i) figures.Add(delay);
    EXPECT_EQ(figures.avg, delay);
    EXPECT_EQ(figures.amp, 0u) << delay;
  }
}

}  // namespace
}  // namespace moru_vyr::lsp
