// The judge of a link: which links it judges, what makes it report, and to whom. A wrong verdict
// costs a game a healthy link, or leaves it on a dead one.
#include "quality/recovery_switch.h"
#include "tests/support/log_texts.h"

#include "tests/support/link_judge.h"

namespace moru_vyr::lsp {
namespace {

using test::CountOf;
using test::LinkJudge;
using test::LogCapture;

class ProcessName {
 public:
  explicit ProcessName(const char* name) {
    common::SetFieldText(common::GetProcessInfo().process_name, name);
  }
  ~ProcessName() { common::SetFieldText(common::GetProcessInfo().process_name, before_); }

 private:
  const std::string before_ = common::GetProcessInfo().process_name;
};

TEST(RecoverySwitch, MeasuresTheLinkTypesThatTheMaskOpens) {
  struct Case {
    u8 mask;
    u32 type;
    bool judges;
  };
  for (const auto& [mask, type, judges] : {Case{0, 0, false},
                                           {0, 1, false},
                                           {0, 2, false},
                                           {1, 0, true},
                                           {1, 1, false},
                                           {2, 0, false},
                                           {2, 1, true},
                                           {3, 0, true},
                                           {3, 1, true},
                                           {1, 2, true},
                                           {4, 2, true},
                                           {4, 0, false},
                                           {4, 99, true}}) {
    LinkJudge link;
    link.config.link_switch_mask = mask;
    link.acc.type = type;
    EXPECT_EQ(link.Start(), judges) << int{mask} << " " << type;
  }
}

TEST(RecoverySwitch, ADiagnosticProcessIsMeasuredRegardlessOfTheMask) {
  const ProcessName name("SpeedTester.exe");
  LinkJudge link;
  link.config.link_switch_mask = 0;
  EXPECT_TRUE(link.Start());
  link.acc.flag = 4;  // the other tests apply to it too
  EXPECT_FALSE(link.Start());
}

TEST(RecoverySwitch, MeasuresTheGamesOfTheList) {
  const std::string longest = "7," + std::string(126, '1');
  struct Case {
    std::string list;
    bool listed, splits;
  };
  for (const auto& [list, listed, splits] :
       {Case{"7", true, true}, Case{"1,7,9", true, true}, Case{"07", true, true},
        Case{"17,70", false, true}, Case{"7x", true, true}, Case{"7 ,8", true, true},
        Case{"", false, false}, Case{"7,", false, false}, Case{",7", false, false},
        Case{"7,,8", false, false}, Case{" 7", false, false}, Case{"7, 8", false, false},
        Case{"7,x", false, false}, Case{"7,-8", false, false}, Case{"+7", false, false},
        Case{"7,18446744073709551616", false, false}, Case{"7,18446744073709551615", true, true},
        Case{longest, false, false}}) {
    LinkJudge link(0);
    common::SetFieldText(link.config.list_text, list);
    LogCapture log;
    EXPECT_EQ(link.Start(), listed) << list;
    EXPECT_TRUE(log.Contains("[RecoverySwitch][Init]game id =7, acc idc=42, gamelist=" + list +
                             ", socket=1234, token=77"));
    EXPECT_EQ(log.Contains("[RecoverySwitch][Init]split_int fail"), !splits) << list;
    EXPECT_EQ(log.Contains("[RecoverySwitch][IsAllowCalc]game id is not in Gamelist,socket=1234, "
                           "token=77"),
              !listed)
        << list;
  }
}

TEST(RecoverySwitch, LogsWhyItDoesNotMeasure) {
  LinkJudge link(0);
  LogCapture log;
  link.config.link_switch_mask = 0;
  EXPECT_FALSE(link.Start());
  EXPECT_TRUE(
      log.Contains("[RecoverySwitch][IsAllowCalc]calc_open is false, socket=1234, token=77"));
  EXPECT_FALSE(log.Contains("gamelist"));
  link.config.link_switch_mask = 3;
  link.acc.flag = 0xFFFFFFFD;
  EXPECT_FALSE(link.Start());
  EXPECT_TRUE(log.Contains(test::MeasuringBarred(-3) + "42, socket=1234, token=77"));
}

TEST(RecoverySwitch, AnUnusableUnitDisablesIt) {
  LinkJudge link(0);
  LogCapture log;
  link.config.lost_calc_unit_size = 10;
  EXPECT_FALSE(link.Start());
  EXPECT_TRUE(
      log.Contains("[RecoverySwitch::Init]init result=fail, socket=1234, token=77, "
                   "game_id=7, guid=01234567-89AB-CDEF-0123-456789ABCDEF, "
                   "acc_info=198.51.100.1-5000-42-203.0.113.7-6000, "
                   "client_info=3-0-2-198.51.100.9, socket=1234, token=77"));
  link.config.lost_calc_unit_size = 11;
  link.config.long_cycle = 61;
  EXPECT_FALSE(link.Start());
  link.config.long_cycle = 60;
  EXPECT_TRUE(link.Start());
  EXPECT_TRUE(log.Contains("[RecoverySwitch::Init]init result=succ, socket=1234"));
  EXPECT_TRUE(
      log.Contains("RecoverySwitch::Init, switch_condition=delay_amp>=20;delay_avg>=50;"
                   "real_lost>=20, short_cycle              =1, long_cycle"));
}

TEST(RecoverySwitch, DoesNothingWhileItDoesNotJudge) {
  LinkJudge link(0);
  link.config.link_switch_mask = 0;
  ASSERT_FALSE(link.Start());
  LogCapture log;
  RecoverySwitch& judge = link.judge;
  EXPECT_FALSE(judge.OnUpdate());
  judge.DataLinkAddOneRecvPkg(1);
  judge.DataLinkAddOneSendPkg(1);
  judge.RealRouteAddOneSendPkg(1);
  judge.RealRouteAddOneRecvPkg(1, 0);
  judge.SetUploadLost(100);
  EXPECT_EQ(judge.DataLinkGetDefCurLost(false), 0);
  EXPECT_EQ(judge.RealRouteGetDefCurLost(false), 0);
  u32 need = 5, real = 6;
  EXPECT_EQ(judge.GetDataLinkShortLost(&need, &real, true), 103);
  EXPECT_EQ(judge.GetDataLinkLongLost(&need, &real, true), 103);
  EXPECT_EQ(judge.GetRealRouteShortLost(&need, &real, true), 103);
  EXPECT_EQ(judge.GetRealRouteLost(&need, &real, true), 103);
  EXPECT_EQ(need, 5u);
  EXPECT_EQ(real, 6u);
  link.PassReportLimit();
  EXPECT_FALSE(judge.UpdateDelayValue(1000, 1000, 0));
  EXPECT_EQ(judge.TryFireRealRouteLost(), std::nullopt);
  judge.UpdateRecoveryInfo();
  EXPECT_TRUE(link.owner.fired.empty());
  EXPECT_EQ(log.Text(), "");
}

TEST(RecoverySwitch, JudgesNothingBeforeItsStart) {
  RecoverySwitch judge;
  EXPECT_FALSE(judge.OnUpdate());
  EXPECT_EQ(judge.DataLinkGetDefCurLost(true), 0);
}

// Only the loss of data needs a number of packets.
TEST(RecoverySwitch, ALossOfAllProbesIsALoss) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.Probe(5, 0);
  link.CloseSlot();
  EXPECT_EQ(link.judge.RealRouteGetDefCurLost(false), 100);
}

TEST(RecoverySwitch, WithNoReportAllowedNothingIsChecked) {
  LinkJudge link(0);
  link.config.max_link_except_rep_num = 0;
  ASSERT_TRUE(link.Start());
  LogCapture log;
  EXPECT_FALSE(link.judge.OnUpdate());
  EXPECT_TRUE(log.Contains("RecoverySwitch::OnUpdate, reach to the limit."));
  link.PassReportLimit();
  EXPECT_TRUE(link.JudgesDelay(1000, 1000, 0));
  EXPECT_TRUE(link.owner.fired.empty());
  EXPECT_EQ(CountOf(test::kSwitchReported, log.Text()), 0);
}

// 9999 means a delay that was not measured.
TEST(RecoverySwitch, HighDelaysMakeItReport) {
  struct Case {
    u32 amp, avg;
    u8 relay_idx;
    bool reports;
  };
  for (const auto& [amp, avg, relay_idx, reports] : {Case{29, 69, 0, false},
                                                     {30, 0, 0, true},
                                                     {0, 70, 0, true},
                                                     {30, 70, 2, true},
                                                     {9998, 9998, 2, true},
                                                     {9999, 9999, 0, false},
                                                     {9999, 69, 0, false},
                                                     {9999, 70, 0, true},
                                                     {30, 9999, 0, true},
                                                     {10000, 0, 0, true},
                                                     {500, 500, 1, false}}) {
    LinkJudge link;
    link.config.max_delay_amp = 30;
    link.config.max_delay_avg = 70;
    ASSERT_TRUE(link.Start());
    link.PassReportLimit();
    EXPECT_EQ(link.JudgesDelay(amp, avg, relay_idx), reports) << amp << " " << avg;
    EXPECT_EQ(link.owner.fired.size(), reports ? 1u : 0u) << amp << " " << avg;
  }
}

TEST(RecoverySwitch, ALinkOnTrialIsNotJudgedByItsDelay) {
  LinkJudge link;
  ASSERT_TRUE(link.Start(true));
  link.PassReportLimit();
  EXPECT_FALSE(link.JudgesDelay(1000, 1000, 0));
  EXPECT_TRUE(link.owner.fired.empty());
}

TEST(RecoverySwitch, LossOfProbesFiresFromItsThresholdOn) {
  struct Case {
    u32 sent, answered;
    int lost;
    bool fires;
  };
  for (const auto& [sent, answered, lost, fires] :
       {Case{101, 76, 24, false}, {101, 75, 25, true}, {101, 0, 100, true}, {101, 100, 0, false}}) {
    LinkJudge link(0);
    link.config.max_real_route_lost = 25;
    ASSERT_TRUE(link.Start());
    link.PassReportLimit();
    EXPECT_EQ(link.Probe(sent, answered), lost);  // the first probe is the base
    const LogCapture log;
    link.JudgesLoss();
    EXPECT_EQ(link.owner.fired.size(), fires ? 1u : 0u) << lost;
    EXPECT_EQ(log.Contains("[RecoverySwitch::TryFireRealRouteLost]delay_amp=0, delay_avg=0, "
                           "real_route_lost=" +
                           std::to_string(lost) + ", socket=1234, token=77"),
              fires)
        << lost;
  }
}

// No range of numbers: not one slot has closed, or no probe could be sent.
TEST(RecoverySwitch, ARouteOfWhichNothingIsKnownFiresToo) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  EXPECT_EQ(link.RealRouteLost(false), 102);
  link.JudgesLoss();
  EXPECT_EQ(link.owner.fired.size(), 1u);

