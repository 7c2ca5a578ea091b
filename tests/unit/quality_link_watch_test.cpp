// When traffic calls for a burst of probes. At stake: a link in trouble is tested, and a code for
// an unknown loss is not taken for a loss. And what the watcher of a link takes along to the next.
#include "quality/link_watch.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "tests/support/end_worker.h"
#include "tests/support/link_judge.h"
#include "tests/support/log_texts.h"
#include "tracker/tracker.h"

namespace moru_vyr::lsp {
namespace {

RecoverySwitchConfig Limits(u32 short_pkg, u32 short_lost, u32 long_pkg, u32 long_lost,
                            u32 route_lost) {
  RecoverySwitchConfig limits;
  limits.data_link_short_cycle_pkg_ = short_pkg;
  limits.data_link_short_cycle_lost = short_lost;
  limits.data_link_long_cycle_pkg_ = long_pkg;
  limits.data_link_long_cycle_lost_ = long_lost;
  limits.max_real_route_lost_ = route_lost;
  return limits;
}

struct Judged {
  const char* name;
  LinkFigures figures;  // small lost, real; long lost, real; route short real, lost
  LinkTrouble trouble;
};

const Judged kJudged[] = {
    {"healthy", {0, 50, 0, 100, 2, 0}, LinkTrouble::kNone},
    // Dead: nothing arrived although something was expected.
    {"dead", {102, 0, 0, 0, 0, 0}, LinkTrouble::kDead},
    {"dead with a loss", {100, 0, 100, 0, 0, 100}, LinkTrouble::kDead},
    {"quiet, with answers to probes", {102, 0, 102, 0, 1, 0}, LinkTrouble::kNone},
    {"nothing came, and the loss is 101", {101, 0, 0, 0, 0, 0}, LinkTrouble::kNone},
    {"nothing came, and the loss is 103", {103, 0, 0, 0, 0, 0}, LinkTrouble::kNone},
    {"nothing came, and the loss is 201", {201, 0, 0, 0, 0, 0}, LinkTrouble::kNone},
    {"data, without answers to probes", {0, 50, 0, 100, 0, 0}, LinkTrouble::kNone},
    // The short window.
    {"short loss", {15, 10, 0, 100, 2, 0}, LinkTrouble::kShortLoss},
    {"short loss below its limit", {14, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of too few", {15, 9, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 102 stays as it is", {102, 10, 0, 100, 2, 0}, LinkTrouble::kShortLoss},
    {"short loss of 101 counts as none", {101, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 103 counts as none", {103, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 201 counts as none", {201, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short loss of 255 counts as none", {255, 10, 0, 100, 2, 0}, LinkTrouble::kNone},
    {"short before long", {15, 10, 5, 20, 2, 0}, LinkTrouble::kShortLoss},
    // The long window.
    {"long loss", {0, 50, 5, 20, 2, 0}, LinkTrouble::kLongLoss},
    {"long loss below its limit", {0, 50, 4, 20, 2, 0}, LinkTrouble::kNone},
    {"long loss of too few", {0, 50, 5, 19, 2, 0}, LinkTrouble::kNone},
    {"long loss of 100", {0, 50, 100, 20, 2, 0}, LinkTrouble::kLongLoss},
    {"long loss of 101 counts as none", {0, 50, 101, 20, 2, 0}, LinkTrouble::kNone},
    {"long loss of 102 counts as none", {0, 50, 102, 20, 2, 0}, LinkTrouble::kNone},
    {"long loss of 201 counts as none", {0, 50, 201, 20, 2, 0}, LinkTrouble::kNone},
    {"an unknown short loss leaves the long one", {201, 0, 5, 20, 0, 0}, LinkTrouble::kLongLoss},
    // Probes, if the game sends little.
    {"route loss", {0, 5, 0, 19, 2, 30}, LinkTrouble::kRouteLoss},
    {"route loss below its limit", {0, 5, 0, 19, 2, 29}, LinkTrouble::kNone},
    {"route loss beside enough data", {0, 50, 0, 20, 2, 30}, LinkTrouble::kNone},
    {"route loss of 100", {0, 5, 0, 19, 2, 100}, LinkTrouble::kRouteLoss},
    {"route loss of 101", {0, 5, 0, 19, 2, 101}, LinkTrouble::kNone},
    {"route loss of 102", {0, 5, 0, 19, 2, 102}, LinkTrouble::kNone},
    {"route loss of 201", {0, 5, 0, 19, 2, 201}, LinkTrouble::kNone},
    {"all unknown", {201, 0, 201, 0, 0, 201}, LinkTrouble::kNone},
};

TEST(LinkTrouble, IsTheFirstThatHolds) {
  for (const Judged& one : kJudged) {
    EXPECT_EQ(FindTrouble(one.figures, Limits(10, 15, 20, 5, 30)), one.trouble) << one.name;
  }
}

// Limits of 0 would make any code a loss.
TEST(LinkTrouble, ACodeIsNotALossForAnyLimit) {
  EXPECT_EQ(FindTrouble({201, 7, 201, 7, 2, 201}, Limits(0, 1, 0, 1, 1)), LinkTrouble::kNone);
}

// The watcher of a link, whose steps and datagrams are the test's own. Its socket sends nothing.
class WatchedLink : public testing::Test {
 protected:
  WatchedLink() {
    test::EndWorker();  // which alone uses the Tracker's list while it runs
    GetTracker().AddToWatchList(link.socket, kTrackUdp, test::LinkJudge::kToken);
  }
  ~WatchedLink() override { GetTracker().RemoveFromWatchList(link.socket); }

  void Start(bool on_trial = false) {
    ReplaceAccConfig(link.config);
    if (!watch) watch.emplace();
    SpeedTestParam param;
    param.socket = link.socket;
    param.token = test::LinkJudge::kToken;
    watch->Start(param, test::LinkJudge::kGuid, link.acc, link.client, on_trial);
  }
  void Step(u32 elapsed_ms, bool probing = false) {
    EXPECT_EQ(watch->OnUpdate(elapsed_ms, probing), LinkRequest::kNone);
  }
  // One check of the traffic.
  void CheckTraffic() {
    Step(link.config.lost_calc_unit_size);
    Step(1);
  }
  void CloseSlot() {
    test::Pass(test::LinkJudge::kUnit);
    Step(0);
    test::Pass(test::LinkJudge::kWait);
    Step(0);
  }
  LinkRequest Answers(u32 seq, u32 delay) {
    reply = {};
    reply.len = 36;
    reply.seq = seq;
    reply.delay = delay;
    return watch->OnReply(&reply);
  }
  int Count(const std::string& words) const { return test::CountOf(words, log.Text()); }

  test::LinkJudge link{0};
  std::optional<LinkWatch> watch;
  ProbeReply reply;
  const test::LogCapture log{0};
};

TEST_F(WatchedLink, ItsTrafficIsCheckedOnceAUnitFromItsStartOn) {
  const std::string check = "rs info=";
  link.config.lost_calc_unit_size = 1000;
  Start();
  Step(999);
  Step(1);
  EXPECT_EQ(Count(check), 0);
  Step(30);
  EXPECT_EQ(Count(check), 1);
  Step(1000);
  EXPECT_EQ(Count(check), 1);
  Start();  // the flow has moved
  Step(1000);
  EXPECT_EQ(Count(check), 1);
  Step(30);
  EXPECT_EQ(Count(check), 2);
}

// They would measure the way to a node that has not agreed yet.
TEST_F(WatchedLink, NoProbeLeavesWhileNoneMay) {
  Start(true);
  for (int i = 0; i < 2; ++i) {
    Step(0, false);
    test::Pass(20);
  }
  Step(0, false);
  EXPECT_EQ(Count("SendSpeedTest"), 0);
  Step(0, true);
  test::Pass(20);
  Step(0, true);
  EXPECT_EQ(Count("SendSpeedTest failed"), 1);
}

TEST_F(WatchedLink, TheNodeIsToldNoLossOfTooFewDatagrams) {
  Start();
  EXPECT_EQ(watch->LostToTell(), kLostNeverComputed);
  for (u32 seq = 0; seq < 6; ++seq) watch->OnData(seq, 0);
  CloseSlot();
  EXPECT_EQ(watch->LostToTell(), kLostTooFew);
  watch->Forget();
  Start();
  EXPECT_EQ(watch->LostToTell(), kLostNeverComputed) << "of the new link";
}

TEST_F(WatchedLink, AnAnswerCountsOnceHoweverOftenItIsTaken) {
  Start();
  EXPECT_EQ(Answers(1, 200), LinkRequest::kNone);
  test::Pass(500);  // the first answer is a cycle of its own
  ASSERT_EQ(Answers(2, 200), LinkRequest::kSwitch);
  EXPECT_EQ(Count(test::kSwitchReported), 0) << "who switches reports";
  watch->SwitchAnswered(false);
  EXPECT_EQ(Count(test::kSwitchReported), 1);
  EXPECT_EQ(watch->OnReply(&reply), LinkRequest::kNone);
  SpeedStats stats;
  ASSERT_TRUE(GetTracker().GetSpeedTestResult(link.socket, &stats));
  EXPECT_EQ(stats.frontend.all.count, 2u);
}

TEST_F(WatchedLink, ForgettingALinkEndsItsWatchPeriod) {
  link.config.max_high_freq_test_count = 0;  // so that the first answer begins one
  link.config.watching_time_span = 60;
  Start();
  Answers(1, 5);
  Start();
  CheckTraffic();
  EXPECT_EQ(Count(test::kBurstRefused), 1);
  watch->Forget();
  Start();
  CheckTraffic();
  EXPECT_EQ(Count(test::kBurstRefused), 1);
}

TEST_F(WatchedLink, NeedsNoExtraStepWhereProbesNeedNotKeepTime) {
  Start();
  CheckTraffic();  // nothing came: a burst begins
  EXPECT_EQ(watch->DueInMs(), LinkWatch::kNotDue);
}

}  // namespace
}  // namespace moru_vyr::lsp