  LinkJudge patient;
  patient.config.max_real_route_lost = 103;  // beyond all
  ASSERT_TRUE(patient.Start());
  patient.PassReportLimit();
  EXPECT_EQ(patient.RealRouteLost(false), 102);
  patient.JudgesLoss();
  EXPECT_TRUE(patient.owner.fired.empty());
}

TEST(RecoverySwitch, WithoutAReadingThereIsNoLoss) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  link.JudgesLoss();  // the result of the last reading; there was none: 0
  EXPECT_TRUE(link.owner.fired.empty());
}

TEST(RecoverySwitch, JudgesALinkOnTrialByItsOwnLimits) {
  LinkJudge link;
  link.config.switching_max_real_route_lost = 30;
  ASSERT_TRUE(link.Start(true));
  EXPECT_EQ(link.Probe(5, 3), 25);  // four expected; the last has always just left
  EXPECT_EQ(link.judge.TryFireRealRouteLost(), false);
  EXPECT_EQ(link.Probe(1, 0), 40);
  EXPECT_EQ(link.judge.TryFireRealRouteLost(), true);
}

// With the default of 1 percent no node can pass: the verdict falls as the last probe leaves.
TEST(RecoverySwitch, ByDefaultEveryLinkOnTrialFails) {
  LinkJudge link;
  ASSERT_TRUE(link.Start(true));
  EXPECT_EQ(link.Probe(5, 3), 25);
  EXPECT_EQ(link.judge.TryFireRealRouteLost(), true);
}

TEST(RecoverySwitch, LogsWhyItDoesNotSwitch) {
  struct Case {
    const char* line;
    void (*forbid)(LinkJudge&);
    bool with_owner = true;
  };
  const Case cases[] = {
      {"IsAllowSwitch, switch_notifier_ pointer is null, socket=1234, token=77",
       [](LinkJudge& link) { link.config.switch_open = 0; }, false},
      {"[RecoverySwitch][IsAllowSwitch]switch_open is false, socket=1234, token=77",
       [](LinkJudge& link) {
         link.config.switch_open = 0;
         link.acc.flag = 2;
       }},
      {"[RecoverySwitch]flag not allow switch, proxy_idc=42 ,socket=1234, token=77",
       [](LinkJudge& link) {
         link.acc.flag = 2;
         link.config.max_link_switch_count = 0;
       }},
      {"[RecoverySwitch]switching count reaches top limit 0, proxy_idc=42 ,socket=1234,token=77",
       [](LinkJudge& link) { link.config.max_link_switch_count = 0; }},
  };
  for (const Case& refused : cases) {
    LinkJudge link(0);
    refused.forbid(link);
    ASSERT_TRUE(link.Start(false, refused.with_owner));
    link.PassReportLimit();
    LogCapture log;
    link.Probe(5, 0);
    link.JudgesLoss();
    const std::string text = log.Text();
    EXPECT_NE(text.find(refused.line), std::string::npos) << refused.line << "\n" << text;
    EXPECT_EQ(CountOf("switching", text), CountOf("switching", refused.line));  // no other reason
    EXPECT_TRUE(link.owner.fired.empty());
    EXPECT_EQ(CountOf(test::kSwitchReported, text), 1);
    EXPECT_EQ(CountOf(test::SwitchWanted(false) + ", count=1", text), 1);
  }
}

TEST(RecoverySwitch, ADiagnosticProcessMayAlwaysSwitch) {
  const ProcessName name("speedtester.EXE");
  LinkJudge link;
  link.config.switch_open = 0;
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  link.Probe(5, 0);
  link.JudgesLoss();
  EXPECT_EQ(link.owner.fired.size(), 1u);
}

// If a switch begins, the trial reports its outcome, with the judge's record.
TEST(RecoverySwitch, LeavesTheReportToTheSwitchThatItStarted) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  LogCapture log;
  link.Probe(5, 0);
  link.JudgesLoss();
  ASSERT_EQ(link.owner.fired.size(), 1u);
  EXPECT_EQ(link.owner.fired[0].need_switch, 1);
  EXPECT_EQ(link.owner.fired[0].is_switch_succ, 0);
  EXPECT_EQ(link.owner.fired[0].count, 1);
  EXPECT_EQ(CountOf(test::kSwitchReported, log.Text()), 0);
  EXPECT_TRUE(log.Contains(test::kSwitchFires + "0, proxy_idc=42 ,socket=1234, token=77"));
  EXPECT_TRUE(log.Contains("[RecoverySwitch]DoSwitch, count=0, socket=1234, token=77"));

  // And not again for half a minute; that one it reports itself.
  link.PassReportLimit();
  link.Probe(5, 0);
  link.JudgesLoss();
  EXPECT_EQ(link.owner.fired.size(), 1u);
  EXPECT_TRUE(log.Contains(test::SwitchTooSoon(42) + "socket=1234,token=77"));
  EXPECT_EQ(CountOf(test::kSwitchReported, log.Text()), 1);
  EXPECT_EQ(link.judge.report().need_switch, 0) << "that was the one before";
}

TEST(RecoverySwitch, ReportsASwitchThatCouldNotStartAndMayTryAgainAtOnce) {
  LinkJudge link(0);
  link.owner.accepts = false;
  ASSERT_TRUE(link.Start());
  LogCapture log;
  for (int i = 1; i <= 2; ++i) {
    link.PassReportLimit();
    link.Probe(5, 0);
    link.JudgesLoss();
    EXPECT_EQ(link.owner.fired.size(), static_cast<std::size_t>(i));
    EXPECT_EQ(CountOf(test::kSwitchReported, log.Text()), i);
  }
  EXPECT_TRUE(log.Contains(test::SwitchWanted(true) + ", count=2"));
  EXPECT_EQ(CountOf("DoSwitch, count=0,", log.Text()), 2);  // none has been made
}

TEST(RecoverySwitch, FillsTheWholeRecord) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.judge.SetUploadLost(0);
  for (u32 seq = 0; seq <= 10; ++seq) {
    if (seq % 5 != 0 || seq == 0) link.judge.DataLinkAddOneRecvPkg(seq);
  }
  u32 need = 0, real = 0;
  EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, true), 11);  // 5 is missing of 9
  EXPECT_EQ(link.judge.GetDataLinkLongLost(&need, &real, true), 11);
  EXPECT_EQ(need, 9u);
  EXPECT_EQ(real, 8u);
  link.PassReportLimit();
  EXPECT_EQ(link.Probe(11, 4, 2), 60);
  link.judge.RealRouteAddOneRecvPkg(3, 1);
  EXPECT_EQ(link.RealRouteLost(), 60);
  link.JudgesDelay(5, 6, 1);
  link.JudgesDelay(7, 8, 2);
  link.JudgesLoss();
  ASSERT_EQ(link.owner.fired.size(), 1u);
  const RecoverySwitchRecord& record = link.owner.fired[0];
  EXPECT_EQ(record.used, 1);
  EXPECT_EQ(record.game_id, 7u);
  EXPECT_EQ(record.data_link_small_section_pack, 8);
  EXPECT_EQ(record.data_link_small_section_lost, 11);
  EXPECT_EQ(record.data_link_full_section_pack, 8);
  EXPECT_EQ(record.data_link_full_section_lost, 11);
  EXPECT_EQ(record.need_switch, 1);
  EXPECT_EQ(record.is_switch_succ, 0);
  EXPECT_EQ(record.count, 1);
  EXPECT_EQ(record.proxy_idc, 42);
  EXPECT_GE(record.elapse_time, LinkJudge::kUnit);
  EXPECT_EQ(record.total_recv_pack, 0);  // nobody watches this socket
  EXPECT_EQ(record.total_send_pack, 0);
  EXPECT_EQ(record.link_type, 2);
  EXPECT_STREQ(record.guid, LinkJudge::kGuid);
  EXPECT_STREQ(record.switch_condition, "delay_amp>=20;delay_avg>=50;real_lost>=20");
  EXPECT_STREQ(record.acc_info, "198.51.100.1-5000-42-203.0.113.7-6000");
  EXPECT_STREQ(record.client_info, "3-0-2-198.51.100.9");
  EXPECT_STREQ(record.fe_be, "90-1-5-6;60-4-7-8");
}

TEST(RecoverySwitch, LeavesOutAnIdentifierThatIsTooLong) {
  LinkJudge link;
  ReplaceAccConfig(link.config);
  const std::string guid(37, 'g');
  link.judge.Init(link.socket, LinkJudge::kToken, guid, link.acc, link.client, false);
  link.PassReportLimit();
  link.Probe(5, 0);
  link.JudgesLoss();
  ASSERT_EQ(link.owner.fired.size(), 1u);
  EXPECT_STREQ(link.owner.fired[0].guid, "");
  EXPECT_STREQ(link.owner.fired[0].acc_info, "198.51.100.1-5000-42-203.0.113.7-6000");
}

// A route of one relay has no front section, whatever was read as one.
TEST(RecoverySwitch, ASingleRelayHasNoFrontSection) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  EXPECT_EQ(link.Probe(11, 4, 1), 100);
  EXPECT_EQ(link.Probe(10, 4, 0), 80);
  LogCapture log;
  link.judge.UpdateRecoveryInfo();
  EXPECT_TRUE(log.Contains("rs info=0-0-0-0-80-4-0-0-0-0-0-0-0-0-0, link type=1"));
  EXPECT_TRUE(log.Contains("rs recovery switch info=0-0-0-0-80-4-0-0-0-0-0-0-0-0-0"));
  EXPECT_EQ(link.RealRouteLost(), 80);  // reads both sections again
  link.JudgesLoss();
  ASSERT_EQ(link.owner.fired.size(), 1u);
  EXPECT_STREQ(link.owner.fired[0].fe_be, "0-0-0-0;80-4-0-0");
  EXPECT_EQ(link.owner.fired[0].link_type, 1);
}

TEST(RecoverySwitch, AReportResetsTheFiguresItIsBasedOn) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  u32 need = 0, real = 0;
  for (const u32 number : {1u, 2u, 5u}) link.judge.DataLinkAddOneRecvPkg(number);
  EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, true), 50);
  EXPECT_EQ(link.judge.GetDataLinkLongLost(&need, &real, true), 50);
  link.judge.SetUploadLost(50);
  link.Probe(5, 0, 2);
  link.JudgesLoss();
  LogCapture log;
  link.judge.UpdateRecoveryInfo();
  EXPECT_TRUE(log.Contains("rs info=0-0-0-0-0-0-0-0-0-0-0-0-0-0-1, link type=0"));
  link.JudgesLoss();
  EXPECT_EQ(link.owner.fired.size(), 1u);
  // The code of no range as it is, and so nothing lost on the way up.
  EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, false), 102);
}

TEST(RecoverySwitch, ANewLinkIsNotJudgedByFiguresOfTheOldOne) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.judge.SetUploadLost(50);
  EXPECT_EQ(link.Probe(5, 0), 100);
  link.acc.proxy_idc = 43;
  link.acc.acc_port = htons(6001);
  ASSERT_TRUE(link.Start());
  link.PassReportLimit();
  link.JudgesLoss();
  EXPECT_TRUE(link.owner.fired.empty());
  u32 need = 0, real = 0;
  EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, false), 102);
  // Its reports are its own.
  link.Probe(5, 0);
  link.JudgesLoss();
  ASSERT_EQ(link.owner.fired.size(), 1u);
  EXPECT_EQ(link.owner.fired[0].proxy_idc, 43);
  EXPECT_STREQ(link.owner.fired[0].acc_info, "198.51.100.1-5000-43-203.0.113.7-6001");
}

TEST(RecoverySwitch, CutsAnInfoThatIsTooLong) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  link.JudgesDelay(4111111111, 4111111111, 1);
  link.judge.RealRouteAddOneRecvPkg(1, 2);
  LogCapture log;
  link.judge.UpdateRecoveryInfo();
  EXPECT_TRUE(log.Contains("rs info=0-0-4111111111-4111111111-0-0-0-0-0-0-0-0-0-0-0, link type"));
  for (int i = 0; i < 3; ++i) link.judge.DataLinkAddOneRecvPkg(1u + 4'000'000'000u * (i > 0));
  u32 need = 0, real = 0;
  link.judge.GetDataLinkShortLost(&need, &real, true);
  EXPECT_EQ(need, 4'000'000'000u);
}

TEST(RecoverySwitch, StopsReportingAtTheLimit) {
  LinkJudge link(0);
  link.config.max_link_except_rep_num = 1;
  ASSERT_TRUE(link.Start());
  EXPECT_TRUE(link.judge.OnUpdate());
  link.PassReportLimit();
  EXPECT_TRUE(link.JudgesDelay(1000, 0, 0));
  EXPECT_EQ(link.owner.fired.size(), 1u);
  EXPECT_FALSE(link.judge.OnUpdate());
  link.PassReportLimit();
  LogCapture log;
  EXPECT_TRUE(link.JudgesDelay(1000, 0, 0));
  EXPECT_TRUE(
      log.Contains("[RecoverySwitch]IsBelowReportLimit: current calc_count 1is more than "
                   "report limit(1), socket=1234, token=77"));
  EXPECT_EQ(link.owner.fired.size(), 1u);
  // The counts of the object outlive a new link.
  ASSERT_TRUE(link.Start());
  EXPECT_FALSE(link.judge.OnUpdate());
}

TEST(RecoverySwitch, CombinesBothDirectionsOfTheDataLink) {
  struct Case {
    u8 upload;
    u32 received;  // of 100
    int lost;
  };
  for (const auto& [upload, received, lost] : {Case{10, 80, 28},
                                               {0, 80, 20},
                                               {0, 100, 0},
                                               {10, 100, 10},
                                               {100, 80, 100},
                                               {50, 50, 75},
                                               {1, 99, 1},
                                               {33, 67, 55},
                                               {101, 80, 20},
                                               {102, 80, 20},
                                               {255, 100, 0}}) {
    LinkJudge link;
    ASSERT_TRUE(link.Start());
    link.judge.SetUploadLost(upload);
    link.judge.DataLinkAddOneRecvPkg(0);
    for (u32 seq = 101 - received; seq <= 100; ++seq) link.judge.DataLinkAddOneRecvPkg(seq);
    u32 need = 0, real = 0;
    EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, true), lost) << int{upload};
    EXPECT_EQ(link.judge.GetDataLinkLongLost(&need, &real, true), lost) << int{upload};
    EXPECT_EQ(need, 100u);
    EXPECT_EQ(real, received);
  }
}

// A code in place of the loss goes through the same arithmetic: only 0 leaves it as it is.
TEST(RecoverySwitch, ACodeIsCombinedAsIfItWereALoss) {
  struct Case {
    u8 upload;
    int lost;
  };
  for (const auto& [upload, lost] : {Case{0, 102}, {10, 101}, {50, 101}, {100, 100}, {101, 102}}) {
    LinkJudge link;
    ASSERT_TRUE(link.Start());
    link.judge.SetUploadLost(upload);
    u32 need = 0, real = 0;
    EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, false), lost) << int{upload};
  }
}

TEST(RecoverySwitch, TheNodesViewIsNoPartOfTheRealRoute) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.judge.SetUploadLost(50);
  EXPECT_EQ(link.Probe(11, 8), 20);
  u32 need = 0, real = 0;
  EXPECT_EQ(link.judge.GetRealRouteShortLost(&need, &real, true), 20);
  EXPECT_EQ(need, 10u);
  EXPECT_EQ(real, 8u);
}

TEST(RecoverySwitch, UsesClosedSlotsByDefault) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  EXPECT_EQ(link.Probe(11, 9), 10);
  EXPECT_EQ(link.RealRouteLost(false), 102);
  LogCapture log;
  link.CloseSlot();
  EXPECT_EQ(link.RealRouteLost(false), 10);
  EXPECT_TRUE(log.Contains("[RecoverySwitch::Update]data_link, time_delta="));
  EXPECT_TRUE(log.Contains(test::kRealRouteUpdate));
  EXPECT_EQ(CountOf("[RecoverySwitch::Update]", log.Text()), 2);  // none for the front section
  EXPECT_TRUE(log.Contains(test::kRealRouteLoss +
                           ", cycle_size=1, download_lost=10, upload_lost=0, full_lost=10, "
                           "need_recv_pkg=10, real_recv_pkgs=9,  socket=1234"));
}

TEST(RecoverySwitch, SlotsOfTheFrontSectionCloseToo) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  link.Probe(11, 9, 1);
  link.CloseSlot();
  EXPECT_EQ(link.RealRouteLost(false), 100);
  LogCapture log;
  link.judge.UpdateRecoveryInfo();
  EXPECT_TRUE(log.Contains("rs info=10-9-0-0-100-0-0-0-0-0-0-0-0-0-0, link type=2"));
}

// A node gets "not known" rather than a loss computed from a handful of packets.
TEST(RecoverySwitch, HasNoLossFromFewerThanTwentyPackets) {
  for (const u32 received : {0u, 1u, 19u, 20u}) {
    LinkJudge link;
    ASSERT_TRUE(link.Start());
    EXPECT_EQ(link.judge.DataLinkGetDefCurLost(false), 103);
    if (received != 0) {
      link.judge.DataLinkAddOneRecvPkg(0);
      for (u32 seq = 26 - received; seq <= 25; ++seq) link.judge.DataLinkAddOneRecvPkg(seq);
    }
    link.CloseSlot();
    const int lost = received == 0 ? 102 : static_cast<int>((25 - received) * 100 / 25);
    EXPECT_EQ(link.judge.DataLinkGetDefCurLost(true), lost);
    EXPECT_EQ(link.judge.DataLinkGetDefCurLost(false), received == 0   ? 102
                                                       : received < 20 ? 101
                                                                       : lost);
  }
}

TEST(RecoverySwitch, ProbesNeedNoSuchNumber) {
  LinkJudge link;
  ASSERT_TRUE(link.Start());
  link.Probe(5, 3);
  link.CloseSlot();
  EXPECT_EQ(link.judge.RealRouteGetDefCurLost(false), 25);
}

TEST(RecoverySwitch, SendsOnTheDataLinkChangeNothing) {
  LinkJudge link(0);
  ASSERT_TRUE(link.Start());
  LogCapture log;
  for (u32 seq = 0; seq < 50; ++seq) link.judge.DataLinkAddOneSendPkg(seq);
  u32 need = 9, real = 9;
  EXPECT_EQ(link.judge.GetDataLinkShortLost(&need, &real, true), 102);
  EXPECT_TRUE(
      log.Contains("[RecoverySwitch::DataLinkAddOneSendPkg]data_link, pkg_seq=49 "
                   ",socket=1234, token=77"));
}

}  // namespace
}  // namespace moru_vyr::lsp
